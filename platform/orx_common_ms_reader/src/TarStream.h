#pragma once

#include "orx_common_ms_reader_export.h"

#include "VonkMetadata.h"

#include <QByteArray>

namespace orx::vonk {

//! Zero bytes after a file of \a size bytes, up to the next block of 512.
ORX_COMMON_MS_READER_EXPORT qint64 tarPadding(qint64 size);
//! The blocks that come before the data of \a entry: a pax header where one is needed, and the tar header.
//! The same entry gives the same bytes.
ORX_COMMON_MS_READER_EXPORT QByteArray tarHeader(const VonkEntry& entry);
//! What the head chunk of \a entry holds when the entry before has \a sizeBefore bytes (0 for the first).
ORX_COMMON_MS_READER_EXPORT QByteArray tarHead(const VonkEntry& entry, qint64 sizeBefore);
//! What the end chunk holds when the last entry has \a sizeBefore bytes.
ORX_COMMON_MS_READER_EXPORT QByteArray tarEnd(qint64 sizeBefore);

} // namespace orx::vonk
