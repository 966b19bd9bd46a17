#include "CustomComplexTask.h"

namespace orx {

CustomComplexTask::CustomComplexTask(const QString& name, QObject* parent) : ComplexTask(name, parent) {}

CustomComplexTask::~CustomComplexTask() = default;

CustomComplexTask::WaitMode CustomComplexTask::waitMode() const {
    return WaitMode::WaitForSubtasks;
}

void CustomComplexTask::execSubtasks(const QList<BaseTask*>& tasks) {
    startInGroup(tasks);
}

bool CustomComplexTask::waitsForGroup() const {
    return waitMode() == WaitMode::WaitForSubtasks;
}

} // namespace orx
