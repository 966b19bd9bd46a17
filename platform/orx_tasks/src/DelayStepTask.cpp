#include "DelayStepTask.h"

#include <QTimer>

namespace orx {

DelayStepTask::DelayStepTask(std::chrono::milliseconds delay)
    : Task(QStringLiteral("Delay")), m_delay(delay) {}

void DelayStepTask::start() {
    QTimer::singleShot(m_delay, this, [this] { finish(Error()); });
}

void DelayStepTask::doCancel() {
    finish(error());
}

} // namespace orx
