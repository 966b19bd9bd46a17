#pragma once

#include "halvane_host_export.h"

#include <HalvaneItemTasks.h>
#include <HalvaneResourceReference.h>

namespace halvane::host {

//! A file (in one version) or a folder of the server, as a host shows it. A value.
struct HALVANE_HOST_EXPORT RemoteItem {
    using ItemType = orx::HalvaneResourceReference::ItemType;

    ItemType type = ItemType::Folder;
    int id = -1;
    //! 0 for folders.
    int version = 0;
    QString name;
    //! Bytes; -1 for folders.
    qint64 size = -1;
    //! 64 hexadecimal digits; empty for folders.
    QString sha256;
    //! The remote path; empty where it was not looked up.
    QString path;
    QString alias;
    //! When this version was made; UTC; invalid for folders.
    QDateTime modifiedAt;
    QString createdBy;
    //! Of the local file that this version was made of; UTC; invalid where it was not said.
    QDateTime sourceModifiedAt;

    bool isFile() const { return type == ItemType::File; }
    bool isFolder() const { return type == ItemType::Folder; }
    //! "file:12@3" or "folder:7".
    QString reference() const;

    static RemoteItem root();
    //! The last version of \a file; \a parentPath is the remote path of its folder, empty when unknown.
    static RemoteItem fromFile(const orx::HalvaneFileItem& file, const QString& parentPath);
    static RemoteItem fromFolder(const orx::HalvaneFolderItem& folder, const QString& parentPath);
    //! Makes this item of a file the given version of it.
    void setVersion(const orx::HalvaneFileVersion& version);
};

} // namespace halvane::host
