#pragma once

#include "orx_common_stable_export.h"

#include "FileCopy.h"

namespace orx {

//! Brings what one directory holds into another one in one step: whenever the process or the machine ends,
//! the target is what it was, or all of the new one.
//!
//! Made beside the target and flushed is a directory of everything that the source holds and of what else the
//! target holds, at every depth; the two are exchanged by one rename, and the old one is removed. What stays
//! is no copy but the same file (a hard link; a copy where there can be none). The new directories have the
//! group, access rights and attributes of those that they take the place of, from the beginning, so that what
//! comes inherits them; who replaces the directories of somebody else owns the new ones. What comes to the
//! target while its successor is made is never lost: the merge is given up, or a warning tells where it is.
//! Killed, a hidden directory stays beside the target (FilePlace::temporaryBeside()): what was made, or what
//! is left of the old one. Nothing removes it, since it may hold what came just then.
//!
//! A file system that cannot exchange names gets two renames: for a moment the old directory is called
//! `NAME.RANDOM.old`, and keeps that name when the process is killed just then; nothing is at the target
//! then. Blocks on the disk; thread: any.
class ORX_COMMON_STABLE_EXPORT DirectoryMerge {
public:
    struct Options {
        //! Which entries of the source, given by their paths, come; none: all.
        FileCopy::Filter filter;
        //! A file takes the place of one only when its modification time is later.
        bool onlyNewer = false;
        //! The source is on the same file system and will be removed: its files are linked, not copied. They
        //! are flushed already.
        bool mayLinkSource = false;
    };

    //! Errors are those of FileCopy; ErrorCode::AlreadyExists, too, when a file would take the place of a
    //! directory or the other way round; FileNotWritable for a protected directory, for one of a group that
    //! this user is not in, for a file of somebody else that cannot be linked and, before anything is copied,
    //! for a directory that is a mount point or holds one; FileChanged when somebody else works in the target
    //! meanwhile. After all of them the target is what it was, unless the message says otherwise and where
    //! the old one is (the names could not be flushed, or the second of two renames failed and could not be
    //! undone). A warning tells where the old one is when it could not be removed.
    static Error run(const QString& source, const QString& target, const Options& options);
};

} // namespace orx
