#pragma once

#include "orx_common_ms_reader_export.h"

#include <Task.h>

#include <memory>

namespace orx::vonk {

//! Writes a packed acquisition in the current format: see Vonk::upgrade(). Runs by its execution mode;
//! progress of 100 in whole percents. Cancelled, it ends soon and leaves nothing.
class ORX_COMMON_MS_READER_EXPORT UpgradeVonkTask final : public Task {
    Q_OBJECT
public:
    //! Of both files; \a targetPath must not exist.
    UpgradeVonkTask(const QString& sourcePath, const QString& targetPath, QObject* parent = nullptr);
    ~UpgradeVonkTask() override;

protected:
    Error initialize() override;
    Error doExec() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx::vonk
