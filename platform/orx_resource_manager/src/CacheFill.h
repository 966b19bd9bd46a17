#pragma once

#include "CacheStore.h"
#include "ResourceCache.h"

#include <memory>
#include <optional>

namespace orx {

//! One fill of an entry, as its disk sees it. begin(), then the content is brought into directory(), then
//! finish(). What is in the directory when the object goes before that is there for the next fill. Thread:
//! one at a time; blocks on the disk.
class CacheFill {
public:
    enum class Begun {
        Waiting, //!< somebody else fills the entry: to be asked again
        Done,    //!< the entry is there, leased
        Fetch    //!< the content is to be brought
    };

    CacheFill(std::shared_ptr<CacheStore> store, const CacheSubPath& place, ResourceCache::FillMode mode,
              ResourceCache::Neighbours neighbours)
        : m_store(std::move(store)), m_place(place), m_mode(mode), m_neighbours(neighbours) {}

    //! \a expected as in CacheStore::valid().
    Result<Begun> begin(const QString& expected);
    //! Whether the fetch may find content in directory() under the place's name.
    bool isUpdate() const { return m_mode == ResourceCache::FillMode::Update; }
    //! Throws away what the fetch found, for it to begin anew. After begin() said Fetch.
    Error startOver();
    //! Where the content is to be brought, under the place's name.
    QString directory() const;
    //! \a sha256: of the file, by who wrote it; empty when it is to be taken here. \a expected as in
    //! CacheStore::compare(). The entry is durable, visible and leased after that, and the limits are kept.
    Error finish(const QByteArray& sha256, const QString& expected, const ResourceCache::Limits& limits);
    //! Lets another fill of the entry begin, whatever became of this one.
    void releaseFill() { m_fill.reset(); }
    //! Lets the entry go, which finish() or begin() leased.
    void releaseEntry() { m_lease.reset(); }
    //! Thread: any. Makes begin() and finish() end early with an error.
    void cancel() { m_isCanceled = true; }

private:
    QByteArray stagingName() const { return "fill-" + m_place.key(); }
    Result<std::optional<CacheRecords::Record>> look(const QString& expected);
    bool needsNothingNew() const;
    bool isNewEnough(const CacheRecords::Record& record) const;
    Result<Begun> waitForOther(const QString& expected);
    Result<Begun> beginAlone(const CacheRoot& root, const QString& expected);
    void hold(CacheLock use);
    Error clearBeside();
    Error prepareDirectory(const CacheRoot& root, const CachePayload* entry);
    Error linkEntry(int directory, const CachePayload& entry) const;

    std::shared_ptr<CacheStore> m_store;
    CacheSubPath m_place;
    ResourceCache::FillMode m_mode;
    ResourceCache::Neighbours m_neighbours;
    //! When the entry that is there while another fill is waited for was made.
    std::optional<QDateTime> m_addedBefore;
    bool m_hasWaited = false;
    std::optional<CacheLock> m_fill;
    std::optional<CacheLock> m_lease;
    CacheFiles::CancelFlag m_isCanceled = false;
};

} // namespace orx
