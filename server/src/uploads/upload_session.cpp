#include "uploads/upload_session.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>

namespace halvane::server {

namespace {

constexpr std::size_t readSize = 256 * 1024;
// Shorter ones are flushed soonest by way of the page cache, where their first readers find them too.
constexpr std::int64_t directMinimum = 1024 * 1024;
constexpr std::int64_t directPiece = 1024 * 1024;
constexpr auto supersedeTimeout = std::chrono::seconds(30);

template <typename Hash>
void hashRange(int descriptor, std::int64_t offset, std::int64_t length, const std::string& name,
               Hash& hash) {
    thread_local std::vector<std::byte> buffer(readSize);
    while (length > 0) {
        const auto piece =
            std::span(buffer).first(std::min<std::size_t>(buffer.size(), static_cast<std::size_t>(length)));
        readAt(descriptor, piece, offset, name);
        hash.update(piece);
        offset += static_cast<std::int64_t>(piece.size());
        length -= static_cast<std::int64_t>(piece.size());
    }
}

} // namespace

ChunkWriter::ChunkWriter(std::shared_ptr<UploadSession> session, std::int64_t index,
                         const Xxh3Digest& expected, std::function<void()> abort)
    : m_session(std::move(session)), m_index(index), m_expected(expected), m_abort(std::move(abort)) {}

ChunkWriter::~ChunkWriter() {
    m_session->release(*this);
}

std::span<std::byte> ChunkWriter::room() const {
    return m_session->room(*this);
}

void ChunkWriter::write(Bytes data) {
    m_session->write(*this, data);
}

void ChunkWriter::finish(const std::optional<Sha256Digest>& contentSha256) {
    m_session->finish(*this, contentSha256);
}

UploadSession::UploadSession(const UploadRecord& upload, BlobStore& blobs, CatalogStore& catalog,
                             WorkerPool& hashing, ChunkBuffers& buffers)
    : m_upload(upload)
    , m_catalog(catalog)
    , m_hashing(hashing)
    , m_buffers(buffers)
    , m_file(blobs.openStaged(upload.blobName, upload.size))
    , m_received(static_cast<std::size_t>(upload.chunkCount())) {
    if (goesDirectly(0))
        m_directFile = blobs.openStagedDirectly(upload.blobName);
    for (const ReceivedChunk& chunk : upload.chunks)
        m_received.at(static_cast<std::size_t>(chunk.index)) = chunk.xxh3;
    if (upload.suspect) {
        forgetDamagedChunks();
        m_catalog.clearSuspicion(upload.id);
    }
}

std::unique_ptr<ChunkWriter> UploadSession::beginChunk(std::int64_t index, const Xxh3Digest& expected,
                                                       std::function<void()> abort) {
    std::unique_ptr<ChunkWriter> writer;
    bool replaces = false;
    {
        std::unique_lock lock(m_mutex);
        if (const auto other = m_writers.find(index); other != m_writers.end()) {
            other->second->m_superseded = true;
            other->second->m_abort();
        }
        if (!m_changed.wait_for(lock, supersedeTimeout, [&] { return !m_writers.contains(index); }))
            throw ApiError(ErrorCode::Internal, "Another request is sending this chunk; try again.", 503, 1);
        auto& received = m_received.at(static_cast<std::size_t>(index));
        const bool same = received == expected;
        if (m_finalising && !same)
            throw ApiError(ErrorCode::UploadGone,
                           "The upload " + std::to_string(m_upload.id) + " is being finalised.");
        writer.reset(new ChunkWriter(shared_from_this(), index, expected, std::move(abort)));
        writer->m_onlyVerify = same;
        m_writers[index] = writer.get();
        replaces = received && !same;
        if (replaces) {
            received.reset();
            m_toHash.erase(index);
            if (index < m_hashedChunks || m_hashBusy)
                restartHash();
        }
    }
    // Before the first byte of it is overwritten, so that no kill leaves a chunk marked that is not there.
    if (replaces)
        m_catalog.forgetChunks(m_upload.id, {index});
    if (m_directFile.isOpen() && goesDirectly(index) && !writer->m_onlyVerify)
        writer->m_buffer = m_buffers.take(static_cast<std::size_t>(m_upload.chunkSize));
    return writer;
}

bool UploadSession::goesDirectly(std::int64_t index) const {
    return m_upload.size > 0 && m_upload.chunkSize % static_cast<std::int64_t>(directAlignment) == 0 &&
           m_upload.chunkLength(index) >= directMinimum;
}

std::span<std::byte> UploadSession::room(const ChunkWriter& writer) const {
    if (!writer.m_buffer)
        return {};
    return writer.m_buffer->first(static_cast<std::size_t>(m_upload.chunkLength(writer.m_index)))
        .subspan(static_cast<std::size_t>(writer.m_position));
}

void UploadSession::write(ChunkWriter& writer, Bytes data) {
    {
        const std::lock_guard lock(m_mutex);
        if (writer.m_superseded)
            throw ApiError(ErrorCode::Internal, "A later request sends this chunk.", 503, 1);
    }
    const auto size = static_cast<std::int64_t>(data.size());
    if (writer.m_position + size > m_upload.chunkLength(writer.m_index))
        throw ApiError(ErrorCode::ChecksumMismatch, "The chunk is longer than it should be.");
    writer.m_hash.update(data);
    if (writer.m_buffer) {
        std::byte* const place = writer.m_buffer->data() + writer.m_position;
        if (place != data.data())
            std::memcpy(place, data.data(), data.size());
    } else if (!writer.m_onlyVerify) {
        writeAt(m_file.get(), data, chunkOffset(writer.m_index) + writer.m_position, m_upload.blobName);
    }
    writer.m_position += size;
    const std::int64_t waiting = writer.m_position - writer.m_stored;
    if (writer.m_buffer &&
        (waiting >= directPiece || writer.m_position == m_upload.chunkLength(writer.m_index)))
        store(writer, waiting);
}

// Writes the next bytes of the buffer; all but the last bytes of the content are aligned.
void UploadSession::store(ChunkWriter& writer, std::int64_t length) {
    const std::int64_t begin = chunkOffset(writer.m_index);
    if (writer.m_stored ==
        0) // a hint, which keeps the chunk in one piece on the disk; a write tells what is wrong
        ::fallocate(m_directFile.get(), 0, begin, m_upload.chunkLength(writer.m_index));
    const bool isLast = writer.m_position == m_upload.chunkLength(writer.m_index);
    const auto aligned = length - length % static_cast<std::int64_t>(directAlignment);
    const Bytes data = writer.m_buffer->subspan(static_cast<std::size_t>(writer.m_stored),
                                                static_cast<std::size_t>(isLast ? length : aligned));
    const std::size_t done =
        writeDirectlyAt(m_directFile.get(), data.first(static_cast<std::size_t>(aligned)),
                        begin + writer.m_stored, m_upload.blobName);
    if (done < data.size())
        writeAt(m_file.get(), data.subspan(done), begin + writer.m_stored + static_cast<std::int64_t>(done),
                m_upload.blobName);
    writer.m_stored += static_cast<std::int64_t>(data.size());
}

void UploadSession::finish(ChunkWriter& writer, const std::optional<Sha256Digest>& contentSha256) {
    const std::int64_t length = m_upload.chunkLength(writer.m_index);
    if (writer.m_position != length || writer.m_hash.digest() != writer.m_expected)
        throw ApiError(ErrorCode::ChecksumMismatch, "The chunk " + std::to_string(writer.m_index) +
                                                        " differs from its checksum; send it again.");
    if (writer.m_onlyVerify) {
        if (contentSha256)
            m_catalog.setContentSha256(m_upload.id, contentSha256);
        return;
    }
    m_catalog.recordChunk(m_upload.id, {writer.m_index, writer.m_expected}, {}, contentSha256);
    // The disk begins at once, so that the flush at the end finds little to do; on another thread, since the
    // kernel may wait for a full request queue. It is a hint: a failure shows in that flush.
    if (!writer.m_buffer)
        m_hashing.post([self = shared_from_this(), offset = chunkOffset(writer.m_index), length] {
            ::sync_file_range(self->m_file.get(), offset, length, SYNC_FILE_RANGE_WRITE);
        });
    const std::lock_guard lock(m_mutex);
    m_received[static_cast<std::size_t>(writer.m_index)] = writer.m_expected;
    if (writer.m_buffer && writer.m_index >= m_hashedChunks && hashWillReach(writer.m_index))
        m_toHash[writer.m_index] = std::move(writer.m_buffer);
    if (!m_hashBusy && writer.m_index == m_hashedChunks) {
        m_hashBusy = true;
        m_hashing.post([self = shared_from_this()] { self->hashAvailable(); });
    }
}

void UploadSession::release(const ChunkWriter& writer) {
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_writers.find(writer.m_index);
        if (found != m_writers.end() && found->second == &writer)
            m_writers.erase(found);
        std::erase_if(m_toHash, [this](const auto& waiting) { return !hashWillReach(waiting.first); });
    }
    m_changed.notify_all();
}

// With the mutex held: whether every chunk that the hash needs before this one is there or on its way, so
// that no memory waits for a sender that is gone.
bool UploadSession::hashWillReach(std::int64_t index) const {
    for (std::int64_t i = m_hashedChunks; i < index; ++i)
        if (!m_received[static_cast<std::size_t>(i)] && !m_writers.contains(i))
            return false;
    return true;
}

// With the mutex held.
void UploadSession::restartHash() {
    if (m_hashBusy) {
        m_hashVoid = true;
        return;
    }
    m_sha256.restart();
    m_hashedChunks = 0;
}

// On a hashing thread, which has m_hashBusy.
void UploadSession::hashAvailable() {
    std::unique_lock lock(m_mutex);
    while (m_hashedChunks < m_upload.chunkCount() && m_received[static_cast<std::size_t>(m_hashedChunks)]) {
        const std::int64_t index = m_hashedChunks;
        lock.unlock();
        bool read = true;
        try {
            hashChunk(index, m_sha256);
        } catch (const std::exception&) { // contentDigest reads again and tells its caller
            read = false;
        }
        lock.lock();
        ++m_hashedChunks;
        if (!m_hashVoid && read)
            continue;
        m_hashVoid = false;
        m_sha256.restart();
        m_hashedChunks = 0;
        if (!read)
            break;
    }
    m_hashBusy = false;
    m_changed.notify_all();
}

void UploadSession::hashChunk(std::int64_t index, Sha256& into) {
    ChunkBuffers::Buffer buffer;
    {
        const std::lock_guard lock(m_mutex);
        if (auto waiting = m_toHash.extract(index))
            buffer = std::move(waiting.mapped());
    }
    if (buffer)
        into.update(buffer->first(static_cast<std::size_t>(m_upload.chunkLength(index))));
    else
        hashRange(m_file.get(), chunkOffset(index), m_upload.chunkLength(index), m_upload.blobName, into);
}

bool UploadSession::chunkIsIntact(std::int64_t index, const Xxh3Digest& expected) const {
    Xxh3 hash;
    hashRange(m_file.get(), chunkOffset(index), m_upload.chunkLength(index), m_upload.blobName, hash);
    return hash.digest() == expected;
}

void UploadSession::beginFinalising() {
    const std::lock_guard lock(m_mutex);
    const auto missing = std::count(m_received.begin(), m_received.end(), std::nullopt);
    if (missing > 0)
        throw ApiError(ErrorCode::UploadIncomplete, "The upload " + std::to_string(m_upload.id) + " lacks " +
                                                        std::to_string(missing) + " of its " +
                                                        std::to_string(m_received.size()) + " chunks.");
    m_finalising = true;
}

void UploadSession::endFinalising() {
    const std::lock_guard lock(m_mutex);
    m_finalising = false;
}

Sha256Digest UploadSession::contentDigest() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_hashBusy; });
    m_hashBusy = true;
    lock.unlock();
    std::exception_ptr failure;
    try {
        for (; m_hashedChunks < m_upload.chunkCount(); ++m_hashedChunks)
            hashChunk(m_hashedChunks, m_sha256);
    } catch (...) {
        failure = std::current_exception();
        m_sha256.restart();
    }
    const Sha256Digest digest = m_sha256.finish();
    lock.lock();
    m_hashedChunks = 0;
    m_hashBusy = false;
    if (failure)
        std::rethrow_exception(failure);
    return digest;
}

void UploadSession::flush() {
    if (::fsync(m_file.get()) != 0)
        throw systemError("flush the content '" + m_upload.blobName + "'", errno);
}

void UploadSession::flushStaged() {
    if (::fdatasync(m_file.get()) != 0)
        throw systemError("flush the staged content '" + m_upload.blobName + "'", errno);
}

std::size_t UploadSession::forgetDamagedChunks() {
    std::vector<std::int64_t> damaged;
    for (std::size_t i = 0; i < m_received.size(); ++i)
        if (m_received[i] && !chunkIsIntact(static_cast<std::int64_t>(i), *m_received[i]))
            damaged.push_back(static_cast<std::int64_t>(i));
    if (damaged.empty())
        return 0;
    m_catalog.forgetChunks(m_upload.id, damaged);
    const std::lock_guard lock(m_mutex);
    for (const std::int64_t index : damaged)
        m_received[static_cast<std::size_t>(index)].reset();
    m_toHash.clear();
    restartHash();
    return damaged.size();
}

} // namespace halvane::server
