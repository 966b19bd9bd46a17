#pragma once

#include "RemoteItem.h"

#include <ResourceCache.h>
#include <ResourceHandler.h>

#include <memory>

namespace halvane::host {

//! The resource framework of a host, for the life of the object: the server's files and folders are
//! registered, and handlers get the cache of this user. One at a time in a process; what works on the cache
//! is given up at its end. Thread: the main one.
class HALVANE_HOST_EXPORT Resources {
public:
    //! Fails with ErrorCode::InvalidArgument for limits in the environment (HALVANE_CACHE_MAX_SIZE,
    //! HALVANE_CACHE_MAX_AGE) that are none. Whether the cache can be used shows at its first use.
    static orx::Result<std::unique_ptr<Resources>> start();
    ~Resources();

    orx::ResourceCache& cache() { return m_cache; }
    const orx::ResourceCache::Limits& limits() const { return m_limits; }

private:
    explicit Resources(const orx::ResourceCache::Limits& limits);

    orx::ResourceCache m_cache;
    orx::ResourceCache::Limits m_limits;
};

//! The handler of an item, with \a name instead of its own where that is given. Fails as
//! orx::ResourceManager::getHandler() does, and for items that cannot be named by a reference.
HALVANE_HOST_EXPORT orx::Result<QSharedPointer<orx::ResourceHandler>> handlerOf(const RemoteItem& item);
//! The reference of an item under \a name.
HALVANE_HOST_EXPORT orx::Result<orx::HalvaneResourceReferenceSPtr> referenceOf(const RemoteItem& item,
                                                                               const QString& name);

} // namespace halvane::host
