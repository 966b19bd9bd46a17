#include "HalvaneGetFolderMetadataTask.h"

namespace orx {

HalvaneGetFolderMetadataTask::HalvaneGetFolderMetadataTask(int folderId, QObject* parent)
    : HalvaneTask(QStringLiteral("GetFolderMetadata(ID=%1)").arg(folderId), parent), m_folderId(folderId) {}

HalvaneGetFolderMetadataTask::~HalvaneGetFolderMetadataTask() = default;

Result<NetworkRequest> HalvaneGetFolderMetadataTask::prepareRequest(const QUrl& baseUrl) const {
    return NetworkTask::prepareRequest(baseUrl, QStringLiteral("/folders/%1").arg(m_folderId),
                                       NetworkRequest::Method::Get);
}

Error HalvaneGetFolderMetadataTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const auto data = JsonUtils::objectValue(json, QStringLiteral("data"));
    ORX_RETURN_ON_ERROR(data.error());
    const auto metadata = HalvaneFolderResourceMetadata::fromJson(*data);
    ORX_RETURN_ON_ERROR(metadata.error());
    m_metadata = *metadata;
    setVariantResult(
        ResourceMetadata::toVariant(QSharedPointer<HalvaneFolderResourceMetadata>::create(m_metadata)));
    return Error();
}

} // namespace orx
