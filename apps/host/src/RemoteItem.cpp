#include "RemoteItem.h"

#include "RemotePath.h"

namespace halvane::host {

QString RemoteItem::reference() const {
    if (isFolder())
        return QStringLiteral("folder:%1").arg(id);
    return QStringLiteral("file:%1@%2").arg(id).arg(version);
}

RemoteItem RemoteItem::root() {
    RemoteItem item;
    item.id = 1;
    item.name = item.path = QStringLiteral("/");
    return item;
}

RemoteItem RemoteItem::fromFile(const orx::HalvaneFileItem& file, const QString& parentPath) {
    RemoteItem item;
    item.type = ItemType::File;
    item.id = file.id();
    item.version = file.lastVersion();
    item.name = file.name();
    item.size = file.size();
    item.sha256 = file.sha256();
    item.alias = file.alias();
    item.modifiedAt = file.modifiedAt();
    item.createdBy = file.createdBy();
    item.sourceModifiedAt = file.sourceModifiedAt();
    if (!parentPath.isEmpty())
        item.path = RemotePath::join(parentPath, item.name);
    return item;
}

RemoteItem RemoteItem::fromFolder(const orx::HalvaneFolderItem& folder, const QString& parentPath) {
    RemoteItem item;
    item.id = folder.id();
    item.name = folder.name();
    if (!parentPath.isEmpty())
        item.path = RemotePath::join(parentPath, item.name);
    return item;
}

void RemoteItem::setVersion(const orx::HalvaneFileVersion& other) {
    version = other.version;
    size = other.size;
    sha256 = other.sha256;
    alias = other.alias;
    modifiedAt = other.createdAt;
    createdBy = other.createdBy;
    sourceModifiedAt = other.sourceModifiedAt;
}

} // namespace halvane::host
