#include "HalvaneFolderResourceMetadata.h"

#include "IdsText.h"
#include "tasks/HalvaneGetFolderMetadataTask.h"

#include <HalvaneConnection.h>
#include <JsonUtils.h>

#include <QMetaEnum>

#include <memory>
#include <optional>

namespace orx {

namespace {

QString idKey() {
    return QStringLiteral("id");
}

QString parentIdKey() {
    return QStringLiteral("parent_id");
}

QString pathKey() {
    return QStringLiteral("path");
}

QString userGroupsKey() {
    return QStringLiteral("usergroup_ids");
}

QString privilegesKey() {
    return QStringLiteral("privilege_ids");
}

QString folderIdKey() {
    return QStringLiteral("folder_id");
}

QString folderNameKey() {
    return QStringLiteral("folder_name");
}

QJsonObject pathElement(int id, const QString& name) {
    return {{folderIdKey(), id}, {folderNameKey(), name}};
}

//! The ids under \a key, none for null; a value that is no text has no ids.
Result<std::optional<QList<int>>> idsOrNull(const QJsonObject& json, const QString& key) {
    const auto isNull = JsonUtils::isNullValue(json, key);
    if (isNull.hasError())
        return isNull.error();
    if (*isNull)
        return std::optional<QList<int>>();
    const auto ids = IdsText::toIds(json.value(key).toString());
    if (ids.hasError())
        return ids.error();
    return std::optional<QList<int>>(*ids);
}

} // namespace

HalvaneFolderResourceMetadata::HalvaneFolderResourceMetadata() = default;

HalvaneFolderResourceMetadata::HalvaneFolderResourceMetadata(const HalvaneFolderItem& folderItem,
                                                             const QList<QString>& folderNames,
                                                             const QList<int>& folderIds)
    : m_id(folderItem.id())
    , m_name(folderItem.name())
    , m_parentId(folderItem.parentId())
    , m_privileges(folderItem.privileges())
    , m_userGroups(folderItem.userGroups())
    , m_path(folderNames.join(u'/'))
    , m_pathNames{m_path + u'/' + m_name}
    , m_parentFolderIdsPath(folderIds)
    , m_hasChildren(folderItem.hasChildren()) {}

HalvaneFolderResourceMetadata::~HalvaneFolderResourceMetadata() = default;

Result<HalvaneFolderResourceMetadata> HalvaneFolderResourceMetadata::fromJson(const QJsonObject& json) {
    HalvaneFolderResourceMetadata metadata;
    ORX_RETURN_ON_ERROR(metadata.loadFromJson(json));
    return metadata;
}

Result<HalvaneFolderResourceMetadata> HalvaneFolderResourceMetadata::getMetadataBlocking(int folderId) {
    const auto task = std::make_unique<HalvaneGetFolderMetadataTask>(folderId, nullptr);
    ORX_RETURN_ON_ERROR(HalvaneConnection::instance().sendRequest(task.get()));
    constexpr int noTimeLimit = -1;
    ORX_RETURN_ON_ERROR(BaseTask::waitForAllFinished({task.get()}, noTimeLimit));
    return task->metadata();
}

QJsonObject HalvaneFolderResourceMetadata::toJson() const {
    QJsonObject json;
    const QMetaEnum types = QMetaEnum::fromType<ItemType>();
    json.insert(kItemType, QString::fromLatin1(types.valueToKey(int(ItemType::Folder))));
    json.insert(idKey(), m_id);
    json.insert(parentIdKey(), m_parentId);
    json.insert(pathKey(), createPathArray());
    json.insert(userGroupsKey(), IdsText::fromIds(m_userGroups));
    QList<int> privileges;
    for (const HalvaneFolderPrivilegeType privilege : m_privileges)
        privileges.append(int(privilege));
    json.insert(privilegesKey(), IdsText::fromIds(privileges));
    return json;
}

//! The names stop at the length of the path's text, not at their own count; what lies beyond them is empty.
QJsonArray HalvaneFolderResourceMetadata::createPathArray() const {
    QJsonArray array;
    for (qsizetype i = 0; i < m_parentFolderIdsPath.size(); ++i) {
        const QString name = i < m_path.size() ? m_pathNames.value(i) : QString();
        array.append(pathElement(m_parentFolderIdsPath[i], name));
    }
    array.append(pathElement(m_id, m_name));
    return array;
}

Error HalvaneFolderResourceMetadata::loadFromJson(const QJsonObject& json) {
    const auto id = JsonUtils::intValue(json, idKey());
    ORX_RETURN_ON_ERROR(id.error());
    m_id = *id;

    const auto parentId = JsonUtils::intValue(json, parentIdKey());
    ORX_RETURN_ON_ERROR(parentId.error());
    m_parentId = *parentId;

    const auto privileges = idsOrNull(json, privilegesKey());
    ORX_RETURN_ON_ERROR(privileges.error());
    if (*privileges) {
        m_privileges.clear();
        for (const int privilege : **privileges)
            m_privileges.insert(HalvaneFolderPrivilegeType(privilege));
    }

    const auto userGroups = idsOrNull(json, userGroupsKey());
    ORX_RETURN_ON_ERROR(userGroups.error());
    if (*userGroups)
        m_userGroups = **userGroups;

    const auto path = JsonUtils::arrayValue(json, pathKey());
    ORX_RETURN_ON_ERROR(path.error());
    QList<int> ids;
    QStringList names;
    for (const auto& element : *path) {
        const QJsonObject folder = element.toObject();
        const auto folderName = JsonUtils::stringValue(folder, folderNameKey());
        ORX_RETURN_ON_ERROR(folderName.error());
        const auto folderId = JsonUtils::intValue(folder, folderIdKey());
        ORX_RETURN_ON_ERROR(folderId.error());
        names.append(*folderName);
        ids.append(*folderId);
    }
    setChain(ids, names);
    return Error();
}

void HalvaneFolderResourceMetadata::setChain(QList<int> ids, QStringList names) {
    m_pathNames = names;
    if (!ids.isEmpty()) {
        ids.removeLast();
        m_parentFolderIdsPath = ids;
    }
    if (!names.isEmpty())
        m_name = names.takeLast();
    m_path = names.join(u'/');
}

} // namespace orx
