#pragma once

#include "CachePayload.h"
#include "ResourceCache.h"

#include <SqliteFile.h>

#include <QHash>
#include <QSet>

#include <vector>

namespace orx {

//! The cache's records in its database. Thread: any, one call at a time; blocks on the disk.
class CacheRecords {
public:
    struct Record {
        qint64 id = 0;
        ResourceCacheEntry entry;
        //! Without the items of a directory, unless find() was asked for them.
        CachePayload payload;
    };
    //! What the cache's limits ask to remove.
    struct Bounds {
        std::optional<qint64> maxBytes;
        //! Those not used since then go; milliseconds since the epoch.
        std::optional<qint64> usedBeforeMs;
    };

    enum class Durability {
        Flushed,
        Relaxed //!< a power cut may undo it
    };

    //! \a onDamage as in SqliteFile::Format.
    CacheRecords(const QString& path, std::function<bool(const QString&, const QString&)> onDamage);

    //! With the items of a directory when \a depth is Everything; ErrorCode::NotFound.
    Result<Record> find(const QString& subPath, CachePayload::Depth depth = CachePayload::Depth::Top);
    //! All, by sub-path.
    Result<std::vector<Record>> all();
    Result<QStringList> subPaths();
    //! Replaces what is recorded of the place; the policy stays. ErrorCode::AlreadyExists when the place lies
    //! within another entry or holds others.
    Error put(const QString& subPath, const CachePayload& payload, Durability durability);
    Error setPolicy(const QString& subPath, ResourceCleanupPolicy policy);
    //! Nothing when the entry was replaced or removed since \a record was read.
    Error setDamaged(const Record& record);
    //! Milliseconds since the epoch; never sets a time back.
    Error setUsed(const QHash<QString, qint64>& uses);
    //! What a clock that was ahead recorded as a use to come was used now.
    Error endFutureUses();
    Error remove(qint64 id);
    //! In one transaction; without those that were used, replaced or given another policy since they were
    //! read. The ids of those that went.
    Result<QSet<qint64>> removeUnchanged(const std::vector<const Record*>& records);
    Result<qint64> totalBytes();
    //! What is to be removed to keep the bounds, the first to go first; without \a spared, which stay.
    Result<std::vector<Record>> beyond(const Bounds& bounds, const QSet<qint64>& spared);
    //! Whether \a subPath lies within an entry, or there are entries below it.
    Result<bool> isTaken(const QString& subPath);
    //! What a place has to do with the entries.
    enum class Tie {
        None,
        Entry, //!< it is one, or lies within one
        Above  //!< entries lie below it
    };
    //! Of each of \a subPaths.
    Result<std::vector<Tie>> ties(const QStringList& subPaths);

private:
    SqliteFile m_file;
};

} // namespace orx
