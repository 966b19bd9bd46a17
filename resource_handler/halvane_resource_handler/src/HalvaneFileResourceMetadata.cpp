#include "HalvaneFileResourceMetadata.h"

#include "IdsText.h"

#include <JsonUtils.h>

#include <QFileInfo>
#include <QMetaEnum>

namespace orx {

namespace {

QString parentFolderIdsKey() {
    return QStringLiteral("ParentFolderIdsPath");
}

QString fileItemKey() {
    return QStringLiteral("FileItem");
}

} // namespace

HalvaneFileResourceMetadata::HalvaneFileResourceMetadata(const HalvaneFileItem& fileItem,
                                                         const QList<QString>& folderNames,
                                                         const QList<int>& folderIds)
    : m_fileItem(fileItem), m_path(folderNames.join(u'/')), m_parentFolderIdsPath(folderIds) {
    m_fullPath = m_path + u'/' + HalvaneFileResourceMetadata::name();
}

HalvaneFileResourceMetadata::~HalvaneFileResourceMetadata() = default;

QString HalvaneFileResourceMetadata::name() const {
    return QFileInfo(m_fileItem.name()).fileName();
}

QJsonObject HalvaneFileResourceMetadata::toJson() const {
    QJsonObject json = ResourceMetadata::toJson();
    const QMetaEnum types = QMetaEnum::fromType<ItemType>();
    json.insert(kItemType, QString::fromLatin1(types.valueToKey(int(ItemType::File))));
    json.insert(parentFolderIdsKey(), IdsText::fromIds(m_parentFolderIdsPath));
    QJsonObject fileItem;
    m_fileItem.serialize(fileItem);
    json.insert(fileItemKey(), fileItem);
    return json;
}

Error HalvaneFileResourceMetadata::loadFromJson(const QJsonObject& json) {
    const auto path = JsonUtils::stringValue(json, kPath);
    ORX_RETURN_ON_ERROR(path.error());
    m_path = *path;

    const auto fullPath = JsonUtils::stringValue(json, kFullPath);
    ORX_RETURN_ON_ERROR(fullPath.error());
    m_fullPath = *fullPath;

    const auto idsText = JsonUtils::stringValue(json, parentFolderIdsKey());
    ORX_RETURN_ON_ERROR(idsText.error());
    const auto ids = IdsText::toIds(*idsText);
    ORX_RETURN_ON_ERROR(ids.error());
    m_parentFolderIdsPath = *ids;

    const auto itemJson = JsonUtils::objectValue(json, fileItemKey());
    ORX_RETURN_ON_ERROR(itemJson.error());
    HalvaneFileItem fileItem;
    ORX_RETURN_ON_ERROR(fileItem.deserialize(*itemJson));
    m_fileItem = fileItem;
    return Error();
}

} // namespace orx
