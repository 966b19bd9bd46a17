#pragma once

#include "orx_common_ms_reader_export.h"

#include "PackedBuffer.h"

#include <Error.h>

#include <QByteArray>

#include <memory>
#include <span>

namespace orx::vonk {

//! XXH3 with seed 0 of 64 bits.
ORX_COMMON_MS_READER_EXPORT quint64 digest64(std::span<const char> bytes);
//! XXH3 with seed 0 of 128 bits: 16 bytes in canonical order.
ORX_COMMON_MS_READER_EXPORT QByteArray digest128(std::span<const char> bytes);

//! The most bytes that the frame of a content of \a contentSize bytes may have.
ORX_COMMON_MS_READER_EXPORT qint64 largestFrame(qint64 contentSize);

//! Makes zstd frames: one content, one frame. Thread: one at a time.
class ORX_COMMON_MS_READER_EXPORT FrameCompressor {
public:
    FrameCompressor();
    ~FrameCompressor();

    //! Replaces \a frame by the frame of \a content, which has at most chunkSize bytes: compressed, or stored
    //! when compression does not save 3 %.
    Error compress(std::span<const char> content, PackedBuffer& frame);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

//! Takes zstd frames apart. Thread: one at a time.
class ORX_COMMON_MS_READER_EXPORT FrameDecompressor {
public:
    FrameDecompressor();
    ~FrameDecompressor();

    //! Replaces \a content by that of \a frame, which must be exactly one zstd frame that says itself that it
    //! has \a contentSize bytes, without a dictionary. ErrorCode::ChecksumMismatch when it is not, or is
    //! damaged; never writes more than that many bytes.
    Error decompress(std::span<const char> frame, qint64 contentSize, PackedBuffer& content);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx::vonk
