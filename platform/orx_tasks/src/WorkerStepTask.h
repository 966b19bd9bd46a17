#pragma once

#include "orx_tasks_export.h"

#include "Task.h"

#include <atomic>
#include <functional>
#include <memory>

namespace orx {

//! One step of a larger task that blocks: runs a job on a worker and ends with its error. The job owns what
//! it works on, so that the task may be destroyed while it runs. Cancelled, the step does not begin a job
//! that waits, and ends when a job that runs has returned: after the step nothing touches what the job works
//! on. Jobs are to be short.
class ORX_TASKS_EXPORT WorkerStepTask : public Task {
    Q_OBJECT
public:
    using Job = std::function<Error()>;

    WorkerStepTask(const QString& name, Job job);
    ~WorkerStepTask() override;

protected:
    void start() override;
    void doCancel() override;

private:
    Job m_job;
    std::shared_ptr<std::atomic<bool>> m_canceled = std::make_shared<std::atomic<bool>>(false);
};

} // namespace orx
