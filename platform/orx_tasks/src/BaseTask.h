#pragma once

#include "orx_tasks_export.h"

#include <ErrorCancelable.h>

#include <QList>
#include <QVariant>

#include <memory>

namespace orx {

//! The life cycle that all tasks share: created -> running -> finished.
//!
//! Signals of one run, in this order: started, then progressInitiated and progress as the task reports them,
//! canceled at most once, finished exactly once and last, after doFinish(). A task that was cancelled is
//! never successful. Everything happens on the thread that owns the object.
//!
//! finish() ends the run at once even while descendants of the task still work; the task is idle, and idle()
//! is emitted, when they have ended too. A task is not to be deleted by its owner before it is idle;
//! destroying a running task all the same cancels it and leaves no callback behind, and emits neither
//! finished nor idle.
class ORX_TASKS_EXPORT BaseTask : public ErrorCancelable {
    Q_OBJECT
public:
    enum class State { Created, Running, Finished };
    Q_ENUM(State)

    explicit BaseTask(const QString& name, QObject* parent = nullptr);
    ~BaseTask() override;

    //! For people: logs and traces.
    QString name() const;
    State state() const;
    bool isRunning() const { return state() == State::Running; }
    bool isFinished() const { return state() == State::Finished; }
    //! Finished (or never started), and no descendant is running.
    virtual bool isIdle() const;
    //! What the task produced besides its error; invalid until it says otherwise.
    QVariant variantResult() const;

    //! Starts the run. Only for a task in state Created; anything else is a fault of the caller that is
    //! logged and changes nothing. A task that was cancelled before it started finishes at once with the
    //! cancel error and runs nothing.
    void exec();

    //! Blocks until the task is finished and returns its error; ErrorCode::TimedOut when \a timeoutMs (-1:
    //! none) went by first. Needs no running event loop; events of this thread are processed meanwhile.
    Error waitForFinished(int timeoutMs = -1);
    //! The same for several tasks; the first error in list order, or ErrorCode::TimedOut.
    static Error waitForAllFinished(const QList<BaseTask*>& tasks, int timeoutMs = -1);

    //! Sets the cancel error synchronously, reaches every running descendant, emits canceled(), and lets the
    //! task finish soon. Idempotent; nothing on a finished task.
    void cancel() override;

    //! Ends the run: holds \a error (unless one is held already), calls doFinish(), emits finished. Nothing
    //! when the task is not running.
    void finish(const Error& error);

Q_SIGNALS:
    void started();
    //! Last signal of a run.
    void finished();
    //! After finished, when no descendant runs any more (right after it, in the usual case).
    void idle();
    //! \a maximum: what the progress values will count up to. May come more than once and before started.
    void progressInitiated(int maximum);
    void progress(int value, int maximum);

protected:
    //! The body: called once per run after started was emitted; ends with finish(), at once or later.
    virtual void run() = 0;
    //! Called by finish() before finished is emitted; returns the error the task ends with. The base returns
    //! the error held. Runs after a failed initialisation and after cancellation too.
    virtual Error doFinish();
    //! Called by cancel() once per run, after the error is set and before canceled() is emitted, while the
    //! task is running.
    virtual void doCancel();

    void setVariantResult(const QVariant& result);
    //! Brings a finished task back to running: clears the error and the cancelled state. The caller then
    //! starts what is to run.
    void restart();
    //! Re-evaluates isIdle() after something changed, and emits idle() when due.
    void checkIdle();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
