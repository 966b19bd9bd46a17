#pragma once

#include "orx_common_ms_export.h"

#include <QByteArray>
#include <QString>

#include <optional>

struct stat;

namespace orx {

//! What tells one state of a file or directory from another without reading it. Links are followed.
struct ORX_COMMON_MS_EXPORT FileStamp {
    enum class Type { File, Directory, Other };

    quint64 device = 0;
    quint64 inode = 0;
    qint64 size = 0;
    qint64 modified = 0; //!< nanoseconds since 1970
    qint64 changed = 0; //!< nanoseconds since 1970; moves with every change of content, owner, mode and links
    Type type = Type::Other;

    explicit FileStamp(const struct stat& status);
    //! Of what \a path names; absent, with errno set, when there is nothing that can be looked at.
    static std::optional<FileStamp> of(const QByteArray& path);

    bool isFile() const { return type == Type::File; }
    bool isDirectory() const { return type == Type::Directory; }
    //! The later of both times.
    qint64 newest() const { return modified > changed ? modified : changed; }
    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

} // namespace orx
