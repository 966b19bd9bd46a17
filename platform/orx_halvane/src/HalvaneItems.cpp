#include "HalvaneItems.h"

#include <JsonUtils.h>
#include <NumberUtils.h>

#include <QCoreApplication>

namespace orx {

namespace {

//! Whether \a key is to be read at all: keys that are not required may be missing or null.
bool isGiven(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    return !value.isUndefined() && !value.isNull();
}

template <typename Value, typename Setter>
Error take(Result<Value> value, Setter set) {
    if (value.hasError())
        return ORX_ECATCH(std::move(value).error());
    set(*std::move(value));
    return Error();
}

Error takeInt(const QJsonObject& object, const QString& key, int& target) {
    return take(JsonUtils::intValue(object, key), [&](int value) { target = value; });
}

Error takeText(const QJsonObject& object, const QString& key, QString& target) {
    return take(JsonUtils::stringValue(object, key), [&](const QString& value) { target = value; });
}

Error takeOptionalText(const QJsonObject& object, const QString& key, QString& target) {
    if (!isGiven(object, key)) {
        target.clear();
        return Error();
    }
    return takeText(object, key, target);
}

Error takeOptionalTime(const QJsonObject& object, const QString& key, QDateTime& target) {
    target = QDateTime();
    if (!isGiven(object, key))
        return Error();
    QString text;
    ORX_RETURN_ON_ERROR(takeText(object, key, text));
    QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!time.isValid())
        return ORX_ECATCH(Error(ErrorCode::ParseError,
                                QCoreApplication::translate(
                                    "orx::HalvaneItem", "The value \"%2\" of the key \"%1\" is not a time.")
                                    .arg(key, text)));
    // Times of the protocol are UTC; one without a zone is taken as such, never as local.
    if (time.timeSpec() == Qt::LocalTime)
        time.setTimeSpec(Qt::UTC);
    target = time.toUTC();
    return Error();
}

//! Numbers joined with ",", as folders carry their groups and privileges.
Error takeOptionalNumbers(const QJsonObject& object, const QString& key, QList<int>& target) {
    QString text;
    ORX_RETURN_ON_ERROR(takeOptionalText(object, key, text));
    target.clear();
    for (const QString& part : text.split(u',', Qt::SkipEmptyParts)) {
        ORX_RETURN_ON_ERROR(take(NumberUtils::toInt(part), [&](int number) { target.append(number); }));
    }
    return Error();
}

QJsonValue timeToJson(const QDateTime& time) {
    return time.isValid() ? QJsonValue(time.toUTC().toString(Qt::ISODateWithMs)) : QJsonValue();
}

} // namespace

void HalvaneFileItem::serialize(QJsonObject& object) const {
    object.insert(QStringLiteral("id"), m_id);
    object.insert(QStringLiteral("folder_id"), m_folderId);
    object.insert(QStringLiteral("name"), m_name);
    object.insert(QStringLiteral("alias"), m_alias);
    object.insert(QStringLiteral("last_version"), m_lastVersion);
    object.insert(QStringLiteral("size"), m_size);
    object.insert(QStringLiteral("sha256"), m_sha256);
    object.insert(QStringLiteral("data_type"), m_dataType);
    object.insert(QStringLiteral("created_at"), timeToJson(m_createdAt));
    object.insert(QStringLiteral("modified_at"), timeToJson(m_modifiedAt));
    object.insert(QStringLiteral("source_modified_at"), timeToJson(m_sourceModifiedAt));
    object.insert(QStringLiteral("created_by"), m_createdBy);
}

Error HalvaneFileItem::deserialize(const QJsonObject& object) {
    HalvaneFileItem item;
    ORX_RETURN_ON_ERROR(takeInt(object, QStringLiteral("id"), item.m_id));
    ORX_RETURN_ON_ERROR(takeInt(object, QStringLiteral("folder_id"), item.m_folderId));
    ORX_RETURN_ON_ERROR(takeText(object, QStringLiteral("name"), item.m_name));
    ORX_RETURN_ON_ERROR(takeInt(object, QStringLiteral("last_version"), item.m_lastVersion));
    ORX_RETURN_ON_ERROR(take(JsonUtils::int64Value(object, QStringLiteral("size")),
                             [&](qint64 size) { item.m_size = size; }));
    ORX_RETURN_ON_ERROR(takeOptionalText(object, QStringLiteral("sha256"), item.m_sha256));
    ORX_RETURN_ON_ERROR(takeOptionalText(object, QStringLiteral("alias"), item.m_alias));
    ORX_RETURN_ON_ERROR(takeOptionalText(object, QStringLiteral("data_type"), item.m_dataType));
    ORX_RETURN_ON_ERROR(takeOptionalText(object, QStringLiteral("created_by"), item.m_createdBy));
    ORX_RETURN_ON_ERROR(takeOptionalTime(object, QStringLiteral("created_at"), item.m_createdAt));
    ORX_RETURN_ON_ERROR(takeOptionalTime(object, QStringLiteral("modified_at"), item.m_modifiedAt));
    ORX_RETURN_ON_ERROR(
        takeOptionalTime(object, QStringLiteral("source_modified_at"), item.m_sourceModifiedAt));
    *this = item;
    return Error();
}

Error HalvaneFolderItem::deserialize(const QJsonObject& object) {
    HalvaneFolderItem item;
    ORX_RETURN_ON_ERROR(takeInt(object, QStringLiteral("id"), item.m_id));
    ORX_RETURN_ON_ERROR(takeText(object, QStringLiteral("name"), item.m_name));
    ORX_RETURN_ON_ERROR(takeInt(object, QStringLiteral("parent_id"), item.m_parentId));
    if (isGiven(object, QStringLiteral("has_children")))
        ORX_RETURN_ON_ERROR(take(JsonUtils::boolValue(object, QStringLiteral("has_children")),
                                 [&](bool hasChildren) { item.m_hasChildren = hasChildren; }));
    ORX_RETURN_ON_ERROR(takeOptionalNumbers(object, QStringLiteral("usergroup_ids"), item.m_userGroups));
    QList<int> privileges;
    ORX_RETURN_ON_ERROR(takeOptionalNumbers(object, QStringLiteral("privilege_ids"), privileges));
    for (const int privilege : privileges)
        item.m_privileges.insert(HalvaneFolderPrivilegeType(privilege));
    *this = item;
    return Error();
}

} // namespace orx
