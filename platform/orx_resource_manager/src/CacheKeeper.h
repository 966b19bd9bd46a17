#pragma once

#include "CacheStore.h"
#include "ResourceCache.h"

namespace orx {

//! What keeps a cache in order: its limits, leftovers, and the check of contents. Thread: any; blocks on the
//! disk.
class CacheKeeper {
public:
    explicit CacheKeeper(CacheStore& store) : m_store(store) {}

    //! Removes entries until the limits are kept.
    Result<ResourceCache::PruneReport> enforce(const ResourceCache::Limits& limits);
    //! Removes what no record and no running process knows. Passes over the content when somebody brings
    //! some to its place just then.
    Error sweep();
    Result<ResourceCache::VerifyReport> verify(const std::function<bool(qint64)>& progress);

private:
    using Records = std::vector<CacheRecords::Record>;
    struct Removal;
    struct Finding;
    std::optional<Removal> beginRemoval(CacheLocks& locks, const CacheRecords::Record& record) const;
    Result<bool> removeSome(const ResourceCache::Limits& limits, QSet<qint64>& spared,
                            ResourceCache::PruneReport& report);
    Error removeBatch(Records::const_iterator begin, Records::const_iterator end, QSet<qint64>& spared,
                      ResourceCache::PruneReport& report);
    Error sweepStaging(const CacheRoot& root);
    Error sweepContent(const CacheRoot& root);
    Error verifyEntry(const CacheRecords::Record& listed, ResourceCache::VerifyReport& report,
                      const std::function<bool(qint64)>& onBytes);
    Result<QString> damageOf(const CacheSubPath& place, CacheRecords::Record& record,
                             const std::function<bool(qint64)>& onBytes);
    Result<std::optional<Finding>> lookAt(const CacheSubPath& place, CacheLocks& locks,
                                          const std::function<bool(qint64)>& onBytes);
    Error discard(const CacheSubPath& place, const Finding& finding, CacheLock use, CacheLocks& locks);

    CacheStore& m_store;
};

} // namespace orx
