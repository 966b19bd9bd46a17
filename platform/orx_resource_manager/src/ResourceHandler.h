#pragma once

#include "orx_resource_manager_export.h"

#include <PathImpl.h>
#include <ResourceReference.h>
#include <Result.h>

#include <functional>

namespace orx {

class ResourceCache;

//! Answers for one reference. Held by QSharedPointer. Thread: that of its maker.
class ORX_RESOURCE_MANAGER_EXPORT ResourceHandler {
public:
    virtual ~ResourceHandler();
    ResourceReferenceSPtr reference() const { return m_reference; }

protected:
    ResourceHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache);
    //! Not owned; may be null.
    ResourceCache* cache() const { return m_cache; }

private:
    ResourceReferenceSPtr m_reference;
    ResourceCache* m_cache;
};

//! A handler whose resource lies elsewhere and is kept in the cache.
class ORX_RESOURCE_MANAGER_EXPORT RemoteResourceHandler : public ResourceHandler {
public:
    using Writer = std::function<Error()>;
    ~RemoteResourceHandler() override;
    //! Makes \a localPath the cached content of the resource.
    virtual Error addToCache(const Path& localPath) = 0;

protected:
    using ResourceHandler::ResourceHandler;
};

} // namespace orx
