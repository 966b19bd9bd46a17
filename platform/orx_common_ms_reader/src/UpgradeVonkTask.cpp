#include "UpgradeVonkTask.h"

#include "PackedText.h"
#include "TaskPercents.h"
#include "Vonk.h"

namespace orx::vonk {

struct UpgradeVonkTask::Private {
    QString source;
    QString target;
    std::unique_ptr<TaskPercents> percents;
};

UpgradeVonkTask::UpgradeVonkTask(const QString& sourcePath, const QString& targetPath, QObject* parent)
    : Task(QStringLiteral("UpgradeVonk(%1)").arg(sourcePath), parent)
    , d(std::make_unique<Private>(Private{sourcePath, targetPath, nullptr})) {
    d->percents =
        std::make_unique<TaskPercents>(this, [this](int percent) { Q_EMIT progress(percent, 100); });
}

UpgradeVonkTask::~UpgradeVonkTask() {
    stopBody();
}

Error UpgradeVonkTask::initialize() {
    Q_EMIT progressInitiated(100);
    return {};
}

Error UpgradeVonkTask::doExec() {
    Vonk source(d->source);
    ORX_RETURN_ON_ERROR(source.open());
    return ORX_ECATCH(source.upgrade(d->target, d->percents->watch([this] { return isCancelRequested(); })));
}

} // namespace orx::vonk
