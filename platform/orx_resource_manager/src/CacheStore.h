#pragma once

#include "CacheLocks.h"
#include "CachePayload.h"
#include "CacheRecords.h"
#include "CacheSubPath.h"

#include <FileCopy.h>

#include <QLoggingCategory>

#include <memory>
#include <sys/types.h>

namespace orx {

//! Category "orx.cache".
const QLoggingCategory& cacheLog();

//! The open directories of a cache and its locks.
struct CacheRoot {
    //! Which directory that is; as long as it is open nothing else is.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        friend bool operator==(const Identity&, const Identity&) = default;
    };
    CacheDescriptor content;
    CacheDescriptor state;
    CacheDescriptor staging;
    Identity contentIdentity;
    Identity stagingIdentity;
    std::shared_ptr<CacheLocks> locks;
};

//! The cache's state on the disk: places, records and locks, and how content comes to its place and goes.
//! Shared by the cache and what works for it. Thread: any; blocks on the disk.
class CacheStore {
public:
    //! Of an entry that is exchanged again and again while it is looked at.
    static constexpr int kLooks = 3;

    explicit CacheStore(const QString& rootDir);
    ~CacheStore();
    CacheStore(const CacheStore&) = delete;
    CacheStore& operator=(const CacheStore&) = delete;

    QString rootDir() const { return m_rootDir; }
    QString contentDir() const;
    QString stagingDir() const;
    QString placePath(const CacheSubPath& place) const;
    Result<CacheSubPath> parse(const QString& subPath) const;
    //! Makes or opens the directories; anew when they were removed behind our back.
    Result<std::shared_ptr<CacheRoot>> root();
    //! For what is short, and for what is long: neither waits for the other.
    CacheRecords& quickRecords() { return m_quick; }
    CacheRecords& records() { return m_work; }

    //! The record of an entry that is whole by sizes and times; ErrorCode::NotFound otherwise. By its top
    //! alone, without its items, it costs a few calls, whatever the entry holds and whoever writes records;
    //! while somebody exchanges what lies there it finds nothing. For a look at everything such an exchange
    //! is waited for (ErrorCode::Busy when it takes too long), and a directory that is not whole is recorded
    //! as damaged. A file whose digest is not \a expected (hexadecimal; empty: unknown) is not there either.
    //! ErrorCode::Busy also when \a cancel became true while it waited.
    Result<CacheRecords::Record> valid(const CacheSubPath& place, CachePayload::Depth depth,
                                       const QString& expected = QString(),
                                       const CacheFiles::CancelFlag* cancel = nullptr);
    //! Tells what lies at a place from what is brought there later, and from what is brought back.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        qint64 changedNs = 0;
        bool operator==(const Identity&) const = default;
    };
    //! Of what is there now; of nothing when there is nothing.
    Identity identityAt(const CacheSubPath& place);
    //! For who saw a difference between \a record, which he read after \a seen, and what lies at the place:
    //! while both are exchanged they differ. The lock of the place when neither was exchanged since, so that
    //! nobody does while it is held; none when one was, and another look tells. ErrorCode::NotFound when
    //! there is no record any more, ErrorCode::Busy.
    Result<std::optional<CacheLock>> holdUnchanged(const CacheSubPath& place, const Identity& seen,
                                                   const CacheRecords::Record& record,
                                                   const CacheFiles::CancelFlag* cancel = nullptr);
    //! Whether nothing else is in the directory that holds the place. A few calls, whatever is there.
    bool isAlone(const CacheSubPath& place);
    //! Keeps what lies at the place from being removed; none while somebody removes it.
    std::optional<CacheLock> tryUse(const CacheSubPath& place);
    //! The same, but waits for who removes it.
    std::optional<CacheLock> waitUse(const CacheSubPath& place);
    //! Counts as a use of the entry now.
    void noteUse(const CacheSubPath& place);
    //! Writes down the uses that were noted. When it returns all uses before the call are written, also those
    //! that another thread has begun to write.
    Error writeUses();

    //! Brings \a name in the directory \a staging, which is \a payload and on the disk, to its place and
    //! records it. What was at the place is in \a staging then, or nothing. After a failure the place and the
    //! record are as before. A success warns when another content has taken the place of a pinned file.
    Error seal(const CacheSubPath& place, int staging, const QByteArray& name, const CachePayload& payload);
    //! The directory above the place, made when missing.
    Result<CacheDescriptor> ensureParent(const CacheSubPath& place);
    //! The directory above the place; ErrorCode::NotFound.
    Result<CacheDescriptor> openParent(const CacheSubPath& place);
    //! See ResourceCache::markDamaged().
    Error markDamaged(const CacheSubPath& place, const FileCopy::Stamp& seen);
    //! Keeps some room on the disk for the records of removals, or gives it to them. True when there was any.
    void keepReserve();
    bool releaseReserve();
    //! Flushes the directories that lead to the place, as far as they are there.
    Error flushWay(const CacheSubPath& place);
    //! Removes what lies at the place, which nobody uses and no record tells of, and the directories above it
    //! that are empty then.
    Error clearPlace(const CacheSubPath& place);
    //! Record and content; ErrorCode::Busy when somebody uses it. Nothing when there is neither.
    Error remove(const CacheSubPath& place);

    //! ErrorCode::ChecksumMismatch when \a expected (hexadecimal; empty: unknown) is not a file's digest.
    static Error compare(const CachePayload& payload, const QString& expected, const QString& shown);
    //! Whether an error says no more than that something is not there.
    static bool isMissing(const Error& error);
    //! ErrorCode::Busy, naming \a place.
    static Error busy(const QString& subPath);

private:
    Error checkIsOurs(int top) const;
    Error openRoot(CacheRoot& root) const;
    bool isStillThere(const CacheRoot& root) const;
    bool setAsideDatabase(const QString& path, const QString& reason);
    struct Look;
    Result<Look> lookOnce(const CacheSubPath& place, CachePayload::Depth depth);
    Error exchange(const CacheSubPath& place, int staging, const QByteArray& name,
                   const CachePayload& payload);

    QString m_rootDir; // never changed
    QMutex m_mutex;
    std::shared_ptr<CacheRoot> m_root;
    QHash<QString, qint64> m_uses;
    //! Held while uses are on their way from m_uses to the records; taken before m_mutex.
    QMutex m_usesMutex;
    CacheRecords m_quick;
    CacheRecords m_work;
};

} // namespace orx
