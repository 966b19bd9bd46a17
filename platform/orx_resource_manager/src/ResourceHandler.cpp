#include "ResourceHandler.h"

namespace orx {

ResourceHandler::ResourceHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache)
    : m_reference(reference), m_cache(cache) {}

ResourceHandler::~ResourceHandler() = default;
RemoteResourceHandler::~RemoteResourceHandler() = default;

} // namespace orx
