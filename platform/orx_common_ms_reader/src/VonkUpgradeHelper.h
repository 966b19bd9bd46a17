#pragma once

#include "orx_common_ms_reader_export.h"

#include "UpgradeVonkTask.h"

#include <memory>

namespace orx {

class ORX_COMMON_MS_READER_EXPORT VonkUpgradeHelper {
public:
    //! A task, not started, that writes the packed acquisition \a sourcePath in the current format to the new
    //! file \a targetPath.
    static std::unique_ptr<vonk::UpgradeVonkTask>
    createUpgradeVonkTask(const QString& sourcePath, const QString& targetPath, Task::ExecutionMode mode);
};

} // namespace orx
