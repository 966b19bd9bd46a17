#include "FileStamp.h"

#include <FileTime.h>

#include <sys/stat.h>

namespace orx {

namespace {

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
    , modified(nanosecondsOf(status.st_mtim))
    , changed(nanosecondsOf(status.st_ctim))
    , type(typeOf(status.st_mode)) {}

std::optional<FileStamp> FileStamp::of(const QByteArray& path) {
    struct stat status {};
    if (::stat(path.constData(), &status) != 0)
        return std::nullopt;
    return FileStamp(status);
}

} // namespace orx
