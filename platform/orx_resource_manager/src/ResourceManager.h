#pragma once

#include "ResourceCache.h"
#include "ResourceHandlerFactory.h"
#include "ResourceMetadataFactory.h"

namespace orx {

//! The entry point of the resource framework.
class ORX_RESOURCE_MANAGER_EXPORT ResourceManager {
public:
    //! The cache that new handlers get; null at first. Not owned; it outlives the handlers. Thread: any.
    static void setCache(ResourceCache* cache);
    static ResourceCache* cache();
    //! The handler that the reference's scheme makes; ErrorCode::InvalidArgument for a null reference,
    //! ErrorCode::NotFound while no factory is registered for the scheme.
    static Result<QSharedPointer<ResourceHandler>> getHandler(const ResourceReferenceSPtr& reference);
};

} // namespace orx
