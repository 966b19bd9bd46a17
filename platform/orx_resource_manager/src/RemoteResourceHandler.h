#pragma once

#include "ResourceHandler.h"

#include <FileCopy.h>

#include <QHash>

#include <functional>

namespace orx {

//! A handler whose resource lies elsewhere and is kept in the cache.
class ORX_RESOURCE_MANAGER_EXPORT RemoteResourceHandler : public ResourceHandler {
public:
    //! Writes the resource to expectedPath(), at once or by work that it began.
    using Writer = std::function<Error()>;

    ~RemoteResourceHandler() override;
    //! Of the entry; Automatic when there is none. ErrorCode::NotFound without a cache.
    Result<ResourceCleanupPolicy> cleanupPolicy() const override;
    //! ErrorCode::NotFound when there is no entry.
    Error setCleanupPolicy(ResourceCleanupPolicy policy) override;
    bool isAvailableLocally() const override;

    //! ResourceCache::checksums().
    Result<QHash<QString, QString>> recordedChecksums() const;

    //! Makes a copy of the file or directory \a localPath the cached content. The source is opened before the
    //! call returns; a worker copies. A file may be removed afterwards; a directory may be renamed, but what
    //! is in it must stay until it was copied: when something of it changes or goes, nothing is kept. The
    //! entry appears when it is complete and equals what the server acknowledged; a later failure is logged
    //! and leaves no entry. ResourceCache::waitForPending() waits for it. ErrorCode::InvalidArgument when a
    //! path of known kind names something of the other kind.
    Error addToCache(const PathImpl<PathType::Unknown>& localPath);
    //! The same for content that \a writer makes at expectedPath(), which names another path while it runs;
    //! it runs before the call returns, and its error is returned.
    Error addToCache(const Writer& writer);

    //! A task that makes the file at expectedPath() unavailable, which had the stamp \a seen before it was
    //! read and is not what it should be. See ResourceCache::markDamaged().
    std::unique_ptr<Task> markDamagedTask(const FileCopy::Stamp& seen) const;

protected:
    RemoteResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);

    //! Whether something is recorded: a look at the top meets nothing while somebody replaces the entry.
    bool mayBeAvailableLocally() const override;
    using ResourceHandler::retrieveTask;
    //! Fetches into the cache, unless the mode and the cache say that nothing needs to be fetched. A
    //! reference that does not name one content for ever is asked for by every retrieval that may ask at all,
    //! with ResourceCache::FillMode::Update. When there is no usable answer (ErrorDomain::Network), a valid
    //! entry is taken with a warning, unless the mode is Refresh.
    std::optional<std::unique_ptr<Task>> retrieveTask() override;
    //! ResourceCache::expectedPath() of subCachePath(); ErrorCode::NotFound without a cache.
    Result<PathImpl<PathType::Unknown>> localPath() const override;
    //! Brings the resource into \a targetDir, under the last component of subCachePath(). A task that is a
    //! MirroringInterface is made to mirror.
    virtual std::unique_ptr<Task> retrieveTask(const PathImpl<PathType::Dir>& targetDir) = 0;
    //! Names the resource's place below the cache's content root; components joined with "/". The directory
    //! that holds the place belongs to the resource: a retrieval removes what is there beside it without
    //! being an entry of the cache, or on the way to one.
    virtual QString subCachePath() const = 0;

private:
    Error checkCache() const;
    //! Keeps the entry until the handler goes. After a fill, whose task has not gone yet.
    Error holdFilled(const QString& subPath);
    //! ErrorCode::NotFound.
    Error missing() const;
    //! Fills the entry and holds it. \a instead, when there is one, makes the task for a failure of the fill
    //! that the network is to blame for.
    std::unique_ptr<Task> retrievalTask(std::unique_ptr<Task> fill,
                                        std::function<std::unique_ptr<Task>(const Error&)> instead);
    std::unique_ptr<Task> fetchTask(const std::function<Error()>& mayFetch);
    //! Ends with success and the entry in use when there is a valid one, else with \a refusal.
    std::unique_ptr<Task> takeEntryTask(const QString& subPath, const Error& refusal);

    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
