#include "FlushDirectoriesTask.h"

#include <WorkerPool.h>

namespace orx {

FlushDirectoriesTask::FlushDirectoriesTask(std::shared_ptr<DirectoryFlushes> flushes)
    : BaseTask(QStringLiteral("FlushDirectories")), m_flushes(std::move(flushes)) {}

void FlushDirectoriesTask::run() {
    WorkerPool::instance().submit(
        [flushes = m_flushes, failures = m_failures] { *failures = flushes->flush(); }, this,
        [this] { finish(Error()); });
}

void FlushDirectoriesTask::runCanceled() {
    run();
}

} // namespace orx
