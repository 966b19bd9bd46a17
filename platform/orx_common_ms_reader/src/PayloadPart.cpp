#include "PayloadPart.h"

namespace orx::vonk {

namespace {

constexpr qint64 weightOfEntry = 4096;

} // namespace

PayloadPart wholePayload(const PackedIndex& index) {
    return {ChunkCursor(index.metadata.entries),
            index.payloadOffset,
            0,
            index.chunks.size(),
            index.metadata.totalSize(),
            false};
}

std::vector<PayloadPart> payloadParts(const PackedIndex& index, qint64 weight, qint64 largest) {
    std::vector<PayloadPart> parts;
    ChunkCursor cursor(index.metadata.entries);
    qint64 position = index.payloadOffset;
    for (size_t chunk = 0; chunk < index.chunks.size(); ++chunk) {
        const ChunkCursor before = cursor;
        const ChunkCursor::Piece piece = cursor.take(index.chunks[chunk].contentSize);
        const bool isHead = piece.kind == ChunkCursor::Kind::Head;
        const qint64 size = isHead ? index.metadata.entries[piece.entry].size : 0;
        if (parts.empty() || (isHead && (parts.back().weight >= weight || size > largest)))
            parts.push_back({before, position, chunk, chunk, 0, size > largest});
        parts.back().endChunk = chunk + 1;
        parts.back().weight += isHead ? size + weightOfEntry : 0;
        position += index.chunks[chunk].frameSize;
    }
    return parts;
}

} // namespace orx::vonk
