#include "HostTasks.h"

#include <QEventLoop>

namespace halvane::host {

WorkerTask::WorkerTask(const QString& name, std::function<orx::Error()> work, QObject* parent)
    : Task(name, parent), m_work(std::move(work)) {
    setExecutionMode(ExecutionMode::Worker);
}

WorkerTask::~WorkerTask() = default;

orx::Error WorkerTask::doExec() {
    return m_work();
}

orx::Error runUntilIdle(orx::BaseTask& task) {
    QEventLoop loop;
    QObject::connect(&task, &orx::BaseTask::idle, &loop, &QEventLoop::quit);
    task.exec();
    if (!task.isIdle())
        loop.exec();
    return task.error();
}

} // namespace halvane::host
