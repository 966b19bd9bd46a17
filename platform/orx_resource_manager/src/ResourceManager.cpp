#include "ResourceManager.h"

#include <atomic>

namespace orx {

namespace {

std::atomic<ResourceCache*> cacheOfNewHandlers = nullptr;

} // namespace

void ResourceManager::setCache(ResourceCache* cache) {
    cacheOfNewHandlers = cache;
}

ResourceCache* ResourceManager::cache() {
    return cacheOfNewHandlers;
}

Result<QSharedPointer<ResourceHandler>> ResourceManager::getHandler(const ResourceReferenceSPtr& reference) {
    return ORX_ECATCH(ResourceHandlerFactory::create(reference, cache()));
}

} // namespace orx
