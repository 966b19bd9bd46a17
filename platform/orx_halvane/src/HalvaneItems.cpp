#include "HalvaneItems.h"

#include "HalvaneJson.h"

namespace orx {

void HalvaneFileItem::serialize(QJsonObject& object) const {
    object.insert(QStringLiteral("id"), m_id);
    object.insert(QStringLiteral("folder_id"), m_folderId);
    object.insert(QStringLiteral("name"), m_name);
    object.insert(QStringLiteral("alias"), m_alias);
    object.insert(QStringLiteral("last_version"), m_lastVersion);
    object.insert(QStringLiteral("size"), m_size);
    object.insert(QStringLiteral("sha256"), m_sha256);
    object.insert(QStringLiteral("data_type"), m_dataType);
    object.insert(QStringLiteral("created_at"), halvane_json::fromTime(m_createdAt));
    object.insert(QStringLiteral("modified_at"), halvane_json::fromTime(m_modifiedAt));
    object.insert(QStringLiteral("source_modified_at"), halvane_json::fromTime(m_sourceModifiedAt));
    object.insert(QStringLiteral("created_by"), m_createdBy);
}

Error HalvaneFileItem::deserialize(const QJsonObject& object) {
    using namespace halvane_json;
    HalvaneFileItem item;
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("id"), item.m_id));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("folder_id"), item.m_folderId));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("name"), item.m_name));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("last_version"), item.m_lastVersion));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("size"), item.m_size));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("sha256"), item.m_sha256));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("alias"), item.m_alias));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("data_type"), item.m_dataType));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("created_by"), item.m_createdBy));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("created_at"), item.m_createdAt));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("modified_at"), item.m_modifiedAt));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("source_modified_at"), item.m_sourceModifiedAt));
    *this = item;
    return Error();
}

Error HalvaneFolderItem::deserialize(const QJsonObject& object) {
    using namespace halvane_json;
    HalvaneFolderItem item;
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("id"), item.m_id));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("name"), item.m_name));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("parent_id"), item.m_parentId));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("has_children"), item.m_hasChildren));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("usergroup_ids"), item.m_userGroups));
    QList<int> privileges;
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("privilege_ids"), privileges));
    for (const int privilege : privileges)
        item.m_privileges.insert(HalvaneFolderPrivilegeType(privilege));
    *this = item;
    return Error();
}

} // namespace orx
