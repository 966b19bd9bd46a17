#pragma once

#include "ResourceHandlerTypes.h"

#include <BackgroundWork.h>
#include <FileCopy.h>
#include <PathImpl.h>
#include <ResourceReference.h>
#include <Result.h>
#include <Task.h>

#include <QDateTime>
#include <QHash>
#include <QList>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace orx {

//! One entry, as a listing shows it.
struct ORX_RESOURCE_MANAGER_EXPORT ResourceCacheEntry {
    QString subPath;
    PathType type = PathType::Unknown;
    qint64 bytes = 0;
    qint64 files = 0;
    //! Of a file: 64 lower-case hexadecimal digits; empty for a directory.
    QString sha256;
    QDateTime addedAt;
    QDateTime lastUsedAt;
    ResourceCleanupPolicy policy = ResourceCleanupPolicy::Automatic;
    //! Known to be: it is not handed out, and goes with ResourceCache::verify() or when it is fetched anew.
    bool isDamaged = false;
};

//! Keeps an entry from being removed while it lives, also by other processes. Movable.
class ORX_RESOURCE_MANAGER_EXPORT ResourceCacheLease {
public:
    ResourceCacheLease();
    ~ResourceCacheLease();
    ResourceCacheLease(ResourceCacheLease&&) noexcept;
    ResourceCacheLease& operator=(ResourceCacheLease&&) noexcept;
    bool isHeld() const;
    //! Whether all of the entry was looked at. False for a directory that ResourceCache::lease() gave:
    //! whether that is whole shows in a fill.
    bool isWhole() const;

private:
    friend class ResourceCache;
    struct Private;
    std::unique_ptr<Private> d;
};

//! What a fetch says in its variant result (BaseTask::variantResult()) when it knows the digest of the file
//! that it wrote: the content is not read again then.
struct ORX_RESOURCE_MANAGER_EXPORT ResourceCacheDigest {
    //! 64 lower-case hexadecimal digits.
    QByteArray sha256;
};

//! The part of a writer's work that goes on after the writer returned; see ResourceCache::deferSeal(). Gone
//! without finished() it has failed. Thread: any.
class ORX_RESOURCE_MANAGER_EXPORT ResourceCacheWork final : public BackgroundWork {
public:
    ~ResourceCacheWork() override;
    //! The content is complete at the expected path, or never will be. Later calls change nothing.
    void finished(const Error& error) override;
    //! See ResourceCache::dropPending().
    bool isCanceled() const override;
    //! What the server acknowledged. A file at the place is compared with it by the cache; who makes a
    //! directory from such a file compares that file.
    QString sourceSha256() const override;

private:
    friend class ResourceCache;
    ResourceCacheWork();
    struct Private;
    std::unique_ptr<Private> d;
};

//! What remote resources are kept in on this machine: one directory, shared by any number of processes. An
//! entry appears whole or not at all; its size and time are compared with its record at each use, and an
//! entry that differs is not there (the next retrieval fetches it again). Thread: any, unless said otherwise.
//! docs/cache.md tells the layout and the locking.
class ORX_RESOURCE_MANAGER_EXPORT ResourceCache {
public:
    struct Limits {
        //! Of all content together; entries beyond it go, least recently used first.
        std::optional<qint64> maxBytes;
        //! Since the last use.
        std::optional<std::chrono::seconds> maxAge;
    };
    struct PruneReport {
        QList<ResourceCacheEntry> removed;
        qint64 bytesRemoved = 0;
        qint64 bytesLeft = 0;
        //! Would have gone, but somebody uses them.
        int inUse = 0;
        //! Of content without a record and of what ended processes left; not among bytesRemoved.
        qint64 leftoverBytes = 0;
        //! Of what fetches that run or were interrupted have brought so far; it stayed.
        qint64 unfinishedBytes = 0;
        //! What could not be removed and why, for people.
        QStringList problems;
    };
    struct VerifyReport {
        qint64 entries = 0;
        qint64 bytes = 0;
        //! Damaged entries, each with what is wrong; they are not there any more.
        QList<std::pair<QString, QString>> damaged;
        //! What could not be looked at or removed and why, for people.
        QStringList problems;
    };
    //! What a fill does about what is there. What it fetches replaces the entry when it is whole.
    enum class FillMode {
        Missing,  //!< a valid entry is taken as it is
        LookOnly, //!< as Missing; the fetch brings nothing, it says why there is nothing. What an interrupted
                  //!< fill left stays
        Anew,     //!< fetched anew
        Update //!< as Anew, but the fetch finds in its directory the files of a directory entry, or what an
               //!< interrupted update left, and brings that up to date. For a task that is a
               //!< MirroringInterface; any other finds nothing
    };
    //! What a fill does about what lies in the directory that holds the place and is neither an entry nor on
    //! the way to one: somebody put it there, or left it.
    enum class Neighbours {
        Kept,   //!< until the next sweep
        Removed //!< that directory belongs to the resource: all of it may be copied to users
    };
    //! What pruning does about what an interrupted fetch brought within a day, for the next one to resume.
    enum class Unfinished { Kept, Removed };
    //! What the server said the content of a resource is; hexadecimal SHA-256, empty when unknown. Called on
    //! any thread that adds or fills, or asks contains() or lease(), which may be an event loop and has
    //! locked the entry: it must not block, nor call the cache.
    using ChecksumSource = std::function<QString(const ResourceReference&)>;

    //! Nothing is touched on the disk before the first use; the directories are made with access for the
    //! owner only.
    explicit ResourceCache(const QString& rootDir);
    ~ResourceCache();

    QString rootDir() const;
    void setLimits(const Limits& limits);
    void setChecksumSource(ChecksumSource source);

    //! Where \a subPath lies. ErrorCode::InvalidArgument for one that is empty, absolute, has an empty, "."
    //! or ".." component, a NUL, or a component that this file system cannot hold (over 255 bytes). While a
    //! writer of the entry runs (see add()), to what it calls on its thread: where it makes the content.
    Result<Path> expectedPath(const QString& subPath) const;
    //! Whether there is an entry: a file of the recorded size and time, or a directory, which is not looked
    //! into and not known to be damaged. A file is not there when the server said (ChecksumSource) that the
    //! content of \a reference, which may be null, is another one: two servers may have been at one address.
    //! Like lease() and the additions it takes the same few calls for a directory of any size, so that an
    //! event loop may make it.
    bool contains(const QString& subPath, const ResourceReferenceSPtr& reference = {}) const;
    //! A lease of an entry that contains() finds, which also counts as its use; none without one.
    std::optional<ResourceCacheLease> lease(const QString& subPath,
                                            const ResourceReferenceSPtr& reference = {});
    Result<ResourceCleanupPolicy> cleanupPolicy(const QString& subPath) const;
    //! ErrorCode::NotFound without an entry.
    Error setCleanupPolicy(const QString& subPath, ResourceCleanupPolicy policy);

    //! Looks at all of an entry, which is known to be damaged after that when it differs from its record;
    //! ErrorCode::NotFound when there is none that is whole. Blocks on the disk.
    Error look(const QString& subPath) const;

    //! SHA-256 (lower-case hexadecimal digits) of the files in a directory entry, by their paths in it, as
    //! they were when they came. ErrorCode::NotFound. Blocks on the disk.
    Result<QHash<QString, QString>> checksums(const QString& subPath) const;

    //! For who read a file at the entry's place, which had the stamp \a seen before, and found that it is not
    //! what it should be: the entry is not there any more, until a fill brings it anew. Nothing happens when
    //! another file has come to the place since. The same of a directory, whose stamp tells which one it is
    //! and not what is in it. Blocks on the disk.
    Error markDamaged(const QString& subPath, const FileCopy::Stamp& seen);
    //! The same on a worker.
    std::unique_ptr<Task> markDamagedTask(const QString& subPath, const FileCopy::Stamp& seen);

    //! Fills the entry: \a fetch makes the task that brings the content into the directory it is given, under
    //! the last component of \a subPath. Of several tasks and processes that fill one entry one works and the
    //! others wait for it. An entry is looked at, with all that is in it, on a worker before it is taken as
    //! it is; what the server said is compared as by contains(). What an interrupted fill left under other
    //! names than the last component is there for the next one of the same entry to resume. The task ends
    //! when the entry is durable and visible, with progress of the fetch and a warning when another content
    //! has taken the place of a pinned file. Thread: the owner's.
    std::unique_ptr<Task> fillTask(const ResourceReferenceSPtr& reference, const QString& subPath,
                                   std::function<std::unique_ptr<Task>(const DirPath&)> fetch, FillMode mode,
                                   Neighbours neighbours = Neighbours::Kept);

    //! See RemoteResourceHandler::addToCache(). Thread: one with an event loop or WorkerPool completions.
    //! The first fails for a source that cannot be opened or is larger than the cache may be; what is wrong
    //! in a directory (its size, links in it) is found by a worker, and only logged. The second runs the
    //! writer, which makes the content at expectedPath() as that is while it runs; what the entry holds stays
    //! until the new content is complete. ErrorCode::Busy when somebody fills the entry. Neither waits for
    //! others.
    Error add(const ResourceReferenceSPtr& reference, const QString& subPath, const Path& source);
    Error add(const ResourceReferenceSPtr& reference, const QString& subPath,
              const std::function<Error()>& writer);
    //! For a writer of add() whose work goes on after it returned: the entry is sealed when finished() was
    //! called on all works that the writer asked for. Null unless a writer of \a subPath is running. What the
    //! writer calls gets the same from BackgroundWork::begin().
    std::shared_ptr<ResourceCacheWork> deferSeal(const QString& subPath);
    //! Processes this thread's events until what add() began is in the cache or has failed; the failures, for
    //! people.
    QStringList waitForPending();
    //! Gives up what add() began; what is half done disappears.
    void dropPending();

    //! By sub-path. Blocks on the disk, like those below.
    Result<QList<ResourceCacheEntry>> entries() const;
    Result<VerifyReport> verify(const std::function<bool(qint64 bytesDone)>& progress = {});
    //! \a limits instead of the cache's own, where given. An error when nothing could be removed because of
    //! it; what else fails is in the report. What running fetches bring stays in any case.
    Result<PruneReport> prune(const Limits& limits = {}, Unfinished unfinished = Unfinished::Kept);
    //! PruneReport::unfinishedBytes now.
    Result<qint64> unfinishedBytes() const;
    //! ErrorCode::Busy when somebody uses it.
    Error remove(const QString& subPath);

private:
    friend class RemoteResourceHandler;
    //! A lease of an entry that a fill of this thread has just leased: it is not looked at again.
    std::optional<ResourceCacheLease> leaseFilled(const QString& subPath);
    //! Whether there is a record, whatever lies at the place. Waits as contains().
    bool isRecorded(const QString& subPath) const;
    //! Whether nothing else is in the directory that holds the place.
    bool isAlone(const QString& subPath) const;
    ResourceCacheLease leaseOf(const class CacheSubPath& place, class CacheLock lock, bool isWhole);

    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx

Q_DECLARE_METATYPE(orx::ResourceCacheDigest)
