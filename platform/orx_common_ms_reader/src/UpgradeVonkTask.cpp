#include "UpgradeVonkTask.h"

#include <QFile>

namespace orx::vonk {

UpgradeVonkTask::UpgradeVonkTask(const QString& sourcePath, const QString& targetPath, QObject* parent)
    : VonkTask(QStringLiteral("UpgradeVonk(%1)").arg(sourcePath), parent)
    , m_source(sourcePath)
    , m_target(targetPath) {}

UpgradeVonkTask::~UpgradeVonkTask() {
    stopForGood();
}

Error UpgradeVonkTask::work(const WorkWatch& watch) {
    Vonk source(m_source);
    ORX_RETURN_ON_ERROR(source.open());
    return ORX_ECATCH(source.upgrade(m_target, watch));
}

void UpgradeVonkTask::discard() {
    QFile::remove(m_target);
}

} // namespace orx::vonk
