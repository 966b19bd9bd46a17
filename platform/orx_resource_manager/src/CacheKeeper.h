#pragma once

#include "CacheStore.h"
#include "ResourceCache.h"

namespace orx {

//! What keeps a cache in order: its limits, leftovers, and the check of contents. Thread: any; blocks on the
//! disk.
class CacheKeeper {
public:
    explicit CacheKeeper(CacheStore& store) : m_store(store) {}

    //! After something came: keeps the limits, and sweeps now and then. What fails is logged.
    void keepUp(const ResourceCache::Limits& limits);
    //! Keeps the limits and sweeps. An error when nothing could be done.
    Result<ResourceCache::PruneReport> prune(const ResourceCache::Limits& limits,
                                             ResourceCache::Unfinished unfinished);
    Result<ResourceCache::VerifyReport> verify(const std::function<bool(qint64)>& progress);

private:
    using Records = std::vector<CacheRecords::Record>;
    struct Removal;
    struct Finding;
    std::optional<Removal> beginRemoval(CacheLocks& locks, const CacheRecords::Record& record) const;
    //! Removes entries until the limits are kept. What it did before an error is in the report.
    Error enforce(const ResourceCache::Limits& limits, ResourceCache::PruneReport& report);
    Result<bool> removeSome(const ResourceCache::Limits& limits, QSet<qint64>& spared,
                            ResourceCache::PruneReport& report);
    Error removeBatch(Records::const_iterator begin, Records::const_iterator end, QSet<qint64>& spared,
                      ResourceCache::PruneReport& report);
    void clearPlaces(const std::vector<Removal>& removals);
    Error verifyEntry(const CacheRecords::Record& listed, ResourceCache::VerifyReport& report,
                      const std::function<bool(qint64)>& onBytes);
    Result<QString> damageOf(const CacheSubPath& place, CacheRecords::Record& record,
                             const std::function<bool(qint64)>& onBytes);
    Result<std::optional<Finding>> lookAt(const CacheSubPath& place,
                                          const std::function<bool(qint64)>& onBytes);
    Error discard(const CacheSubPath& place, const Finding& finding, CacheLock use, CacheLocks& locks);

    CacheStore& m_store;
};

} // namespace orx
