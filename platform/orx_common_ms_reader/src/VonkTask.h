#pragma once

#include "orx_common_ms_reader_export.h"

#include "Vonk.h"

#include <Task.h>

#include <memory>

namespace orx::vonk {

//! Long work on a packed acquisition as a task that runs by its execution mode. Progress: whole percents of
//! 100, each once and none after finished; 100 when it succeeded. Cancelled, it ends soon with nothing left
//! of its target; so does one that is destroyed before it is finished. Who derives from it calls
//! stopForGood() in the destructor.
class ORX_COMMON_MS_READER_EXPORT VonkTask : public Task {
    Q_OBJECT
public:
    explicit VonkTask(const QString& name, QObject* parent = nullptr);
    ~VonkTask() override;

protected:
    //! The body: on the worker in mode Worker.
    virtual Error work(const WorkWatch& watch) = 0;
    //! Removes what work() made: it had succeeded when the task was cancelled or destroyed. On the owner's
    //! thread.
    virtual void discard();
    void stopForGood();

    Error initialize() override;
    Error doExec() final;
    Error doFinish() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

//! Vonk::validate() with Check::Full, or as quickly as \a check says.
class ORX_COMMON_MS_READER_EXPORT CheckVonkTask final : public VonkTask {
    Q_OBJECT
public:
    CheckVonkTask(const QString& path, Vonk::Check check, QObject* parent = nullptr);
    ~CheckVonkTask() override;

protected:
    Error work(const WorkWatch& watch) override;

private:
    QString m_path;
    Vonk::Check m_check;
};

//! Vonk::unpack() of the file \a path into the new directory \a target.
class ORX_COMMON_MS_READER_EXPORT UnpackVonkTask final : public VonkTask {
    Q_OBJECT
public:
    UnpackVonkTask(const QString& path, const QString& target, QObject* parent = nullptr);
    ~UnpackVonkTask() override;

protected:
    Error work(const WorkWatch& watch) override;
    void discard() override;

private:
    QString m_path;
    QString m_target;
};

} // namespace orx::vonk
