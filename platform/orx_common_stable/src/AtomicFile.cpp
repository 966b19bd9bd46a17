#include "AtomicFile.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace orx {
namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::AtomicFile", text);
}

Error writeAll(int descriptor, const QByteArray& content, const QString& path) {
    const char* data = content.constData();
    qint64 left = content.size();
    while (left > 0) {
        const ssize_t written = ::write(descriptor, data, size_t(left));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return Error::fromErrno(errno, translated("Could not write the file \"%1\"").arg(path));
        data += written;
        left -= written;
    }
    return Error();
}

//! Creates a file beside \a path and sets \a temporary to its name; -1 and errno after a failure. The system
//! applies the umask, which no thread can ask for without changing it for all others meanwhile.
int createSibling(const QString& path, AtomicFile::Access access, QByteArray& temporary) {
    const mode_t mode = access == AtomicFile::Access::OwnerOnly ? 0600 : 0666;
    int descriptor = -1;
    do {
        temporary =
            QFile::encodeName(path) + '.' + QByteArray::number(QRandomGenerator::system()->generate64(), 36);
        descriptor = ::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    } while (descriptor < 0 && (errno == EEXIST || errno == EINTR));
    return descriptor;
}

Error fillAndSync(int descriptor, const QByteArray& content, const QString& path) {
    if (Error error = writeAll(descriptor, content, path); error.hasError())
        return error;
    if (::fsync(descriptor) != 0)
        return Error::fromErrno(errno, translated("Could not flush the file \"%1\"").arg(path));
    return Error();
}

} // namespace

Error AtomicFile::write(const QString& path, const QByteArray& content, Access access) {
    QByteArray temporary;
    const int descriptor = createSibling(path, access, temporary);
    if (descriptor < 0)
        return Error::fromErrno(errno, translated("Could not create a file beside \"%1\"").arg(path));
    Error error = fillAndSync(descriptor, content, path);
    if (::close(descriptor) != 0 && !error.hasError())
        error = Error::fromErrno(errno, translated("Could not close the file \"%1\"").arg(path));
    if (!error.hasError() && std::rename(temporary.constData(), QFile::encodeName(path).constData()) != 0)
        error = Error::fromErrno(errno, translated("Could not replace the file \"%1\"").arg(path));
    if (error.hasError()) {
        ::unlink(temporary.constData());
        return ORX_ECATCH(error);
    }
    return syncDirectory(QFileInfo(path).path());
}

Result<QByteArray> AtomicFile::read(const QString& path, qint64 limit) {
    QFile file(path);
    if (!file.exists())
        return Error(ErrorCode::NotFound, translated("The file \"%1\" does not exist.").arg(path));
    if (!file.open(QIODevice::ReadOnly))
        return Error(ErrorCode::FileNotReadable,
                     translated("Could not read file \"%1\": %2").arg(path, file.errorString()));
    QByteArray content = file.read(limit + 1);
    if (file.error() != QFileDevice::NoError)
        return Error(ErrorCode::FileNotReadable,
                     translated("Could not read file \"%1\": %2").arg(path, file.errorString()));
    if (content.size() > limit)
        return Error(ErrorCode::ParseError,
                     translated("The file \"%1\" is larger than %2 bytes.").arg(path).arg(limit));
    return content;
}

Error AtomicFile::syncDirectory(const QString& directory) {
    const int descriptor =
        ::open(QFile::encodeName(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return Error::fromErrno(errno, translated("Could not open the directory \"%1\"").arg(directory));
    const int failure = ::fsync(descriptor) == 0 ? 0 : errno;
    ::close(descriptor);
    // Some file systems have nothing to flush for a directory and say so.
    if (failure != 0 && failure != EINVAL && failure != ENOTSUP)
        return Error::fromErrno(failure, translated("Could not flush the directory \"%1\"").arg(directory));
    return Error();
}

} // namespace orx
