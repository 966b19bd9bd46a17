#include "HalvaneVonkFileUploadTask.h"

#include "../HalvaneResourceHandlerLog.h"
#include "VonkUpgradeRule.h"

#include <FileTypes.h>
#include <HalvaneConnection.h>
#include <HalvaneUtils.h>
#include <Vonk.h>
#include <VonkUpgradeHelper.h>

#include <QFileInfo>
#include <QPointer>
#include <QTemporaryDir>

namespace orx {
namespace {

Result<vonk::VonkMetadata> vonkMetadata(const QString& path) {
    vonk::Vonk file(path);
    ORX_RETURN_ON_ERROR(file.open(vonk::Vonk::OpenMode::Read));
    ORX_RETURN_ON_ERROR(file.validate());
    return file.metadata();
}

//! A task that is cancelled or destroyed while this waits ends the upgrade too.
Result<QString> doPerformSilentUpgrade(const QString& path, const QTemporaryDir* tempDir,
                                       const HalvaneVonkFileUploadTask* upload) {
    if (!tempDir)
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument,
                                HalvaneVonkFileUploadTask::tr("Temporary dir is not provided")));
    const QString target = tempDir->filePath(QFileInfo(path).fileName());
    qCInfo(halvaneResourceHandlerLog) << "Upgrading " << path << "into" << target;
    const auto task = VonkUpgradeHelper::createUpgradeVonkTask(path, target, Task::ExecutionMode::Direct);
    task->setExecutionMode(Task::ExecutionMode::Worker);
    QObject::connect(upload, &BaseTask::canceled, task.get(), &BaseTask::cancel);
    QObject::connect(upload, &QObject::destroyed, task.get(), &BaseTask::cancel);
    task->exec();
    ORX_RETURN_ON_ERROR(task->waitForFinished(-1));
    return target;
}

Error unpackToExpectedPath(const ResourceHandler& handler, const QString& path,
                           const std::shared_ptr<const void>& held) {
    const auto place = handler.expectedPath();
    ORX_RETURN_ON_ERROR(place.error());
    ORX_RETURN_ON_ERROR(HalvaneUtils::unpackAsync(path, *place, held));
    return Error();
}

} // namespace

bool HalvaneVonkFileUploadTask::s_performSilentUpgradeDefault = true;

HalvaneVonkFileUploadTask::HalvaneVonkFileUploadTask(const HalvaneFileUploadParameters& parameters,
                                                     QObject* parent)
    : HalvaneFileUploadTask(parameters, parent) {}

HalvaneVonkFileUploadTask::~HalvaneVonkFileUploadTask() = default;

bool HalvaneVonkFileUploadTask::performSilentUpgrade() const {
    return m_performSilentUpgrade;
}

void HalvaneVonkFileUploadTask::setPerformSilentUpgrade(bool perform) {
    m_performSilentUpgrade = perform;
}

bool HalvaneVonkFileUploadTask::performSilentUpgradeDefault() {
    return s_performSilentUpgradeDefault;
}

void HalvaneVonkFileUploadTask::setPerformSilentUpgradeDefault(bool perform) {
    s_performSilentUpgradeDefault = perform;
}

Error HalvaneVonkFileUploadTask::initialize() {
    const HalvaneFileUploadParameters upload = parameters();
    if (!FileTypes::fileMatchesAnyType(upload.localPath, {FileTypes::VONK}))
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument, tr("File name is not a vonk file")));
    auto metadata = vonkMetadata(upload.localPath);
    ORX_RETURN_ON_ERROR(metadata.error());
    m_vonkMetadataJson = metadata->toJson();
    if (isVonkUpgradeNeeded(metadata->formatVersion, vonk::vonkVersion()))
        ORX_RETURN_ON_ERROR(upgrade(upload));
    ORX_RETURN_ON_ERROR(HalvaneFileUploadTask::initialize());
    return Error();
}

Error HalvaneVonkFileUploadTask::upgrade(HalvaneFileUploadParameters upload) {
    const auto userSettings = HalvaneConnection::instance().settings().userSettingsPtr();
    // The upgrade waits in an event loop, in which this object may be destroyed.
    const QPointer<HalvaneVonkFileUploadTask> guard(this);
    auto tempDir = std::make_unique<QTemporaryDir>(userSettings->tempDirTemplate());
    auto upgraded = doPerformSilentUpgrade(upload.localPath, tempDir.get(), this);
    if (guard)
        m_tempDir = std::move(tempDir);
    ORX_RETURN_ON_ERROR(upgraded.error());
    if (!guard)
        return Error(ErrorCode::Canceled, tr("The upload was cancelled."));
    upload.localPath = *upgraded;
    auto metadata = vonkMetadata(upload.localPath);
    ORX_RETURN_ON_ERROR(metadata.error());
    m_vonkMetadataJson = metadata->toJson();
    setParameters(upload);
    return Error();
}

Error HalvaneVonkFileUploadTask::addToCache(const QSharedPointer<RemoteResourceHandler>& handler) {
    const QString path = parameters().localPath;
    ORX_RETURN_ON_ERROR(handler->addToCache(
        [handler, path, held = m_held]() -> Error { return unpackToExpectedPath(*handler, path, held); }));
    return Error();
}

QJsonObject HalvaneVonkFileUploadTask::finalizeRequestJson() const {
    QJsonObject request = HalvaneFileUploadTask::finalizeRequestJson();
    request.insert(QStringLiteral("vonk_trace"), m_vonkMetadataJson);
    return request;
}

} // namespace orx
