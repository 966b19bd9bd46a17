#include "VonkUpgradeHelper.h"

namespace orx {

std::unique_ptr<vonk::UpgradeVonkTask> VonkUpgradeHelper::createUpgradeVonkTask(const QString& sourcePath,
                                                                                const QString& targetPath,
                                                                                Task::ExecutionMode mode) {
    auto task = std::make_unique<vonk::UpgradeVonkTask>(sourcePath, targetPath);
    task->setExecutionMode(mode);
    return task;
}

} // namespace orx
