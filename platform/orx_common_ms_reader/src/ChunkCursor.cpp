#include "ChunkCursor.h"

#include "PackedLimits.h"
#include "TarStream.h"

namespace orx::vonk {

ChunkCursor::ChunkCursor(const QList<VonkEntry>& entries) : m_entries(entries) {
    enter();
}

qint64 ChunkCursor::largestNext() const {
    return std::min(m_left, chunkSize);
}

bool ChunkCursor::accepts(qint64 size) const {
    if (m_atEnd || size < 1)
        return false;
    return m_kind == Kind::Data ? size <= largestNext() : size == m_left;
}

ChunkCursor::Piece ChunkCursor::take(qint64 size) {
    Piece piece{m_kind, std::min(m_entry, m_entries.size() - 1), m_offset, size, false};
    m_left -= size;
    m_offset += size;
    if (m_left > 0)
        return piece;
    if (m_kind == Kind::End) {
        m_atEnd = true;
        return piece;
    }
    piece.isLastOfFile = m_kind == Kind::Data;
    m_offset = 0;
    if (m_kind == Kind::Head && m_entries[m_entry].size > 0) {
        m_kind = Kind::Data;
        m_left = m_entries[m_entry].size;
        return piece;
    }
    ++m_entry;
    enter();
    return piece;
}

QByteArray ChunkCursor::tarBytes(const Piece& piece) const {
    if (piece.kind == Kind::End)
        return tarEnd(m_entries.last().size);
    return tarHead(m_entries[piece.entry], piece.entry > 0 ? m_entries[piece.entry - 1].size : 0);
}

qint64 ChunkCursor::sizeBefore() const {
    return m_entry > 0 ? m_entries[m_entry - 1].size : 0;
}

void ChunkCursor::enter() {
    const bool isEntry = m_entry < m_entries.size();
    m_kind = isEntry ? Kind::Head : Kind::End;
    m_left = (isEntry ? tarHead(m_entries[m_entry], sizeBefore()) : tarEnd(sizeBefore())).size();
}

} // namespace orx::vonk
