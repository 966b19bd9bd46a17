#include "PartialFile.h"

#include <FilePlace.h>

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace orx {
namespace {

// The system begins to write back after so many bytes, so that the flush at the end is short.
constexpr qint64 writeBackStep = 16 * 1024 * 1024;
constexpr qint64 hashPiece = 256 * 1024;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::PartialFile", text);
}

QByteArray encoded(const QString& name) {
    return QFile::encodeName(name);
}

} // namespace

PartialFile::PartialFile(const Location& location) : m_location(location) {}

PartialFile::~PartialFile() {
    if (m_file.isOpen() && m_size == 0 && !m_published)
        ::unlinkat(m_directory, encoded(m_location.partialName).constData(), 0);
    m_file.close();
    if (m_directory >= 0)
        ::close(m_directory);
}

QString PartialFile::targetPath() const {
    return m_location.directory + u'/' + m_location.targetName;
}

Error PartialFile::system(const char* text) const {
    return Error::fromErrno(errno, translated(text).arg(targetPath()));
}

Error PartialFile::noRoom(qint64 missing) const {
    return Error::fromErrno(
        ENOSPC, translated("There is no room for the file \"%1\". Free at least %2 bytes there and "
                           "start the download again; it goes on from where it stopped")
                    .arg(targetPath(), QString::number(missing)));
}

Error PartialFile::open() {
    ORX_RETURN_ON_ERROR(openDirectory());
    ORX_RETURN_ON_ERROR(checkTarget());
    ORX_RETURN_ON_ERROR(openPartial());
    struct stat status {};
    if (::fstat(m_file.descriptor(), &status) != 0)
        return system("Could not look at the partial file of \"%1\"");
    m_size = status.st_size;
    m_writtenBack = m_size;
    return Error();
}

Error PartialFile::openDirectory() {
    m_directory = ::open(encoded(m_location.directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_directory >= 0)
        return Error();
    if (errno == ENOENT)
        return Error(ErrorCode::NotFound,
                     translated("The directory \"%1\" does not exist. Create it, or choose another one.")
                         .arg(m_location.directory));
    return Error::fromErrno(errno,
                            translated("Could not open the directory \"%1\"").arg(m_location.directory));
}

Error PartialFile::checkTarget() const {
    struct stat status {};
    if (::fstatat(m_directory, encoded(m_location.targetName).constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Error() : system("Could not look at \"%1\"");
    if (S_ISDIR(status.st_mode))
        return Error(
            ErrorCode::AlreadyExists,
            translated("\"%1\" is a directory, which a file does not replace. Choose another name or place.")
                .arg(targetPath()));
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        return Error(ErrorCode::AlreadyExists,
                     translated("\"%1\" is a device or a pipe, which a file does not replace. Choose another "
                                "name or place.")
                         .arg(targetPath()));
    if (!m_location.overwrite)
        return Error(
            ErrorCode::AlreadyExists,
            translated("The file \"%1\" exists already. Choose another name or place, or allow it to be "
                       "replaced.")
                .arg(targetPath()));
    return Error();
}

Error PartialFile::openPartial() {
    const QByteArray name = encoded(m_location.partialName);
    while (true) {
        // A file system without locks still has the checksum to rely on.
        const int reason = m_file.open(m_directory, name, HeldFile::Missing::Make);
        if (reason == EWOULDBLOCK)
            return Error(
                ErrorCode::Busy,
                translated("The file \"%1\" is being downloaded already. Wait for that download, or stop it.")
                    .arg(targetPath()));
        errno = reason;
        if (reason != 0)
            return system("Could not create the partial file of \"%1\"");
        if (!isAlsoElsewhere())
            return Error();
        if (::unlinkat(m_directory, name.constData(), 0) != 0)
            return system("Could not remove an old partial file of \"%1\"");
        m_file.close();
    }
}

bool PartialFile::isAlsoElsewhere() const {
    struct stat opened {};
    return ::fstat(m_file.descriptor(), &opened) == 0 && opened.st_nlink > 1;
}

Result<bool> PartialFile::hashMore(qint64 bytes) {
    QByteArray piece(hashPiece, Qt::Uninitialized);
    const qint64 end = qMin(m_size, m_hashed + bytes);
    while (m_hashed < end) {
        const ssize_t count =
            ::pread(m_file.descriptor(), piece.data(), size_t(qMin(hashPiece, end - m_hashed)), m_hashed);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return system("Could not read the partial file of \"%1\"");
        if (count == 0) // somebody cut it; what is left is good
            m_size = m_hashed;
        m_hash.add(piece.constData(), count);
        m_hashed += count;
        if (count == 0)
            break;
    }
    return m_hashed == m_size;
}

Error PartialFile::checkRoom(qint64 totalSize) const {
    struct statvfs status {};
    if (::fstatvfs(m_directory, &status) != 0 || status.f_blocks == 0)
        return Error(); // unknown; a write will tell
    const qint64 available = qint64(status.f_bavail) * qint64(status.f_frsize);
    const qint64 needed = totalSize - m_size;
    return needed > available ? noRoom(needed - available) : Error();
}

Error PartialFile::startOver() {
    if (::ftruncate(m_file.descriptor(), 0) != 0)
        return system("Could not cut the partial file of \"%1\"");
    m_size = 0;
    m_hashed = 0;
    m_writtenBack = 0;
    m_hash.reset();
    return Error();
}

Error PartialFile::append(const QByteArray& data) {
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t count =
            ::pwrite(m_file.descriptor(), data.constData() + done, size_t(data.size() - done), m_size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && (errno == ENOSPC || errno == EDQUOT))
            return noRoom(data.size() - done);
        if (count < 0)
            return system("Could not write the partial file of \"%1\"");
        m_hash.add(data.constData() + done, count);
        m_hashed += count;
        m_size += count;
        done += count;
    }
    if (m_size - m_writtenBack >= writeBackStep) {
        ::sync_file_range(m_file.descriptor(), m_writtenBack, m_size - m_writtenBack, SYNC_FILE_RANGE_WRITE);
        m_writtenBack = m_size;
    }
    return Error();
}

Error PartialFile::publish(const Expected& expected, const std::function<bool()>& mayReplace) {
    if (m_size != expected.size || m_hash.hexDigest() != expected.sha256) {
        ORX_RETURN_ON_ERROR(startOver());
        return Error(
            ErrorCode::ChecksumMismatch,
            translated("What arrived for the file \"%1\" differs from its checksum and was thrown away. "
                       "Start the download again.")
                .arg(targetPath()));
    }
    if (expected.modified.isValid()) {
        const qint64 ms = expected.modified.toMSecsSinceEpoch();
        const qint64 seconds = ms >= 0 ? ms / 1000 : -((999 - ms) / 1000);
        const timespec times[] = {{0, UTIME_OMIT}, {seconds, (ms - seconds * 1000) * 1'000'000}};
        if (::futimens(m_file.descriptor(), times) != 0)
            return system("Could not set the modification time of \"%1\"");
    }
    if (m_location.flush && ::fsync(m_file.descriptor()) != 0)
        return errno == ENOSPC || errno == EDQUOT ? noRoom(m_size)
                                                  : system("Could not flush the file \"%1\"");
    // What is written to it while this one is flushed is not to be lost either.
    if (mayReplace && !mayReplace())
        return Error(ErrorCode::FileChanged,
                     translated("\"%1\" changed while what is to replace it was fetched, and stays as it is; "
                                "try again when nothing writes to it.")
                         .arg(targetPath()));
    ORX_RETURN_ON_ERROR(m_location.overwrite ? rename() : renameWithoutReplacing());
    m_published = true;
    // Some file systems have nothing to flush for a directory and say so.
    if (m_location.flush && ::fsync(m_directory) != 0 && errno != EINVAL && errno != ENOTSUP)
        return system("Could not flush the directory of the file \"%1\"");
    // Here, since some file systems write everything when a file is closed.
    m_file.close();
    return Error();
}

Error PartialFile::rename() {
    if (::renameat(m_directory, encoded(m_location.partialName).constData(), m_directory,
                   encoded(m_location.targetName).constData()) == 0)
        return Error();
    return errno == EISDIR ? checkTarget() : system("Could not give the file \"%1\" its name");
}

Error PartialFile::renameWithoutReplacing() {
    const int reason =
        FilePlace::takeIn(m_directory, encoded(m_location.partialName), encoded(m_location.targetName));
    if (reason == EEXIST)
        return checkTarget();
    errno = reason;
    return reason == 0 ? Error() : system("Could not give the file \"%1\" its name");
}

} // namespace orx
