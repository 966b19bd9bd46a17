#include "DownloadSteps.h"

#include <FilePlace.h>
#include <FileTime.h>
#include <HeldFile.h>

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::ErrorDomain;

namespace {

Error checkDirectoryOf(const QFileInfo& target) {
    const QString directory = target.absolutePath();
    if (QFileInfo(directory).isWritable())
        return {};
    return Error(ErrorCode::FileNotWritable,
                 QStringLiteral("\"%1\" cannot be written: nothing can be made in the directory \"%2\".")
                     .arg(target.absoluteFilePath(), directory));
}

//! Times and size of a directory say nothing that its entries do not say.
QByteArray stampOfEntry(const QString& path) {
    struct stat found = {};
    if (::lstat(QFile::encodeName(path).constData(), &found) != 0)
        return QByteArrayLiteral("none");
    QByteArray stamp = QByteArray::number(found.st_dev) + ' ' + QByteArray::number(found.st_ino) + ' ' +
                       QByteArray::number(found.st_mode);
    if (!S_ISDIR(found.st_mode)) {
        for (const qint64 number :
             {qint64(found.st_size), orx::nanosecondsOf(found.st_mtim), orx::nanosecondsOf(found.st_ctim)})
            stamp += ' ' + QByteArray::number(number);
    }
    return stamp;
}

} // namespace

bool isThere(const QFileInfo& info) {
    return info.exists() || info.isSymLink();
}

bool failedHere(const Error& error) {
    if (error.domain() == ErrorDomain::Server || error.domain() == ErrorDomain::Network)
        return false;
    return !error.isCanceled() && !error.is(ErrorCode::NotAuthenticated) && !error.is(ErrorCode::TimedOut) &&
           !error.is(ErrorCode::ChecksumMismatch);
}

Error checkFilePlace(const QFileInfo& target) {
    const QString path = target.absoluteFilePath();
    if (target.isDir() && !target.isSymLink())
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("\"%1\" is a directory; the file cannot take its place.").arg(path));
    // A device or a pipe would be replaced by a file of its name.
    if (target.exists() && !target.isSymLink() && !target.isFile())
        return Error(
            ErrorCode::FileNotWritable,
            QStringLiteral("\"%1\" is not a regular file and stays as it is; give another path.").arg(path));
    return checkDirectoryOf(target);
}

Error checkDirectoryPlace(const QFileInfo& target) {
    if (isThere(target) && (target.isSymLink() || !target.isDir()))
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("\"%1\" is no directory, stays as it is, and is in the way of one; give "
                                    "another path.")
                         .arg(target.absoluteFilePath()));
    return checkDirectoryOf(target);
}

Error checkRoom(const QFileInfo& target, qint64 size) {
    struct statvfs disk {};
    if (::statvfs(QFile::encodeName(target.absolutePath()).constData(), &disk) != 0 || disk.f_blocks == 0)
        return {}; // unknown; a write will tell
    const qint64 available = qint64(disk.f_bavail) * qint64(disk.f_frsize);
    if (available >= size)
        return {};
    return Error(ErrorCode::StorageFull,
                 QStringLiteral("There is no room for \"%1\": %2 bytes are missing; free some space.")
                     .arg(target.absoluteFilePath(), QString::number(size - available)));
}

QByteArray stampOfPlace(const QString& path) {
    QByteArrayList stamps{stampOfEntry(path)};
    if (const QFileInfo top(path); top.isDir() && !top.isSymLink()) {
        QDirIterator below(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                           QDirIterator::Subdirectories);
        while (below.hasNext()) {
            const QString entry = below.next();
            stamps.append(stampOfEntry(entry) + ' ' + QFile::encodeName(entry));
        }
    }
    // A directory gives its entries in any order.
    std::sort(stamps.begin(), stamps.end());
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const QByteArray& stamp : std::as_const(stamps))
        hash.addData(stamp + '\0');
    return hash.result();
}

qint64 bytesIn(const QString& path) {
    qint64 bytes = 0;
    QDirIterator it(path, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        bytes += it.fileInfo().isSymLink() ? 0 : it.fileInfo().size();
    }
    return bytes;
}

void removePartial(const QString& path) {
    orx::HeldFile file;
    const QByteArray name = QFile::encodeName(path);
    if (file.open(AT_FDCWD, name, orx::HeldFile::Missing::Fail) == 0 && file.isLocked())
        ::unlink(name.constData());
}

Error renamePartial(const QString& path, const QString& to) {
    orx::HeldFile file;
    const QByteArray name = QFile::encodeName(path);
    int reason = file.open(AT_FDCWD, name, orx::HeldFile::Missing::Fail);
    if (reason == 0)
        reason = orx::FilePlace::take(name, QFile::encodeName(to));
    if (reason == EEXIST && file.isLocked())
        ::unlink(name.constData());
    if (reason == 0 || reason == ENOENT || reason == EWOULDBLOCK || reason == EEXIST)
        return {};
    return Error(ErrorCode::FileNotWritable,
                 QStringLiteral("What was fetched is in \"%1\", which could not be called \"%2\": %3")
                     .arg(path, to, qt_error_string(reason)));
}

std::unique_ptr<orx::BaseTask> workerStep(const QString& name, orx::WorkerStepTask::Job job) {
    return std::make_unique<orx::WorkerStepTask>(name, std::move(job));
}

} // namespace halvane::host
