#include "CacheFiles.h"

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

CacheDescriptor::~CacheDescriptor() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

namespace CacheFiles {

namespace {

constexpr qint64 kNsPerSecond = 1'000'000'000;
constexpr mode_t kOwnerOnly = 0700;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

Error leadsElsewhere(const QString& shown) {
    return Error(ErrorCode::InvalidArgument,
                 translated("\"%1\" in the cache is a link or not what it should be, and is not followed. "
                            "Remove it and try again.")
                     .arg(shown));
}

QString below(const QString& shown, const QByteArray& name) {
    return shown + u'/' + QFile::decodeName(name);
}

} // namespace

Error systemError(const char* what, const QString& shown) {
    const int number = errno;
    QString message = translated(what).arg(shown);
    if (number == ENOSPC || number == EDQUOT)
        message += translated(" (free some space there, or prune the cache, and try again)");
    return Error::fromErrno(number, message);
}

qint64 modifiedNs(const struct stat& status) {
    return status.st_mtim.tv_sec * kNsPerSecond + status.st_mtim.tv_nsec;
}

Error setModified(int file, qint64 modifiedNs, const QString& shown) {
    qint64 seconds = modifiedNs / kNsPerSecond;
    qint64 rest = modifiedNs % kNsPerSecond;
    if (rest < 0) {
        rest += kNsPerSecond;
        --seconds;
    }
    const struct timespec times[2] = {{0, UTIME_OMIT}, {seconds, rest}};
    return ::futimens(file, times) == 0 ? Error() : systemError("Could not set the time of \"%1\"", shown);
}

Result<CacheDescriptor> openDirectory(int parent, const QByteArray& name, const QString& shown) {
    CacheDescriptor directory(
        ::openat(parent, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory.isOpen())
        return directory;
    if (errno == ELOOP || errno == ENOTDIR)
        return leadsElsewhere(shown);
    if (errno == ENOENT)
        return Error(ErrorCode::NotFound, translated("\"%1\" is not in the cache.").arg(shown));
    return systemError("Could not open the directory \"%1\"", shown);
}

Result<CacheDescriptor> ensureDirectory(int parent, const QByteArray& name, const QString& shown) {
    auto directory = openDirectory(parent, name, shown);
    if (directory || !directory.error().is(ErrorCode::NotFound))
        return directory;
    if (::mkdirat(parent, name.constData(), kOwnerOnly) != 0 && errno != EEXIST)
        return systemError("Could not create the directory \"%1\"", shown);
    return openDirectory(parent, name, shown);
}

namespace {

using Step = Result<CacheDescriptor> (*)(int, const QByteArray&, const QString&);

Result<CacheDescriptor> walk(int top, const QByteArrayList& components, const QString& shown, Step step) {
    CacheDescriptor current(components.isEmpty() ? ::fcntl(top, F_DUPFD_CLOEXEC, 0) : -1);
    if (components.isEmpty() && !current.isOpen())
        return systemError("Could not open the directory \"%1\"", shown);
    for (const QByteArray& component : components) {
        auto next = step(current.isOpen() ? current.get() : top, component, shown);
        if (next.hasError())
            return next;
        current = std::move(*next);
    }
    return current;
}

} // namespace

Result<CacheDescriptor> openDirectories(int top, const QByteArrayList& components, const QString& shown) {
    return walk(top, components, shown, &openDirectory);
}

Result<CacheDescriptor> ensureDirectories(int top, const QByteArrayList& components, const QString& shown) {
    return walk(top, components, shown, &ensureDirectory);
}

Result<CacheDescriptor> openFile(int parent, const QByteArray& name, const QString& shown) {
    // Not to wait for the other end of a pipe.
    CacheDescriptor file(::openat(parent, name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() && errno == ELOOP)
        return leadsElsewhere(shown);
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
        return systemError("Could not open the file \"%1\"", shown);
    if (!S_ISREG(status.st_mode))
        return leadsElsewhere(shown);
    return file;
}

Error flush(int descriptor, const QString& shown) {
    // Some file systems have nothing to flush for a directory and say so.
    if (::fsync(descriptor) != 0 && errno != EINVAL && errno != ENOTSUP)
        return systemError("Could not flush \"%1\"", shown);
    return Error();
}

Error forEachName(int directory, const QString& shown, const std::function<Error(const QByteArray&)>& visit) {
    // An open of its own: duplicates share one position.
    const int own = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(own < 0 ? nullptr : ::fdopendir(own), &::closedir);
    if (!stream)
        return systemError("Could not list the directory \"%1\"", shown);
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get());
        if (entry == nullptr)
            return errno == 0 ? Error() : systemError("Could not list the directory \"%1\"", shown);
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            ORX_RETURN_ON_ERROR(visit(name));
    }
}

Error removeTree(int parent, const QByteArray& name, const QString& shown) {
    if (::unlinkat(parent, name.constData(), 0) == 0 || errno == ENOENT)
        return Error();
    if (errno != EISDIR && errno != EPERM)
        return systemError("Could not remove \"%1\"", shown);
    {
        const auto directory = openDirectory(parent, name, shown);
        if (directory.hasError())
            return directory.error().is(ErrorCode::NotFound) ? Error() : directory.error();
        ORX_RETURN_ON_ERROR(forEachName(directory->get(), shown, [&](const QByteArray& child) {
            return removeTree(directory->get(), child, below(shown, child));
        }));
    }
    if (::unlinkat(parent, name.constData(), AT_REMOVEDIR) != 0 && errno != ENOENT)
        return systemError("Could not remove \"%1\"", shown);
    return Error();
}

} // namespace CacheFiles

} // namespace orx
