#pragma once

#include "Result.h"

#include <QByteArray>
#include <QString>

namespace orx {

//! Durable replacement of small files: temporary sibling, fsync, rename, fsync of the directory. Thread: any.
class ORX_COMMON_STABLE_EXPORT AtomicFile {
public:
    //! Access of a written file to others than its owner.
    enum class Access { OwnerOnly, Default };

    //! Replaces \a path by \a content. After a failure no sibling is left and the old file is untouched,
    //! unless only the directory could not be flushed: then the new file is there, but may not survive a
    //! power cut.
    static Error write(const QString& path, const QByteArray& content, Access access = Access::Default);
    //! The whole file; at most \a limit bytes, more is an error. A missing file is ErrorCode::NotFound.
    static Result<QByteArray> read(const QString& path, qint64 limit = 64 * 1024 * 1024);
    //! Flushes the directory entry table of \a directory to the disk.
    static Error syncDirectory(const QString& directory);
};

} // namespace orx
