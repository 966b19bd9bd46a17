#pragma once

#include "orx_common_ms_reader_export.h"

#include "VonkTask.h"

namespace orx::vonk {

//! Vonk::upgrade() of the file \a sourcePath into the new file \a targetPath.
class ORX_COMMON_MS_READER_EXPORT UpgradeVonkTask final : public VonkTask {
    Q_OBJECT
public:
    UpgradeVonkTask(const QString& sourcePath, const QString& targetPath, QObject* parent = nullptr);
    ~UpgradeVonkTask() override;

protected:
    Error work(const WorkWatch& watch) override;
    void discard() override;

private:
    QString m_source;
    QString m_target;
};

} // namespace orx::vonk
