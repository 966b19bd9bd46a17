#include "RemoteResourceHandler.h"

namespace orx {

RemoteResourceHandler::RemoteResourceHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache)
    : ResourceHandler(reference, cache) {}

RemoteResourceHandler::~RemoteResourceHandler() = default;

} // namespace orx
