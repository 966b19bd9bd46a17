#include "ContentPlacing.h"

#include "DownloadSteps.h"

#include <DirectoryFlushes.h>
#include <DirectoryMerge.h>
#include <FilePlace.h>

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::FileUtils;

namespace {

Error taken(const QString& path) {
    return Error(ErrorCode::AlreadyExists, QStringLiteral("\"%1\" exists already.").arg(path));
}

Error changed(const QString& path) {
    return Error(
        ErrorCode::FileChanged,
        QStringLiteral("\"%1\" changed while what is to replace it was fetched, and stays as it is; try "
                       "again when nothing writes to it.")
            .arg(path));
}

} // namespace

Error ContentPlacing::run() const {
    if (mayMove)
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
    const orx::ReplaceGuard::Scope guarded(mayReplace);
    return FileUtils::tryCopyFiles(
        contentDir, targetDir,
        FileUtils::CopyFilesOptions(FileUtils::CopyFilesOptions::RecursionPolicy::Recursive, policy),
        validator, names, nullptr);
}

Error ContentPlacing::move() const {
    for (const auto& [name, as] : names) {
        const QString target = targetDir + u'/' + as;
        if (!overwrites && isThere(QFileInfo(target)))
            return taken(target);
    }
    // They tell where something was kept.
    orx::Warnings warnings;
    Error outcome;
    for (const auto& [name, as] : names) {
        outcome = moveOne(contentDir + u'/' + name, targetDir + u'/' + as);
        if (outcome.hasError())
            break;
        warnings += outcome.warnings();
    }
    if (!outcome.hasError() && !names.isEmpty())
        outcome =
            orx::DirectoryFlushes::flushOrNoteName(QFile::encodeName(targetDir + u'/' + names.last().second));
    outcome.addWarnings(warnings);
    return outcome;
}

Error ContentPlacing::moveOne(const QString& source, const QString& target) const {
    const QByteArray from = QFile::encodeName(source);
    const QByteArray to = QFile::encodeName(target);
    int failure = orx::FilePlace::take(from, to);
    if (failure == EEXIST || failure == ENOTEMPTY) {
        if (!overwrites)
            return taken(target);
        if (mayReplace && !mayReplace(QDir::cleanPath(target)))
            return changed(target);
        if (QFileInfo(source).isDir())
            return orx::DirectoryMerge::run(source, target, {.filter = {}, .mayLinkSource = true});
        failure = std::rename(from.constData(), to.constData()) == 0 ? 0 : errno;
    }
    if (failure == EISDIR)
        return taken(target);
    if (failure != 0)
        return Error::fromErrno(failure, QStringLiteral("Could not make \"%1\"").arg(target));
    return {};
}

} // namespace halvane::host
