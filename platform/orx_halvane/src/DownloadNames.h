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
    //! The same for a name that came with a listing rather than from a person: refuses control characters
    //! too, characters that a file name here cannot hold, and what ends with spaces or dots (or is nothing
    //! else), since on some file systems it would be another name.
    static Error checkListed(const QString& name);
    //! \a name with its control characters as \xNN.
    static QString printable(const QString& name);
    //! \a base, cut between characters where necessary, with \a end: at most maxBytes long, unless \a end
    //! alone is longer.
    static QString shortened(const QString& base, const QString& end);
    //! A file's \a name with \a mark before its last extension: "run.d" and " (file 12)" give
    //! "run (file 12).d".
    static QString marked(const QString& name, const QString& mark);
    //! The hidden sibling that holds what has arrived so far: `.NAME.halvane-part-ID-VERSION`. Of a name too
    //! long for that only the beginning is in it, with a checksum of the whole.
    static QString partialName(const QString& name, int fileId, int version);
    //! The same for a packed acquisition that has arrived, and for what it was unpacked to, before that takes
    //! the name: `.NAME.halvane-packed-ID-VERSION` and `.NAME.halvane-unpacked-ID-VERSION`.
    static QString packedName(const QString& name, int fileId, int version);
    static QString unpackedName(const QString& name, int fileId, int version);
};

} // namespace orx
