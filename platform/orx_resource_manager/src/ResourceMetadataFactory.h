#pragma once

#include "ResourceMetadata.h"

#include <ResourceReference.h>

#include <functional>

namespace orx {

//! Which scheme turns JSON back into which metadata. Thread: any.
class ORX_RESOURCE_MANAGER_EXPORT ResourceMetadataFactory {
public:
    using Factory = std::function<Result<QSharedPointer<ResourceMetadata>>(const QJsonObject&)>;
    //! Replaces an earlier registration of the scheme.
    static void registerMetadataScheme(ResourceReference::Scheme scheme, Factory factory);
    static void unregisterMetadataScheme(ResourceReference::Scheme scheme);
    //! ErrorCode::NotFound, naming the scheme, when it is not registered.
    static Result<QSharedPointer<ResourceMetadata>> create(ResourceReference::Scheme scheme,
                                                           const QJsonObject& json);
};

} // namespace orx
