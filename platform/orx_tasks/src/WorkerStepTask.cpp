#include "WorkerStepTask.h"

#include "WorkerPool.h"

namespace orx {

WorkerStepTask::WorkerStepTask(const QString& name, Job job) : Task(name), m_job(std::move(job)) {}

WorkerStepTask::~WorkerStepTask() {
    *m_canceled = true;
}

void WorkerStepTask::start() {
    const auto result = std::make_shared<Error>();
    WorkerPool::instance().submit(
        [job = std::exchange(m_job, {}), canceled = m_canceled, result]() mutable {
            if (!*canceled)
                *result = job();
            job = {}; // what it holds goes before the step ends
        },
        this, [this, result] { finish(*result); });
}

void WorkerStepTask::doCancel() {
    *m_canceled = true;
}

} // namespace orx
