#include "FilePlace.h"

#include "AtomicFile.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

// Leaves room for the dot, the random part and the suffix within 255 bytes.
constexpr int longestStem = 200;
//! So many random names may be taken.
constexpr int attempts = 20;

bool isDirectory(int directory, const QByteArray& path) {
    struct stat info = {};
    return ::fstatat(directory, path.constData(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

QByteArray beside(const QByteArray& target, const char* prefix, const QByteArray& suffix) {
    const qsizetype slash = target.lastIndexOf('/');
    return target.left(slash + 1) + prefix + target.mid(slash + 1).left(longestStem) + '.' + suffix;
}

QByteArray random() {
    return QByteArray::number(QRandomGenerator::global()->generate64(), 36);
}

} // namespace

QByteArray FilePlace::temporaryBeside(const QByteArray& target) {
    return beside(target, ".", random() + ".part");
}

int FilePlace::makeBeside(const QByteArray& target, QByteArray& path,
                          const std::function<int(const QByteArray& path)>& make) {
    int reason = EEXIST;
    for (int attempt = 0; attempt < attempts && reason == EEXIST; ++attempt) {
        const QByteArray name = temporaryBeside(target);
        reason = make(name);
        if (reason == 0)
            path = name;
    }
    return reason;
}

int FilePlace::makeDirectoryBeside(const QByteArray& target, QByteArray& path, mode_t mode) {
    return makeBeside(target, path, [mode](const QByteArray& name) {
        return ::mkdir(name.constData(), mode) == 0 ? 0 : errno;
    });
}

void FilePlace::removeTree(const QByteArray& directory) {
    ::chmod(directory.constData(), 0700);
    if (const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(directory.constData()), &::closedir);
        listing) {
        while (const dirent* const entry = ::readdir(listing.get())) {
            const QByteArray name(entry->d_name);
            const QByteArray path = directory + '/' + name;
            struct stat info = {};
            if (name == "." || name == ".." || ::lstat(path.constData(), &info) != 0)
                continue;
            if (S_ISDIR(info.st_mode))
                removeTree(path);
            else
                ::unlink(path.constData());
        }
    }
    ::rmdir(directory.constData());
}

QByteArray FilePlace::asideOf(const QByteArray& target) {
    return beside(target, "", random() + ".old");
}

int FilePlace::take(const QByteArray& temporary, const QByteArray& target) {
    return takeIn(AT_FDCWD, temporary, target);
}

int FilePlace::takeIn(int directory, const QByteArray& temporary, const QByteArray& target) {
    if (::renameat2(directory, temporary.constData(), directory, target.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    // Network file systems may not have that.
    if (!isUnknown(errno))
        return errno;
    return takeByLink(directory, temporary, target);
}

int FilePlace::takeByLink(int directory, const QByteArray& temporary, const QByteArray& target) {
    // A link takes no name that is taken; a directory takes the place of nothing but an empty one.
    if (isDirectory(directory, temporary))
        return ::renameat(directory, temporary.constData(), directory, target.constData()) == 0 ? 0 : errno;
    if (::linkat(directory, temporary.constData(), directory, target.constData(), 0) != 0)
        return errno;
    ::unlinkat(directory, temporary.constData(), 0);
    return 0;
}

int FilePlace::exchange(const QByteArray& one, const QByteArray& other) {
    const bool done =
        ::renameat2(AT_FDCWD, one.constData(), AT_FDCWD, other.constData(), RENAME_EXCHANGE) == 0;
    return done ? 0 : errno;
}

bool FilePlace::isUnknown(int reason) {
    return reason == EINVAL || reason == ENOSYS || reason == ENOTSUP;
}

int FilePlace::flushName(const QByteArray& path) {
    const Error error = AtomicFile::syncDirectory(QFileInfo(QFile::decodeName(path)).path());
    if (!error.hasError() || error.code() != EACCES)
        return error.hasError() ? error.code() : 0;
    // A directory that may be written and not read cannot be opened; its whole file system can be flushed.
    const int descriptor = ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int reason = descriptor >= 0 && ::syncfs(descriptor) == 0 ? 0 : errno;
    if (descriptor >= 0)
        ::close(descriptor);
    return reason;
}

} // namespace orx
