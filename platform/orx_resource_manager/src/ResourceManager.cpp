#include "ResourceManager.h"

namespace orx {

Result<QSharedPointer<ResourceHandler>> ResourceManager::getHandler(const ResourceReferenceSPtr& reference) {
    return ORX_ECATCH(ResourceHandlerFactory::create(reference, nullptr));
}

} // namespace orx
