#include "ResourceMetadataFactory.h"

#include "SchemeRegistry.h"

#include <QCoreApplication>

namespace orx {

namespace {

using Registry = SchemeRegistry<ResourceMetadataFactory::Factory>;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceMetadataFactory", text);
}

} // namespace

void ResourceMetadataFactory::registerMetadataScheme(ResourceReference::Scheme scheme, Factory factory) {
    Registry::instance().insert(scheme, std::move(factory));
}

void ResourceMetadataFactory::unregisterMetadataScheme(ResourceReference::Scheme scheme) {
    Registry::instance().remove(scheme);
}

Result<QSharedPointer<ResourceMetadata>> ResourceMetadataFactory::create(ResourceReference::Scheme scheme,
                                                                         const QJsonObject& json) {
    const Factory factory = Registry::instance().find(scheme);
    if (!factory)
        return ORX_ECATCH(Error(ErrorCode::NotFound,
                                translated("No metadata is registered for resources of the scheme \"%1\".")
                                    .arg(schemeName(scheme))));
    auto metadata = factory(json);
    if (!metadata.hasError() && *metadata == nullptr)
        return ORX_ECATCH(Error(
            ErrorCode::General,
            translated("No metadata was made for a resource of the scheme \"%1\".").arg(schemeName(scheme))));
    return ORX_ECATCH(std::move(metadata));
}

} // namespace orx
