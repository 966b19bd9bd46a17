#pragma once

#include "ChunkCursor.h"
#include "PackedIndex.h"

#include <vector>

namespace orx::vonk {

//! Chunks that follow each other, from the head of an entry up to that of another one or to the end.
struct PayloadPart {
    //! Before the first chunk.
    ChunkCursor cursor;
    qint64 position = 0;
    size_t firstChunk = 0;
    size_t endChunk = 0;
    //! What reading it costs: bytes of files, and some more for each entry.
    qint64 weight = 0;
    //! One file alone that is too large for a part with others.
    bool isLarge = false;
};

//! The whole payload. The index must outlive the part.
PayloadPart wholePayload(const PackedIndex& index);

//! Cuts the payload into parts of about \a weight, or of one file of more than \a largest bytes, which is at
//! least \a weight.
std::vector<PayloadPart> payloadParts(const PackedIndex& index, qint64 weight, qint64 largest);

} // namespace orx::vonk
