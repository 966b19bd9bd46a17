#include "ContentPlacing.h"

#include "DownloadSteps.h"

#include <AtomicFile.h>
#include <FilePlace.h>

#include <QFile>

#include <cerrno>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::FileUtils;

namespace {

Error taken(const QString& path) {
    return Error(ErrorCode::AlreadyExists, QStringLiteral("\"%1\" exists already.").arg(path));
}

} // namespace

Error ContentPlacing::run() const {
    if (mayMove && !overwrites)
        return move();
    QStringList wanted;
    for (const auto& [name, as] : names)
        wanted.append(contentDir + u'/' + name);
    const FileUtils::CopyFilesValidator validator([&wanted](const QFileInfo& entry) {
        const QString path = entry.filePath();
        return std::any_of(wanted.begin(), wanted.end(), [&path](const QString& top) {
            return path == top || path.startsWith(top + u'/');
        });
    });
    const auto policy =
        overwrites ? FileUtils::DuplicateFilesPolicy::Overwrite : FileUtils::DuplicateFilesPolicy::Refuse;
    return FileUtils::tryCopyFiles(
        contentDir, targetDir,
        FileUtils::CopyFilesOptions(FileUtils::CopyFilesOptions::RecursionPolicy::Recursive, policy),
        validator, names, nullptr);
}

Error ContentPlacing::move() const {
    for (const auto& [name, as] : names) {
        const QString target = targetDir + u'/' + as;
        if (isThere(QFileInfo(target)))
            return taken(target);
    }
    for (const auto& [name, as] : names) {
        const QString target = targetDir + u'/' + as;
        const int failure =
            orx::FilePlace::take(QFile::encodeName(contentDir + u'/' + name), QFile::encodeName(target));
        if (failure == EEXIST || failure == ENOTEMPTY)
            return taken(target);
        if (failure != 0)
            return Error::fromErrno(failure, QStringLiteral("Could not make \"%1\"").arg(target));
    }
    return orx::AtomicFile::syncDirectory(targetDir);
}

} // namespace halvane::host
