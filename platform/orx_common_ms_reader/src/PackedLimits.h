#pragma once

#include <QtGlobal>

namespace orx::vonk {

//! The most bytes of content in one chunk.
constexpr qint64 chunkSize = qint64(1) << 20;
//! The most chunks of a packed file; their table is held in memory.
constexpr qint64 mostChunks = qint64(1) << 22;
//! The most bytes of all files together.
constexpr qint64 largestPayload = mostChunks * chunkSize;
//! The most bytes of JSON; as much as the server takes as the trace of an acquisition.
constexpr qint64 largestManifest = 16'000'000;

} // namespace orx::vonk
