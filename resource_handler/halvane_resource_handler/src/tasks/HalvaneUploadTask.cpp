#include "HalvaneUploadTask.h"

#include "HalvaneFileUploadTask.h"
#include "HalvaneFolderUploadTask.h"
#include "HalvaneSampleDataUploadTask.h"

#include <FileTypes.h>
#include <MsDataFileUtils.h>

#include <QFileInfo>

namespace orx {

HalvaneUploadTask::HalvaneUploadTask(const QString& name, QObject* parent)
    : HalvaneComplexTask(name, parent) {}

HalvaneUploadTask::HalvaneUploadTask(QObject* parent) : HalvaneComplexTask(parent) {}

HalvaneUploadTask::HalvaneUploadTask() = default;

Result<std::unique_ptr<HalvaneUploadTask>>
HalvaneUploadTask::create(const QString& path, int targetId,
                          HalvaneResourceReference::ItemType targetItemType, const QString& alias,
                          const std::optional<QList<HalvaneExtendedMetaDataValue>>& extendedMetadata,
                          const QList<int>& userGroups, QFlags<HalvaneUploadPolicyOption> policyOptions,
                          const std::optional<QString>& targetFileName) {
    using Made = std::unique_ptr<HalvaneUploadTask>;
    const QFileInfo info(path);
    const bool isVonk = FileTypes::fileMatchesAnyType(path, {FileTypes::VONK});
    const bool isSampleData = !isVonk && MsDataFileUtils::isValidMsData(path);
    if (!info.isFile() && !isSampleData) {
        if (!info.isDir())
            return ORX_ECATCH(Error(ErrorCode::InvalidArgument,
                                    tr("Cannot create a upload task for \"%1\" path.").arg(path)));
        if (targetItemType == HalvaneResourceReference::ItemType::File)
            return ORX_ECATCH(
                Error(ErrorCode::General, tr("You cannot upload a folder if the target is a file.")));
        return Made(
            std::make_unique<HalvaneFolderUploadTask>(path, targetId, userGroups, policyOptions, nullptr));
    }
    auto parameters = HalvaneFileUploadParameters::create(path, targetId, targetItemType, alias,
                                                          extendedMetadata, policyOptions, targetFileName);
    if (parameters.hasError())
        return ORX_ECATCH(parameters).error();
    if (isSampleData)
        return Made(std::make_unique<HalvaneSampleDataUploadTask>(*parameters, nullptr));
    return Made(HalvaneFileUploadTask::create(*parameters));
}

} // namespace orx
