#pragma once

#include "orx_halvane_export.h"

#include <Result.h>

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QSharedPointer>
#include <QString>

namespace orx {

//! What the caller may do in a folder. The values are fixed.
enum class HalvaneFolderPrivilegeType : int {
    Read = 1,
    AddFiles = 2,
    CreateFolders = 3,
    Remove = 4,
    Manage = 5
};
inline size_t qHash(HalvaneFolderPrivilegeType type, size_t seed = 0) {
    return ::qHash(int(type), seed);
}

//! What files and folders of the server have in common.
class ORX_HALVANE_EXPORT HalvaneItem {
public:
    //! -1 when default-constructed.
    int id() const { return m_id; }
    QString name() const { return m_name; }
    void setId(int id) { m_id = id; }
    void setName(const QString& name) { m_name = name; }

protected:
    int m_id = -1;
    QString m_name;
};

//! The server's record of a file; size, checksum, alias and times are those of its last version.
class ORX_HALVANE_EXPORT HalvaneFileItem : public HalvaneItem {
public:
    int folderId() const { return m_folderId; }
    int lastVersion() const { return m_lastVersion; }
    qint64 size() const { return m_size; }
    //! 64 lower-case hexadecimal digits.
    QString sha256() const { return m_sha256; }
    QString alias() const { return m_alias; }
    QString dataType() const { return m_dataType; }
    //! UTC.
    QDateTime createdAt() const { return m_createdAt; }
    QDateTime modifiedAt() const { return m_modifiedAt; }
    //! The local file's time when it was sent; invalid when unknown.
    QDateTime sourceModifiedAt() const { return m_sourceModifiedAt; }
    QString createdBy() const { return m_createdBy; }
    void setFolderId(int id) { m_folderId = id; }
    void setLastVersion(int version) { m_lastVersion = version; }
    void setSize(qint64 size) { m_size = size; }

    //! The JSON form is the server's file object.
    void serialize(QJsonObject& object) const;
    //! Requires "id", "folder_id", "name", "last_version", "size"; the item is unchanged after a failure.
    Error deserialize(const QJsonObject& object);

private:
    int m_folderId = -1;
    int m_lastVersion = 0;
    qint64 m_size = 0;
    QString m_sha256;
    QString m_alias;
    QString m_dataType;
    QDateTime m_createdAt;
    QDateTime m_modifiedAt;
    QDateTime m_sourceModifiedAt;
    QString m_createdBy;
};

//! The server's record of a folder.
class ORX_HALVANE_EXPORT HalvaneFolderItem : public HalvaneItem {
public:
    int parentId() const { return m_parentId; }
    bool hasChildren() const { return m_hasChildren; }
    QSet<HalvaneFolderPrivilegeType> privileges() const { return m_privileges; }
    QList<int> userGroups() const { return m_userGroups; }
    void setParentId(int id) { m_parentId = id; }
    void setHasChildren(bool hasChildren) { m_hasChildren = hasChildren; }
    void setPrivileges(const QSet<HalvaneFolderPrivilegeType>& privileges) { m_privileges = privileges; }
    void setUserGroups(const QList<int>& groups) { m_userGroups = groups; }

    //! From the server's folder object; requires "id", "name", "parent_id"; unchanged after a failure.
    Error deserialize(const QJsonObject& object);

private:
    int m_parentId = -1;
    bool m_hasChildren = false;
    QSet<HalvaneFolderPrivilegeType> m_privileges;
    QList<int> m_userGroups;
};

//! A direct sub-folder in a listing.
class ORX_HALVANE_EXPORT HalvaneFolderTreeNode : public HalvaneFolderItem {};

using HalvaneFileItemSPtr = QSharedPointer<HalvaneFileItem>;
using HalvaneFolderTreeNodeSPtr = QSharedPointer<HalvaneFolderTreeNode>;

//! One key and value of a file's extended metadata, with what describes it to people.
struct ORX_HALVANE_EXPORT HalvaneExtendedMetaDataValue {
    QString key;
    QString value;
    QString description;
};

//! The compact form: what goes to the server.
struct ORX_HALVANE_EXPORT HalvaneCompactExtendedMetaDataValue {
    QString key;
    QString value;
    friend bool operator==(const HalvaneCompactExtendedMetaDataValue&,
                           const HalvaneCompactExtendedMetaDataValue&) = default;
};

//! A file in one version, as the server answers a finalisation.
struct ORX_HALVANE_EXPORT HalvaneApiReference {
    int fileId = -1;
    int version = 0;
    friend bool operator==(const HalvaneApiReference&, const HalvaneApiReference&) = default;
};

} // namespace orx
