#include "FileStamp.h"

#include <sys/stat.h>

namespace orx {

namespace {

qint64 nanoseconds(const timespec& time) {
    return qint64(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

FileStamp::Type typeOf(mode_t mode) {
    if (S_ISREG(mode))
        return FileStamp::Type::File;
    return S_ISDIR(mode) ? FileStamp::Type::Directory : FileStamp::Type::Other;
}

} // namespace

FileStamp::FileStamp(const struct stat& status)
    : device(status.st_dev)
    , inode(status.st_ino)
    , size(status.st_size)
    , modified(nanoseconds(status.st_mtim))
    , changed(nanoseconds(status.st_ctim))
    , type(typeOf(status.st_mode)) {}

std::optional<FileStamp> FileStamp::of(const QByteArray& path) {
    struct stat status {};
    if (::stat(path.constData(), &status) != 0)
        return std::nullopt;
    return FileStamp(status);
}

} // namespace orx
