#pragma once

#include "halvane_host_export.h"

#include <FileUtils.h>
#include <ReplaceGuard.h>

namespace halvane::host {

//! Entries of a directory that go into another one, each whole or not at all, and durable.
struct HALVANE_HOST_EXPORT ContentPlacing {
    QString contentDir;
    QString targetDir;
    //! Those that go, with the names that they get.
    QList<orx::FileUtils::CustomName> names;
    //! Files are replaced, and directories joined, each in one step (see DirectoryMerge); else
    //! ErrorCode::AlreadyExists when one is there.
    bool overwrites = false;
    //! With overwrites: asked of each file that is about to be replaced; false: ErrorCode::FileChanged. None:
    //! it may. What changes of a directory while its successor is made keeps it from being replaced anyway.
    orx::ReplaceGuard::MayReplace mayReplace = {};
    //! The content is on the file system of the target, flushed, and needed no more: it may be moved, which
    //! takes no room.
    bool mayMove = false;

    //! Nothing is changed when a name is taken; entries that were placed before another error stay. Blocks on
    //! the disk; thread: any.
    orx::Error run() const;

private:
    orx::Error move() const;
    orx::Error moveOne(const QString& source, const QString& target) const;
};

} // namespace halvane::host
