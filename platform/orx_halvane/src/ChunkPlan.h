#pragma once

#include "orx_halvane_export.h"

#include <Result.h>

#include <QtGlobal>

namespace orx {

//! How a content of a known size is cut into chunks: all but the last are of one length. Pure.
class ORX_HALVANE_EXPORT ChunkPlan {
public:
    //! The longest chunk that this client sends: buffers are as long as a chunk.
    static constexpr qint64 maxChunkSize = 64LL * 1024 * 1024;

    //! Bytes both. Fails with NetworkErrorCode::InvalidReply for a chunk size (the server's choice) outside
    //! of 1..maxChunkSize or one that makes more than 2^31-1 chunks.
    static Result<ChunkPlan> create(qint64 size, qint64 chunkSize);

    qint64 size() const { return m_size; }
    qint64 chunkSize() const { return m_chunkSize; }
    //! 0 for an empty content.
    int count() const { return m_count; }
    //! \a index: 0..count()-1.
    qint64 offset(int index) const { return index * m_chunkSize; }
    qint64 length(int index) const { return qMin(m_chunkSize, m_size - offset(index)); }
    bool isLast(int index) const { return index == m_count - 1; }

private:
    ChunkPlan(qint64 size, qint64 chunkSize, int count);
    qint64 m_size;
    qint64 m_chunkSize;
    int m_count;
};

} // namespace orx
