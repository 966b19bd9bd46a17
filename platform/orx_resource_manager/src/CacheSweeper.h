#pragma once

#include "CacheStore.h"
#include "ResourceCache.h"

namespace orx {

//! Removes from a cache's directories what no record and no running process knows. What cannot be removed is
//! a problem in the report, and the rest goes all the same. Thread: any; blocks on the disk.
class CacheSweeper {
public:
    CacheSweeper(CacheStore& store, ResourceCache::PruneReport& report,
                 ResourceCache::Unfinished unfinished = ResourceCache::Unfinished::Kept)
        : m_store(store), m_report(report), m_unfinished(unfinished) {}

    //! Everything.
    void sweep();
    //! The same, unless the last time was less than a day ago.
    void sweepIfDue();
    //! What fetches, additions and sweeps left when they were cut off. Needs no records.
    void sweepStaging();
    //! See ResourceCache::PruneReport.
    Result<qint64> unfinishedBytes();
    //! What lies beside a place, in the directory that holds it, without being an entry or on the way to one.
    //! An error when some of it may still be there.
    Error clearBeside(const CacheSubPath& place);

private:
    bool isDue(const CacheRoot& root) const;
    void markSwept(const CacheRoot& root);
    //! Moves content without records, and what is no content, to the staging directory.
    void takeContent(const CacheRoot& root);
    QByteArrayList take(const CacheRoot& root, const QByteArrayList& paths);
    QByteArrayList leftoversOf(const CacheRoot& root, const QByteArrayList& paths);
    Error takeBeside(const CacheRoot& root, const QByteArray& path, QByteArrayList& taken);
    QString shownInStaging(const QByteArray& name) const;
    void note(const Error& error);

    CacheStore& m_store;
    ResourceCache::PruneReport& m_report;
    ResourceCache::Unfinished m_unfinished;
};

} // namespace orx
