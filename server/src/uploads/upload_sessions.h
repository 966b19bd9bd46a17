// The upload sessions of this process, the most recently used ones.
#pragma once

#include "uploads/upload_session.h"

namespace halvane::server {

// Thread-safe.
class UploadSessions {
public:
    UploadSessions(BlobStore& blobs, CatalogStore& catalog, WorkerPool& hashing);

    // The session of an open upload of the caller; made when it is not there. Throws what
    // CatalogStore::upload throws.
    std::shared_ptr<UploadSession> session(const Caller& caller, Id upload);
    // After an upload was finalised, abandoned or has expired.
    void drop(Id upload);
    // Makes everything staged durable, before a clean stop.
    void flushAll();

private:
    struct Slot {
        std::mutex mutex; // held while the session is made
        std::shared_ptr<UploadSession> session;
        std::uint64_t lastUse = 0;
    };

    std::shared_ptr<Slot> slot(Id upload);
    void evictIdle();

    static constexpr std::size_t maximumIdle = 256;

    // What all chunks on their way to the disk or the hash may take; further ones go through the page cache.
    static constexpr std::size_t chunkMemory = 32 * 1024 * 1024;

    BlobStore& m_blobs;
    CatalogStore& m_catalog;
    WorkerPool& m_hashing;
    ChunkBuffers m_buffers{chunkMemory};
    std::mutex m_mutex;
    std::uint64_t m_uses = 0;
    std::map<Id, std::shared_ptr<Slot>> m_slots;
};

} // namespace halvane::server
