#include "RunUntilIdle.h"

#include <QEventLoop>

namespace halvane::host {

orx::Error runUntilIdle(orx::BaseTask& task) {
    QEventLoop loop;
    QObject::connect(&task, &orx::BaseTask::idle, &loop, &QEventLoop::quit);
    task.exec();
    if (!task.isIdle())
        loop.exec();
    return task.error();
}

} // namespace halvane::host
