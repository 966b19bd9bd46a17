#pragma once

#include "ChunkPipeline.h"
#include "PackedIndex.h"
#include "PayloadPart.h"
#include "WorkWatch.h"

#include <ContentHash.h>

namespace orx::vonk {

//! Reads the payload, or a part of it, and checks every byte of it: the digests and sizes of the frames, the
//! tar headers, the digests of the files. The index must have passed checkIndex().
class ChunkReading {
public:
    ChunkReading(const PackedFile& file, const PackedIndex& index, const WorkWatch& watch);
    ChunkReading(const PackedFile& file, const PackedIndex& index, const PayloadPart& part,
                 const WorkWatch& watch);

    //! Hands each chunk to \a use, in order, on this thread, when it was found right; the last one of a file
    //! only when the whole file was. ErrorCode::ChecksumMismatch for what is not right, or the error of \a
    //! use.
    Error run(const ChunkPipeline::Step& use);
    //! The same on this thread alone, without telling of any progress.
    Error runAlone(const ChunkPipeline::Step& use);

private:
    Result<bool> produce(ChunkSlot& slot);
    Error checkInOrder(const ChunkSlot& slot);
    Error checkData(const ChunkSlot& slot);
    Error damaged(qsizetype entry) const;

    const PackedFile& m_file;
    const PackedIndex& m_index;
    const WorkWatch& m_watch;
    ChunkCursor m_cursor;
    size_t m_next;
    const size_t m_end;
    qint64 m_position;
    ContentHash m_hash;
};

} // namespace orx::vonk
