#pragma once

#include "orx_common_stable_export.h"

#include "Result.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

namespace orx {

//! Copies files and directories so that the copy appears whole or not at all, and is durable when the call
//! returns: made without a name (NewFile; directories under a hidden one beside the target), flushed, put in
//! its place, and the directory flushed. By reflink where the file system has it. Contents and modification
//! times are kept; access is what a new file gets, with the source's execute bits. Blocks on the disk;
//! thread: any. See DirectoryFlushes and ReplaceGuard, too.
//!
//! Errors name the path: ErrorCode::NotFound, FileNotReadable (also for what is neither a file nor a
//! directory, symbolic links among them: they are never followed), FileNotWritable, FileChanged (the source
//! changed while it was copied, or the target, as a ReplaceGuard says), AlreadyExists, else the system's
//! (ENOSPC, EDQUOT). After an error the target is what it was and nothing is left beside it,
//! unless only the directory could not be flushed: then the copy is there, but may not survive a power cut.
class ORX_COMMON_STABLE_EXPORT FileCopy {
public:
    enum class IfExists {
        Fail,   //!< ErrorCode::AlreadyExists
        Replace //!< a file takes the place of a file in one step; never of a directory
    };
    //! Whether an entry of a directory, given by its path, is copied.
    using Filter = std::function<bool(const QString& path)>;

    //! Whether to give up; asked often, while the copy is made.
    using IsCanceled = std::function<bool()>;

    //! Tells a file that was looked at from another one and from what became of it since: whatever writes to
    //! it, also one who sets its times back, changes the stamp.
    struct Stamp {
        quint64 device = 0;
        quint64 inode = 0;
        qint64 size = 0;
        qint64 modifiedNs = 0;
        qint64 changedNs = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    static Result<Stamp> stampOf(const QString& path);

    //! One regular file. ErrorCode::Canceled when \a isCanceled (none: never) said so. With \a expected the
    //! file must have had that stamp all the time, else ErrorCode::FileChanged.
    static Error file(const QString& source, const QString& target, IfExists ifExists,
                      const IsCanceled& isCanceled = {}, const std::optional<Stamp>& expected = {});
    //! A directory with everything in it that \a filter (none: all) accepts, to a path where nothing is.
    static Error directory(const QString& source, const QString& target, const Filter& filter = {});
    //! Of a new file, until its maker says otherwise.
    enum class Access { Default, OwnerOnly };
    //! One regular file to a path where nothing is, for who makes a directory that gets its name later: the
    //! content is written there at once and flushed, its name is not. Errors name the target \a shown. Paths
    //! are bytes and absolute.
    static Error content(const QByteArray& source, const QByteArray& target, const QByteArray& shown,
                         Access access = Access::Default);
};

} // namespace orx
