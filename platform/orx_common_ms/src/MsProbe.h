#pragma once

#include "FileStamp.h"
#include "orx_common_ms_export.h"

#include <MsDataCheck.h>

#include <optional>
#include <vector>

namespace orx {

//! What looking at a path found, and what that rests on.
struct MsProbe {
    //! A path that was looked at besides the one that was asked for: a companion, an inner file, a directory.
    struct Witness {
        QByteArray path;
        std::optional<FileStamp> stamp; //!< absent: nothing was there
    };

    MsDataCheck check;
    //! Whether the name or the place of the file counted, so that another link to the same file may differ.
    bool dependsOnPath = false;
    std::vector<Witness> witnesses;
};

//! Looks at \a path, an absolute one, whose stamp is \a stamp. Thread: any.
ORX_COMMON_MS_EXPORT MsProbe probeMsData(const QByteArray& path, const FileStamp& stamp);

} // namespace orx
