#pragma once

#include "orx_common_ms_reader_export.h"

#include "VonkMetadata.h"

#include <Error.h>

#include <QList>
#include <QString>

namespace orx::vonk {

//! What all paths of a payload begin with.
ORX_COMMON_MS_READER_EXPORT QString contentPrefix();

//! Whether \a path is one that a packed acquisition may hold: see docs/packed-acquisition.md.
//! ErrorCode::InvalidArgument says what is wrong with it.
ORX_COMMON_MS_READER_EXPORT Error checkEntryPath(const QString& path);

//! Whether all the paths may be there together: each of them valid, none twice (letter case and normal forms
//! made equal), none below a file. There must be at least one.
ORX_COMMON_MS_READER_EXPORT Error checkEntryPaths(const QList<VonkEntry>& entries);

//! The order of entries: by bytes, with "/" before everything else, so that a directory is followed by what
//! is in it.
ORX_COMMON_MS_READER_EXPORT bool entryComesBefore(const VonkEntry& first, const VonkEntry& second);

} // namespace orx::vonk
