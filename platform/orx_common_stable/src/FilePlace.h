#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <QByteArray>

#include <functional>
#include <sys/types.h>

namespace orx {

//! How something that was made beside its place takes it, so that it appears whole or not at all. Paths are
//! bytes, since names need not be valid text. Thread: any.
class ORX_COMMON_STABLE_EXPORT FilePlace {
public:
    //! A name beside \a target that nobody uses; hidden, so that listings made meanwhile do not take it for
    //! data.
    static QByteArray temporaryBeside(const QByteArray& target);
    //! Has \a make make something of such a name, which \a path is then, unless it fails; it returns zero or
    //! an errno, and must not take a name that is taken (EEXIST).
    static int makeBeside(const QByteArray& target, QByteArray& path,
                          const std::function<int(const QByteArray& path)>& make);
    //! The same for an empty directory.
    static int makeDirectoryBeside(const QByteArray& target, QByteArray& path, mode_t mode);
    //! Removes a directory that this process made, with everything in it, also what is protected against its
    //! owner; as far as possible.
    static void removeTree(const QByteArray& directory);
    //! Renames the file or directory \a temporary to \a target, where nothing must be, in one step. Zero, or
    //! what was wrong: EEXIST, ENOTEMPTY or another errno.
    static int take(const QByteArray& temporary, const QByteArray& target);
    //! The same for names in the open directory \a directory.
    static int takeIn(int directory, const QByteArray& temporary, const QByteArray& target);
    //! What takeIn() does on file systems that cannot rename without replacing: a file is at both names for a
    //! moment (and stays so when the process is killed in it), an empty directory is no obstacle to a
    //! directory.
    static int takeByLink(int directory, const QByteArray& temporary, const QByteArray& target);
    //! Exchanges what two paths name, files or directories, in one step. Zero or an errno, of which
    //! isUnknown() tells those of a file system that cannot do that.
    static int exchange(const QByteArray& one, const QByteArray& other);
    static bool isUnknown(int reason);
    //! Makes the name durable under which \a path is, a file or directory. Zero or an errno.
    static int flushName(const QByteArray& path);
    //! A name beside \a target that nobody uses, for what has to make room where nothing can be exchanged. It
    //! shows, since nobody looks for it: `NAME.RANDOM.old`.
    static QByteArray asideOf(const QByteArray& target);
};

} // namespace orx
