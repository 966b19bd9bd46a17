#include "TargetDirectories.h"

#include <AtomicFile.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <sys/stat.h>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::TargetDirectories", text);
}

bool isRealDirectory(const QByteArray& path) {
    struct stat status {};
    return ::lstat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

Error TargetDirectories::makeTarget(const QString& path) {
    const QFileInfo target(path);
    if (target.isDir())
        return Error();
    const QString parent = target.absolutePath();
    if (parent != target.absoluteFilePath())
        ORX_RETURN_ON_ERROR(makeTarget(parent));
    return ORX_ECATCH(makeInside(path));
}

Error TargetDirectories::makeInside(const QString& path) {
    const QByteArray encoded = QFile::encodeName(path);
    if (::mkdir(encoded.constData(), 0777) == 0)
        return ORX_ECATCH(AtomicFile::syncDirectory(QFileInfo(path).absolutePath()));
    const int reason = errno;
    if (reason != EEXIST)
        return ORX_ECATCH(
            Error::fromErrno(reason, translated("Could not make the directory \"%1\"").arg(path)));
    if (isRealDirectory(encoded))
        return Error();
    return ORX_ECATCH(Error(ErrorCode::AlreadyExists,
                            translated("\"%1\" is in the way: it is no directory. Move it away, or choose "
                                       "another directory.")
                                .arg(path)));
}

Error TargetDirectories::removeOthers(const QString& target, const QString& directory, const Kept& kept) {
    const QFileInfoList entries =
        QDir(target + u'/' + directory)
            .entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                           QDir::Unsorted);
    for (const QFileInfo& entry : entries) {
        const QString path = directory.isEmpty() ? entry.fileName() : directory + u'/' + entry.fileName();
        const bool isDirectory = entry.isDir() && !entry.isSymLink();
        if (kept.files.contains(path))
            continue;
        if (kept.directories.contains(path)) {
            if (isDirectory)
                ORX_RETURN_ON_ERROR(removeOthers(target, path, kept));
            continue;
        }
        const QString there = entry.absoluteFilePath();
        if (!(isDirectory ? QDir(there).removeRecursively() : QFile::remove(there)))
            return ORX_ECATCH(Error(ErrorCode::FileNotWritable,
                                    translated("\"%1\" is not on the server any more and could not be "
                                               "removed. Check the permissions of its directory.")
                                        .arg(there)));
    }
    return Error();
}

} // namespace orx
