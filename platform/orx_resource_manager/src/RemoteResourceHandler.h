#pragma once

#include "ResourceHandler.h"

#include <functional>

namespace orx {

//! A handler whose resource lies elsewhere and is kept in the cache.
class ORX_RESOURCE_MANAGER_EXPORT RemoteResourceHandler : public ResourceHandler {
public:
    //! Writes the resource to expectedPath(), at once or by work that it began.
    using Writer = std::function<Error()>;

    ~RemoteResourceHandler() override;
    //! Makes a copy of the file or directory \a localPath the cached content.
    virtual Error addToCache(const PathImpl<PathType::Unknown>& localPath) = 0;

protected:
    RemoteResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);

    using ResourceHandler::retrieveTask;
    //! Brings the resource into \a targetDir, under the last component of subCachePath().
    virtual std::unique_ptr<Task> retrieveTask(const PathImpl<PathType::Dir>& targetDir) = 0;
    //! Names the resource's place below the cache's content root; components joined with "/".
    virtual QString subCachePath() const = 0;
};

} // namespace orx
