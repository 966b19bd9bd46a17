#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <QByteArray>
#include <QString>

#include <functional>

namespace orx {

//! Copies files and directories so that the copy appears whole or not at all, and is durable when the call
//! returns: made beside the target under a hidden name, flushed, renamed, and the directory flushed. By
//! reflink where the file system has it. Contents and modification times are kept; access is what a new file
//! gets, with the source's execute bits. Blocks on the disk; thread: any.
//!
//! Errors name the path: ErrorCode::NotFound, FileNotReadable (also for what is neither a file nor a
//! directory, symbolic links among them: they are never followed), FileNotWritable, FileChanged (the source
//! changed while it was copied), AlreadyExists, else the system's (ENOSPC, EDQUOT). After an error the target
//! is what it was and nothing is left beside it.
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

    //! One regular file. ErrorCode::Canceled when \a isCanceled (none: never) said so.
    static Error file(const QString& source, const QString& target, IfExists ifExists,
                      const IsCanceled& isCanceled = {});
    //! A directory with everything in it that \a filter (none: all) accepts, to a path where nothing is.
    static Error directory(const QString& source, const QString& target, const Filter& filter = {});
};

} // namespace orx
