#include "HalvaneResourceMetadata.h"

#include "HalvaneResourceMetadataCreator.h"

#include <HalvaneResourceReference.h>
#include <ResourceMetadataFactory.h>

namespace orx {

namespace {

constexpr ResourceReference::Scheme kScheme{1};
static_assert(kScheme == HalvaneResourceReference::schemeType,
              "handlers and metadata are registered for one scheme");

Result<QSharedPointer<ResourceMetadata>> createMetadata(const QJsonObject& json) {
    auto metadata = HalvaneResourceMetadataCreator::create(json);
    if (metadata.hasError())
        return ORX_ECATCH(metadata).error();
    return QSharedPointer<ResourceMetadata>(*metadata);
}

} // namespace

HalvaneResourceMetadata::~HalvaneResourceMetadata() = default;

ResourceReference::Scheme HalvaneResourceMetadata::schemeType() {
    return kScheme;
}

void HalvaneResourceMetadata::registerType() {
    ResourceMetadataFactory::registerMetadataScheme(schemeType(), createMetadata);
}

void HalvaneResourceMetadata::unregisterType() {
    ResourceMetadataFactory::unregisterMetadataScheme(schemeType());
}

FileTypes::Type HalvaneResourceMetadata::type() const {
    return FileTypes::fileToType(name());
}

QList<int> HalvaneResourceMetadata::idsPath() const {
    QList<int> ids = parentFolderIdsPath();
    ids.append(id()); // detaches
    return ids;
}

} // namespace orx
