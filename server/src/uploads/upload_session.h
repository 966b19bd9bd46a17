// The staged bytes of one open upload (of 64 KiB or more) in this process: which chunks are there, who is
// writing one, and the SHA-256 of the content, which is taken in the background as far as the chunks are
// there without a gap. A cache of the catalogue: dropping it costs time only. Thread-safe.
#pragma once

#include "blobs/blob_store.h"
#include "blobs/chunk_buffers.h"
#include "core/worker_pool.h"
#include "store/catalog_store.h"

#include <condition_variable>
#include <map>
#include <mutex>

namespace halvane::server {

class UploadSession;

// Receives one chunk: write() the bytes in order, then finish(). Destroying it without finish() leaves the
// chunk missing, unless the same chunk had been received before and was only sent again.
class ChunkWriter {
public:
    ~ChunkWriter();
    ChunkWriter(const ChunkWriter&) = delete;
    ChunkWriter& operator=(const ChunkWriter&) = delete;

    // Where the next bytes should be put before write(); empty when this chunk has no memory of its own.
    std::span<std::byte> room() const;
    void write(Bytes data);
    // Verifies the chunk and marks it as received; sets the content's SHA-256 when given. Throws
    // ChecksumMismatch.
    void finish(const std::optional<Sha256Digest>& contentSha256);

private:
    friend class UploadSession;
    ChunkWriter(std::shared_ptr<UploadSession> session, std::int64_t index, const Xxh3Digest& expected,
                std::function<void()> abort);

    std::shared_ptr<UploadSession> m_session;
    const std::int64_t m_index;
    const Xxh3Digest m_expected;
    const std::function<void()> m_abort; // ends the request that feeds this writer
    bool m_superseded = false;           // guarded by the session
    bool m_onlyVerify = false;           // the same chunk is there already: nothing is written
    ChunkBuffers::Buffer m_buffer;       // the whole chunk; null when it goes through the page cache
    std::int64_t m_stored = 0;           // bytes of the buffer that are in the file
    std::int64_t m_position = 0;
    Xxh3 m_hash;
};

class UploadSession : public std::enable_shared_from_this<UploadSession> {
public:
    // `upload` with its chunks. Chunks of a suspect upload are read and those that differ are forgotten,
    // which takes a while for large ones.
    UploadSession(const UploadRecord& upload, BlobStore& blobs, CatalogStore& catalog, WorkerPool& hashing,
                  ChunkBuffers& buffers);

    // A writer that is at work on the same chunk is ended: the request that comes later is the one whose
    // sender still waits.
    std::unique_ptr<ChunkWriter> beginChunk(std::int64_t index, const Xxh3Digest& expected,
                                            std::function<void()> abort);

    // From here on no chunk is accepted, until endFinalising after a failure; after a success for ever.
    // UploadIncomplete when one is missing.
    void beginFinalising();
    void endFinalising();
    // Between these two: the SHA-256 of the whole content; blocks while it is taken.
    Sha256Digest contentDigest();
    // Flushes the content to the disk.
    void flush();
    // Reads all chunks again, forgets those that differ from their checksum and returns how many there were.
    std::size_t forgetDamagedChunks();

    // Flushes what was received, so that it survives a power cut after a clean stop.
    void flushStaged();

private:
    friend class ChunkWriter;

    std::span<std::byte> room(const ChunkWriter& writer) const;
    void write(ChunkWriter& writer, Bytes data);
    void store(ChunkWriter& writer, std::int64_t length);
    void finish(ChunkWriter& writer, const std::optional<Sha256Digest>& contentSha256);
    void release(const ChunkWriter& writer);
    void restartHash();
    void hashAvailable();
    void hashChunk(std::int64_t index, Sha256& into);
    bool hashWillReach(std::int64_t index) const;
    bool goesDirectly(std::int64_t index) const;
    bool chunkIsIntact(std::int64_t index, const Xxh3Digest& expected) const;
    std::int64_t chunkOffset(std::int64_t index) const { return index * m_upload.chunkSize; }

    const UploadRecord m_upload;
    CatalogStore& m_catalog;
    WorkerPool& m_hashing;
    ChunkBuffers& m_buffers;
    Descriptor m_file;
    Descriptor m_directFile; // not open when the upload is small or the file system has no direct writes

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::optional<Xxh3Digest>> m_received;
    std::map<std::int64_t, ChunkWriter*> m_writers;
    bool m_finalising = false;
    // Chunks that are stored and wait for their turn in the hash; others are read from the file.
    std::map<std::int64_t, ChunkBuffers::Buffer> m_toHash;

    // Only the thread that has set m_hashBusy touches m_sha256 and advances m_hashedChunks.
    Sha256 m_sha256;
    std::int64_t m_hashedChunks = 0;
    bool m_hashBusy = false;
    bool m_hashVoid = false; // a chunk that was hashed is being replaced
};

} // namespace halvane::server
