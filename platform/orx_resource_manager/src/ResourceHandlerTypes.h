#pragma once

#include "orx_resource_manager_export.h"

#include <QObject>

namespace orx {

//! Enumerations of the resource framework. The values are fixed: records on disk hold them.
class ORX_RESOURCE_MANAGER_EXPORT ORX_QEnumsResourceHandlerTypes {
    Q_GADGET
public:
    //! What may become of a cache entry.
    enum class ResourceCleanupPolicy : int {
        Automatic = 0, //!< removed when the cache's limits ask for it, least recently used first
        Keep = 1,      //!< pinned: removed only on request
        Discard = 2    //!< the first to be removed by the next pruning, whatever the limits
    };
    Q_ENUM(ResourceCleanupPolicy)
};

using ResourceCleanupPolicy = ORX_QEnumsResourceHandlerTypes::ResourceCleanupPolicy;

} // namespace orx
