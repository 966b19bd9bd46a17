#pragma once

#include "HalvaneResourceMetadata.h"

#include <HalvaneItems.h>

#include <QJsonArray>
#include <QSet>
#include <QStringList>

namespace orx {

//! What is known of one folder on the server. Its JSON form is the server's own folder object, so that one
//! loadFromJson() reads the server's replies and what toJson() wrote.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFolderResourceMetadata : public HalvaneResourceMetadata {
public:
    //! Ids are -1, everything else is empty.
    HalvaneFolderResourceMetadata();
    //! \a folderNames and \a folderIds: the folders above this one, outermost first, without the root.
    HalvaneFolderResourceMetadata(const HalvaneFolderItem& folderItem, const QList<QString>& folderNames,
                                  const QList<int>& folderIds);
    HalvaneFolderResourceMetadata(const HalvaneFolderResourceMetadata&) = default;
    HalvaneFolderResourceMetadata(HalvaneFolderResourceMetadata&&) = default;
    HalvaneFolderResourceMetadata& operator=(const HalvaneFolderResourceMetadata&) = default;
    HalvaneFolderResourceMetadata& operator=(HalvaneFolderResourceMetadata&&) = default;
    ~HalvaneFolderResourceMetadata() override;

    //! A new object that has read \a json; fails as loadFromJson() does.
    static Result<HalvaneFolderResourceMetadata> fromJson(const QJsonObject& json);
    //! Blocking: asks the server. Fails when nobody is logged in, and as the request fails. Thread: any that
    //! may run network tasks; its events are processed meanwhile.
    static Result<HalvaneFolderResourceMetadata> getMetadataBlocking(int folderId);

    QString name() const override { return m_name; }
    QString path() const override { return m_path; }
    //! Begins with "/" for a folder at top level that was made of a folder item.
    QString fullPath() const override { return m_pathNames.join(u'/'); }
    ItemType itemType() const override { return ItemType::Folder; }
    //! The server's keys and ResourceMetadata::kItemType; none of the other common keys.
    QJsonObject toJson() const override;
    QList<int> parentFolderIdsPath() const override { return m_parentFolderIdsPath; }
    int id() const override { return m_id; }

    //! -1 for the root.
    int parentId() const { return m_parentId; }
    //! Known only of an object that was made of a folder item; false otherwise.
    bool hasChildren() const { return m_hasChildren; }
    QSet<HalvaneFolderPrivilegeType> privileges() const { return m_privileges; }
    QList<int> userGroups() const { return m_userGroups; }

protected:
    //! "privilege_ids" and "usergroup_ids" that are null leave what was there.
    Error loadFromJson(const QJsonObject& json) override;

private:
    //! The folders from the outermost down to this one; the last gives the name.
    void setChain(QList<int> ids, QStringList names);
    QJsonArray createPathArray() const;

    int m_id = -1;
    QString m_name;
    int m_parentId = -1;
    QSet<HalvaneFolderPrivilegeType> m_privileges;
    QList<int> m_userGroups;
    QString m_path;
    //! Of an object read from JSON: the names of the chain, the folder's own last. Of one made of a folder
    //! item: the full path as one element.
    QStringList m_pathNames;
    QList<int> m_parentFolderIdsPath;
    bool m_hasChildren = false;
};

} // namespace orx
