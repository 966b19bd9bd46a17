#pragma once

#include "orx_halvane_export.h"

#include <Error.h>

namespace orx {

//! Names of a downloaded file in its directory. Pure.
class ORX_HALVANE_EXPORT DownloadNames {
public:
    //! What file systems here hold in one name, in bytes.
    static constexpr int maxBytes = 255;

    //! ErrorCode::InvalidArgument, naming it, unless \a name is one path component: not empty, not "." or
    //! "..", without "/" and NUL, at most maxBytes long. Every other name is taken as it is.
    static Error check(const QString& name);
    //! The hidden sibling that holds what has arrived so far: `.NAME.halvane-part-ID-VERSION`. Of a name too
    //! long for that only the beginning is in it, with a checksum of the whole.
    static QString partialName(const QString& name, int fileId, int version);
};

} // namespace orx
