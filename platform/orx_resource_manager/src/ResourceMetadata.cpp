#include "ResourceMetadata.h"

#include <QMetaEnum>

namespace orx {

const QString ResourceMetadata::kItemType = QStringLiteral("ItemType");
const QString ResourceMetadata::kPath = QStringLiteral("Path");
const QString ResourceMetadata::kFullPath = QStringLiteral("FullPath");

ResourceMetadata::~ResourceMetadata() = default;

QJsonObject ResourceMetadata::toJson() const {
    const char* itemTypeKey = QMetaEnum::fromType<ItemType>().valueToKey(int(itemType()));
    return {{kItemType, QString::fromLatin1(itemTypeKey)}, {kPath, path()}, {kFullPath, fullPath()}};
}

QMetaType ResourceMetadata::sharedPointerType() {
    static const int id =
        qRegisterMetaType<QSharedPointer<orx::ResourceMetadata>>("QSharedPointer<orx::ResourceMetadata>");
    return QMetaType(id);
}

QVariant ResourceMetadata::toVariant(const QSharedPointer<ResourceMetadata>& metadata) {
    return QVariant(sharedPointerType(), &metadata);
}

QSharedPointer<ResourceMetadata> ResourceMetadata::fromVariant(const QVariant& variant) {
    if (variant.metaType() != sharedPointerType())
        return nullptr;
    return *static_cast<const QSharedPointer<ResourceMetadata>*>(variant.constData());
}

} // namespace orx
