#include "HalvaneResourceMetadataCreator.h"

#include "HalvaneFileResourceMetadata.h"
#include "HalvaneFolderResourceMetadata.h"

#include <JsonUtils.h>

#include <QMetaEnum>

namespace orx {

namespace {

//! Unknown for a text that is no key. QMetaEnum::keyToValue() would also accept keys with their scope.
ResourceMetadata::ItemType itemTypeOf(const QString& text) {
    const QMetaEnum types = QMetaEnum::fromType<ResourceMetadata::ItemType>();
    const QByteArray key = text.toLocal8Bit();
    for (int i = 0; i < types.keyCount(); ++i) {
        if (key == types.key(i))
            return ResourceMetadata::ItemType(types.value(i));
    }
    return ResourceMetadata::ItemType::Unknown;
}

template <typename T>
Result<QSharedPointer<HalvaneResourceMetadata>> createAs(const QJsonObject& json) {
    auto metadata = ResourceMetadata::create<T>(json);
    if (metadata.hasError())
        return ORX_ECATCH(metadata).error();
    return QSharedPointer<HalvaneResourceMetadata>(*metadata);
}

} // namespace

Result<QSharedPointer<HalvaneResourceMetadata>>
HalvaneResourceMetadataCreator::create(const QJsonObject& json) {
    auto itemType = JsonUtils::stringValue(json, ResourceMetadata::kItemType);
    if (itemType.hasError())
        return ORX_ECATCH(itemType).error();
    switch (itemTypeOf(*itemType)) {
    case ResourceMetadata::ItemType::File:
        return createAs<HalvaneFileResourceMetadata>(json);
    case ResourceMetadata::ItemType::Folder:
        return createAs<HalvaneFolderResourceMetadata>(json);
    default:
        return Error(ErrorCode::General, QStringLiteral("Unable to create metadata of Halvane resource."));
    }
}

} // namespace orx
