#include "FileStamp.h"

#include <limits>
#include <sys/stat.h>

namespace orx {

namespace {

qint64 nanoseconds(const timespec& time) {
    // Times from the year 2262 on, which some file systems keep, are all the same.
    qint64 whole = 0;
    const bool isTooLate = __builtin_mul_overflow(qint64(time.tv_sec), 1'000'000'000, &whole) ||
                           __builtin_add_overflow(whole, qint64(time.tv_nsec), &whole);
    return isTooLate ? std::numeric_limits<qint64>::max() : whole;
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
