#pragma once

#include "CacheFiles.h"

#include <PathImpl.h>

#include <vector>

namespace orx {

//! What one entry consists of, as its record tells it and as the disk shows it. A value.
struct CachePayload {
    //! Of a directory's content; in the order of the paths.
    struct Item {
        //! Below the directory.
        QByteArray path;
        PathType type = PathType::Unknown;
        qint64 bytes = 0;
        //! 0 for directories, whose times are not kept.
        qint64 modifiedNs = 0;
        //! Hexadecimal SHA-256 of a file; empty when it was not taken.
        QByteArray sha256;
    };

    PathType type = PathType::Unknown;
    qint64 bytes = 0;
    qint64 files = 0;
    //! Of a file, like the digest.
    qint64 modifiedNs = 0;
    QByteArray sha256;
    //! Of a directory.
    std::vector<Item> items;

    enum class Depth {
        Top,       //!< without what is in a directory: costs the same whatever there is
        Everything //!< each file and directory is looked at
    };
    //! What lies at \a name in \a parent, by sizes and times. ErrorCode::NotFound when there is nothing,
    //! ErrorCode::InvalidArgument when there are links or special files.
    static Result<CachePayload> look(int parent, const QByteArray& name, const QString& shown,
                                     Depth depth = Depth::Everything);
    //! What is in an open directory. ErrorCode::Canceled when \a cancel became true.
    static Result<CachePayload> lookInto(int directory, const QString& shown,
                                         const CacheFiles::CancelFlag* cancel = nullptr);
    //! Takes the digests of all files by reading them. ErrorCode::FileChanged when the disk shows another
    //! content than look() saw, ErrorCode::Canceled when \a cancel became true. \a onBytes, when there is
    //! one, is told of every block that was read; false cancels.
    Error hash(int parent, const QByteArray& name, const QString& shown, const CacheFiles::CancelFlag* cancel,
               const std::function<bool(qint64)>& onBytes = {});
    //! Flushes every file and directory of it to the disk.
    Error flush(int parent, const QByteArray& name, const QString& shown) const;

    //! Why \a disk is not what this record tells, by sizes and times; empty when it is. Of a directory both
    //! hold the items, or neither does.
    QString differenceFrom(const CachePayload& disk) const;
};

} // namespace orx
