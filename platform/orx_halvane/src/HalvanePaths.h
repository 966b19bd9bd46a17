#pragma once

#include "orx_halvane_export.h"

#include <Result.h>

#include <QString>

namespace orx {

//! Where the client keeps its own files. Environment variables win: HALVANE_CONFIG_DIR (settings, history,
//! journal, token) and HALVANE_CACHE_DIR; else the XDG directories of the user with "halvane" below them.
class ORX_HALVANE_EXPORT HalvanePaths {
public:
    static QString configDir();
    static QString cacheDir();
    static bool configDirIsOverridden();
    //! Creates \a dir with access for the owner only, when it is not there.
    static Error ensurePrivateDir(const QString& dir);
};

} // namespace orx
