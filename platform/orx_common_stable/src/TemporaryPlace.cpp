#include "TemporaryPlace.h"

#include "FilePlace.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orx {

namespace {

//! So often something may come and go before a random name is taken.
constexpr int attempts = 20;

bool removeLeft(const QByteArray& path, const struct stat& info) {
    if (S_ISDIR(info.st_mode))
        TemporaryPlace::removeTree(path);
    else
        ::unlink(path.constData());
    return ::faccessat(AT_FDCWD, path.constData(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
}

} // namespace

TemporaryPlace::~TemporaryPlace() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

int TemporaryPlace::makeFile(const QByteArray& target, mode_t mode) {
    return make(Kind::File, target, mode);
}

int TemporaryPlace::makeDirectory(const QByteArray& target, mode_t mode) {
    return make(Kind::Directory, target, mode);
}

int TemporaryPlace::make(Kind kind, const QByteArray& target, mode_t mode) {
    m_path = FilePlace::copyBeside(target);
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (const int failure = tryToMake(kind, mode); failure == 0) {
            const Lock lock = takeLock();
            if (lock == Lock::Taken)
                return 0;
            drop(kind, lock == Lock::Impossible);
            if (lock == Lock::Impossible)
                break;
        } else if (failure != EEXIST) {
            return failure;
        } else if (!removeAbandoned(target)) {
            break;
        }
    }
    m_path = FilePlace::temporaryBeside(target);
    return tryToMake(kind, mode);
}

void TemporaryPlace::drop(Kind kind, bool isRemoved) {
    ::close(std::exchange(m_descriptor, -1));
    if (!isRemoved)
        return;
    if (kind == Kind::Directory)
        ::rmdir(m_path.constData());
    else
        ::unlink(m_path.constData());
}

int TemporaryPlace::tryToMake(Kind kind, mode_t mode) {
    if (kind == Kind::Directory && ::mkdir(m_path.constData(), mode) != 0)
        return errno;
    const int flags =
        kind == Kind::Directory ? O_RDONLY | O_DIRECTORY | O_NOFOLLOW : O_WRONLY | O_CREAT | O_EXCL;
    m_descriptor = ::open(m_path.constData(), flags | O_CLOEXEC, mode);
    return m_descriptor >= 0 ? 0 : errno;
}

// Somebody may take it for abandoned before it is locked.
TemporaryPlace::Lock TemporaryPlace::takeLock() const {
    if (::flock(m_descriptor, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? Lock::Lost : Lock::Impossible;
    struct stat info = {};
    return ::fstat(m_descriptor, &info) == 0 && info.st_nlink > 0 ? Lock::Taken : Lock::Lost;
}

bool TemporaryPlace::removeAbandoned(const QByteArray& target) {
    const QByteArray path = FilePlace::copyBeside(target);
    const int descriptor = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return errno == ENOENT;
    struct stat opened = {};
    struct stat named = {};
    bool isGone = false;
    // With the lock, who made it is dead or has renamed it.
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0 && ::fstat(descriptor, &opened) == 0) {
        if (::lstat(path.constData(), &named) != 0)
            isGone = errno == ENOENT;
        else
            isGone =
                named.st_ino != opened.st_ino || named.st_dev != opened.st_dev || removeLeft(path, opened);
    }
    ::close(descriptor);
    return isGone;
}

void TemporaryPlace::removeTree(const QByteArray& directory) {
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

} // namespace orx
