#include "ChunkReading.h"

#include "PackedFrames.h"
#include "PackedText.h"

#include <algorithm>

namespace orx::vonk {

namespace {

Error decode(FrameDecompressor& decompressor, bool hasDigest, ChunkSlot& slot) {
    const quint64 digest = digest64(slot.frame.bytes());
    if (hasDigest && digest != slot.row.digest)
        return Error(ErrorCode::ChecksumMismatch,
                     translated("it is damaged: a part of its data is not what it was."));
    // Format 1 has no digest, so that a change that zstd passes over is left to the digest of the file.
    slot.row.digest = digest;
    return decompressor.decompress(slot.frame.bytes(), slot.row.contentSize, slot.content);
}

} // namespace

ChunkReading::ChunkReading(const PackedFile& file, const PackedIndex& index, const WorkWatch& watch)
    : ChunkReading(file, index, wholePayload(index), watch) {}

ChunkReading::ChunkReading(const PackedFile& file, const PackedIndex& index, const PayloadPart& part,
                           const WorkWatch& watch)
    : m_file(file)
    , m_index(index)
    , m_watch(watch)
    , m_cursor(part.cursor)
    , m_next(part.firstChunk)
    , m_end(part.endChunk)
    , m_position(part.position) {}

Error ChunkReading::run(const ChunkPipeline::Step& use) {
    const qint64 total = m_index.metadata.totalSize();
    qint64 done = 0;
    ChunkPipeline pipeline;
    pipeline.order = ChunkPipeline::Order::AfterWork;
    pipeline.produce = [this](ChunkSlot& slot) { return produce(slot); };
    pipeline.makeWorker = [hasDigests = m_index.hasDigests] {
        return [hasDigests, decompressor = std::make_shared<FrameDecompressor>()](ChunkSlot& slot) {
            return decode(*decompressor, hasDigests, slot);
        };
    };
    pipeline.inOrder = [this](ChunkSlot& slot) { return checkInOrder(slot); };
    pipeline.consume = [&](ChunkSlot& slot) {
        ORX_RETURN_ON_ERROR(use(slot));
        if (slot.piece.kind == ChunkCursor::Kind::Data)
            m_watch.report(done += slot.piece.size, total);
        return Error();
    };
    return pipeline.run();
}

Error ChunkReading::runAlone(const ChunkPipeline::Step& use) {
    FrameDecompressor decompressor;
    ChunkSlot slot;
    for (;;) {
        const Result<bool> more = produce(slot);
        ORX_RETURN_ON_ERROR(more.error());
        if (!*more)
            return {};
        ORX_RETURN_ON_ERROR(decode(decompressor, m_index.hasDigests, slot));
        ORX_RETURN_ON_ERROR(checkInOrder(slot));
        ORX_RETURN_ON_ERROR(use(slot));
    }
}

Result<bool> ChunkReading::produce(ChunkSlot& slot) {
    ORX_RETURN_ON_ERROR(m_watch.check());
    if (m_next == m_end)
        return false;
    slot.row = m_index.chunks[m_next++];
    slot.piece = m_cursor.take(slot.row.contentSize);
    slot.frame.resize(slot.row.frameSize);
    ORX_RETURN_ON_ERROR(m_file.read(m_position, {slot.frame.data(), slot.frame.size()}));
    m_position += slot.row.frameSize;
    return true;
}

Error ChunkReading::checkInOrder(const ChunkSlot& slot) {
    if (slot.piece.kind == ChunkCursor::Kind::Data)
        return checkData(slot);
    const VonkEntry& entry = m_index.metadata.entries[slot.piece.entry];
    const QByteArray expected = m_cursor.tarBytes(slot.piece);
    if (!std::ranges::equal(expected, slot.content.bytes()))
        return damaged(slot.piece.entry);
    if (slot.piece.kind == ChunkCursor::Kind::End || !entry.isFile() || entry.size > 0)
        return {};
    m_hash.reset();
    return m_hash.hexDigest() == entry.sha256 ? Error() : damaged(slot.piece.entry);
}

Error ChunkReading::checkData(const ChunkSlot& slot) {
    if (slot.piece.offset == 0)
        m_hash.reset();
    m_hash.add(slot.content.bytes().data(), slot.piece.size);
    if (!slot.piece.isLastOfFile)
        return {};
    const VonkEntry& entry = m_index.metadata.entries[slot.piece.entry];
    return m_hash.hexDigest() == entry.sha256 ? Error() : damaged(slot.piece.entry);
}

Error ChunkReading::damaged(qsizetype entry) const {
    return Error(ErrorCode::ChecksumMismatch, translated("it is damaged: \"%1\" is not what was packed.")
                                                  .arg(m_index.metadata.entries[entry].path));
}

} // namespace orx::vonk
