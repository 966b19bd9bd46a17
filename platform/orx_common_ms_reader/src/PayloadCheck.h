#pragma once

#include "PackedIndex.h"
#include "WorkWatch.h"

namespace orx::vonk {

//! Checks every byte of the payload as ChunkReading does, for who does not want the content: each thread
//! reads files of its own, so that none waits for another. The index must have passed checkIndex(). Of
//! several errors always the same one.
Error checkPayload(const PackedFile& file, const PackedIndex& index, const WorkWatch& watch);

} // namespace orx::vonk
