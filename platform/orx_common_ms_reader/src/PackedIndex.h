#pragma once

#include "PackedFile.h"
#include "VonkMetadata.h"

#include <vector>

namespace orx::vonk {

//! One row of the chunk table.
struct ChunkRow {
    quint32 frameSize = 0;
    quint32 contentSize = 0;
    //! XXH3-64 of the frame; 0 in format 1, which has none.
    quint64 digest = 0;
};

//! Where everything of a packed file lies.
struct PackedIndex {
    VonkMetadata metadata;
    std::vector<ChunkRow> chunks;
    qint64 payloadOffset = 0;
    qint64 payloadEnd = 0;
    bool hasDigests = true;
};

//! What a file of the current format begins with.
QByteArray packedHeader();
//! What follows the payload, which ends at \a payloadEnd: manifest, chunk table and footer.
//! ErrorCode::InvalidArgument when the acquisition has too many files or chunks for the format.
Result<QByteArray> packedTail(const VonkMetadata& metadata, const std::vector<ChunkRow>& chunks,
                              qint64 payloadEnd);

//! Reads where everything lies, of any version that can be read; checks sizes and digests of all but the
//! payload. ErrorCode::ParseError for what is no packed file, was cut, or has a newer format;
//! ChecksumMismatch for a damaged one.
Result<PackedIndex> readIndex(const PackedFile& file);

//! The rest of the quick check: the paths, and that chunks and entries fit each other and the file exactly.
Error checkIndex(const PackedIndex& index);

} // namespace orx::vonk
