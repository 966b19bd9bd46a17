#pragma once

#include "GetSiblingsTask.h"
#include "ResourceHandlerTypes.h"
#include "ResourceMetadata.h"

#include <PathImpl.h>
#include <Task.h>

#include <QSharedPointer>

#include <functional>
#include <optional>

namespace orx {

class ResourceCache;

//! Asks a person during a retrieval. Thread: that of the handler's user.
class ORX_RESOURCE_MANAGER_EXPORT ResourcePromptingInterface {
public:
    virtual ~ResourcePromptingInterface();
    //! Whether \a reference, which is not here, may be fetched.
    virtual bool mayFetch(const ResourceReference& reference) = 0;
};

//! Answers for one reference. Held by QSharedPointer; retrievals keep their handler alive. Thread: that of
//! its maker. The calls named "blocking" process events of the thread while they wait; the others wait
//! for no server and no other retrieval, but for the disk, and some for the cache's records: the first use of
//! a cache makes and flushes its directories and opens its records (up to 10 s behind another process that
//! repairs them), and setCleanupPolicy() flushes directories and waits up to 10 s for another writer of
//! records, and with it what other threads ask of the cache meanwhile. docs/cache.md tells the rest.
class ORX_RESOURCE_MANAGER_EXPORT ResourceHandler : public QEnableSharedFromThis<ResourceHandler> {
public:
    //! The values are fixed.
    enum class RetrieveMode : int {
        Refresh = 0,    //!< fetched anew; the entry that is there is replaced when the new one is whole
        CacheFirst = 1, //!< from the cache when valid there, else fetched into it; the default
        CacheOnly = 2   //!< ErrorCode::NotFound when not valid in the cache
    };
    //! The values are fixed.
    enum class AsyncProcessingType : int {
        StartedHere = 0, //!< the returned task runs already
        RunByCaller = 1  //!< the caller runs the returned task
    };

    virtual ~ResourceHandler();
    virtual Result<ResourceCleanupPolicy> cleanupPolicy() const = 0;
    virtual Error setCleanupPolicy(ResourceCleanupPolicy policy) = 0;
    //! Whether expectedPath() holds the resource, by size and time. In a directory nothing is looked at: it
    //! may still turn out to be damaged when it is retrieved. Waits for no lock and no server, once the cache
    //! is in use and while no other thread sets a policy.
    virtual bool isAvailableLocally() const = 0;
    //! The base fails with ErrorCode::InvalidArgument: such a resource has no siblings to list.
    virtual Result<std::unique_ptr<GetSiblingsTask>> siblings() const;

    ResourceReferenceSPtr reference() const { return m_reference; }
    //! For the following retrievals of this handler.
    void overrideRetrieveMode(RetrieveMode mode) { m_retrieveMode = mode; }
    RetrieveMode retrieveMode() const { return m_retrieveMode; }
    //! Where the resource lies when it is available locally; it need not be there.
    Result<PathImpl<PathType::Unknown>> expectedPath() const { return localPath(); }
    //! A task that makes the resource available, by the retrieve mode; null when nothing needs to be fetched.
    //! \a prompting may be null (nobody is asked); a refusal is ErrorCode::Canceled. It is asked before this
    //! returns or, when only the task finds out that something needs to be fetched, by that; it must live as
    //! long as the task. From a successful retrieval on, this handler keeps what lies at expectedPath() from
    //! being pruned until it is destroyed.
    Result<std::unique_ptr<Task>> retrieveAsync(AsyncProcessingType type,
                                                ResourcePromptingInterface* prompting);
    //! Blocking: makes it available and returns expectedPath().
    Result<PathImpl<PathType::Unknown>> retrieve(ResourcePromptingInterface* prompting = nullptr);
    //! The task's variant result holds a QSharedPointer<orx::ResourceMetadata>.
    std::unique_ptr<Task> retrieveMetadataAsync() const { return retrieveMetadataTask(); }
    //! Blocking.
    Result<QSharedPointer<ResourceMetadata>> retrieveMetadata() const;
    //! The task's variant result is a bool.
    std::unique_ptr<Task> existsAsync() const { return existsTask(); }
    //! Blocking.
    Result<bool> exists() const;

protected:
    ResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);
    //! Not owned; may be null.
    ResourceCache* cache() const { return m_cache; }

    //! False when no look by a worker could find the resource in the cache either. As isAvailableLocally() it
    //! waits for nobody.
    virtual bool mayBeAvailableLocally() const { return isAvailableLocally(); }
    virtual std::unique_ptr<Task> existsTask() const = 0;
    //! What retrieveAsync() returns, by the retrieve mode; none when nothing needs to be fetched.
    virtual std::optional<std::unique_ptr<Task>> retrieveTask() = 0;
    virtual std::unique_ptr<Task> retrieveMetadataTask() const = 0;
    virtual Result<PathImpl<PathType::Unknown>> localPath() const = 0;

    //! For retrieveTask(), when only the task will know whether something needs to be fetched: nobody is
    //! asked before it runs, but when the function is called. That says why nothing may be fetched. Thread:
    //! this handler's.
    std::function<Error()> askLater();

private:
    QSharedPointer<ResourceReference> m_reference;
    ResourceCache* m_cache;
    RetrieveMode m_retrieveMode = RetrieveMode::CacheFirst;
    //! During retrieveTask().
    ResourcePromptingInterface* m_prompting = nullptr;
    bool m_asksLater = false;
};

} // namespace orx
