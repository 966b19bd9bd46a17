#pragma once

#include "ResourceHandler.h"

namespace orx {

//! Which scheme makes which handlers. Thread: any.
class ORX_RESOURCE_MANAGER_EXPORT ResourceHandlerFactory {
public:
    using Factory =
        std::function<Result<QSharedPointer<ResourceHandler>>(const ResourceReferenceSPtr&, ResourceCache*)>;
    //! Replaces an earlier registration of the scheme.
    static void registerResourceHandlerScheme(ResourceReference::Scheme scheme, Factory factory);
    static void unregisterResourceHandlerScheme(ResourceReference::Scheme scheme);
    //! ErrorCode::NotFound, naming the scheme, when it is not registered.
    static Result<QSharedPointer<ResourceHandler>> create(const ResourceReferenceSPtr& reference,
                                                          ResourceCache* cache);
};

} // namespace orx
