#pragma once

#include "halvane_host_export.h"

#include <Task.h>

#include <functional>

namespace halvane::host {

//! Runs a function that waits for a disk on a worker; its error is the task's. The function owns what it uses
//! and touches nothing of the owner's thread.
class HALVANE_HOST_EXPORT WorkerTask final : public orx::Task {
    Q_OBJECT
public:
    WorkerTask(const QString& name, std::function<orx::Error()> work, QObject* parent = nullptr);
    ~WorkerTask() override;

protected:
    orx::Error doExec() override;

private:
    std::function<orx::Error()> m_work;
};

//! Executes \a task and spins the calling thread's event loop until the task and all its descendants have
//! ended; returns the task's error. For hosts whose main thread may block, such as a command line.
HALVANE_HOST_EXPORT orx::Error runUntilIdle(orx::BaseTask& task);

} // namespace halvane::host
