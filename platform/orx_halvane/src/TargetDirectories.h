#pragma once

#include "orx_halvane_export.h"

#include <Error.h>

#include <QSet>
#include <QString>

namespace orx {

//! Directories that a download makes. Blocks on the disk; thread: any.
class ORX_HALVANE_EXPORT TargetDirectories {
public:
    //! Makes \a path and what is missing above it. Links on the way are the user's own and followed.
    static Error makeTarget(const QString& path);
    //! Makes \a path, whose parent exists, and flushes the parent's entry of it. A directory that is there is
    //! used as it is; anything else there, links included, is ErrorCode::AlreadyExists.
    static Error makeInside(const QString& path);
    //! Paths below a target.
    struct Kept {
        //! What is not kept is removed from them.
        QSet<QString> directories;
        //! Files, and what stands for a file: a directory that it was unpacked to stays with all it holds.
        QSet<QString> files;
    };
    //! Removes what lies anywhere in the directory \a directory of \a target and is not in \a kept. Links are
    //! removed, not followed.
    static Error removeOthers(const QString& target, const QString& directory, const Kept& kept);
};

} // namespace orx
