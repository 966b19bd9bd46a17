#include "FileUtils.h"

#include "DirectoryFlushes.h"
#include "DirectoryMerge.h"
#include "FileCopy.h"
#include "FileTime.h"
#include "Result.h"

#include <QCoreApplication>
#include <QDir>
#include <QLoggingCategory>
#include <QSet>

#include <sys/stat.h>

namespace orx {

using Policy = FileUtils::DuplicateFilesPolicy;

namespace {

Q_LOGGING_CATEGORY(filesLog, "orx.files", QtWarningMsg)

QString translated(const char* text) {
    return QCoreApplication::translate("orx::FileUtils", text);
}

bool isThere(const QFileInfo& info) {
    return info.exists() || info.isSymLink();
}

// As the file system keeps the times, to the nanosecond. What cannot be looked at is left to the copying,
// which says why.
bool isNewer(const QFileInfo& source, const QFileInfo& target) {
    struct stat from = {};
    struct stat to = {};
    return ::stat(QFile::encodeName(source.filePath()).constData(), &from) != 0 ||
           ::stat(QFile::encodeName(target.filePath()).constData(), &to) != 0 ||
           isLater(from.st_mtim, to.st_mtim);
}

// With those above it, each durable. \a wanted: what it is all about.
Error makeDirectory(const QString& path, const QString& wanted) {
    const QFileInfo info(path);
    if (info.isDir())
        return {};
    const QString parent = info.absolutePath();
    if (parent != path)
        ORX_RETURN_ON_ERROR(makeDirectory(parent, wanted));
    // Somebody else may be faster.
    if (!QDir().mkdir(path) && !QFileInfo(path).isDir())
        return Error(ErrorCode::FileNotWritable,
                     translated("Could not make the directory \"%1\".").arg(wanted));
    return DirectoryFlushes::flushOrNoteName(QFile::encodeName(path));
}

// One entry on its way: what it is called here and there.
struct Move {
    QFileInfo source;
    QString targetName;
};

Error taken(const QString& path) {
    return Error(ErrorCode::AlreadyExists, translated("\"%1\" exists already and stays as it is.").arg(path));
}

bool isUsableName(const QString& name) {
    return !name.isEmpty() && name != u"." && name != u".." && !name.contains(u'/') &&
           !name.contains(QChar(0));
}

class DirectoryCopy {
public:
    DirectoryCopy(const QDir& source, const QDir& target, const FileUtils::CopyFilesOptions& options,
                  const FileUtils::CopyFilesValidator& validator, QList<QString>* copiedNames)
        : m_source(source)
        , m_target(target)
        , m_options(options)
        , m_validator(validator)
        , m_copiedNames(copiedNames) {}

    Error run(const QList<FileUtils::CustomName>& customNames) {
        if (!m_source.exists())
            return Error(ErrorCode::NotFound,
                         translated("The directory \"%1\" does not exist.").arg(m_source.path()));
        ORX_RETURN_ON_ERROR(collect(customNames));
        if (policy() == Policy::Refuse)
            ORX_RETURN_ON_ERROR(checkAllFree());
        ORX_RETURN_ON_ERROR(makeDirectory(m_target.absolutePath(), m_target.path()));
        for (const Move& move : m_moves) {
            Error error = carryOut(move);
            error.addWarnings(m_warnings);
            if (error.hasError())
                return ORX_ECATCH(error);
        }
        Error success;
        success.addWarnings(m_warnings);
        return success;
    }

private:
    Policy policy() const { return m_options.duplicateFilesPolicy(); }

    Error collect(const QList<FileUtils::CustomName>& customNames) {
        QSet<QString> targetNames;
        const auto entries = m_source.entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        for (const QFileInfo& entry : entries) {
            const bool skippedDirectory =
                entry.isDir() && !entry.isSymLink() &&
                m_options.recursionPolicy() == FileUtils::CopyFilesOptions::RecursionPolicy::FilesOnly;
            if (skippedDirectory || !m_validator.accepts(entry))
                continue;
            const QString name = targetNameOf(entry.fileName(), customNames);
            if (!isUsableName(name))
                return Error(ErrorCode::InvalidArgument,
                             translated("\"%1\" cannot be the name of a file.").arg(name));
            if (targetNames.contains(name))
                return Error(ErrorCode::InvalidArgument,
                             translated("Two entries would have the name \"%1\".").arg(name));
            targetNames.insert(name);
            m_moves.append({entry, name});
        }
        return {};
    }

    static QString targetNameOf(const QString& name, const QList<FileUtils::CustomName>& customNames) {
        for (const auto& [from, to] : customNames) {
            if (from == name)
                return to;
        }
        return name;
    }

    Error checkAllFree() const {
        for (const Move& move : m_moves) {
            if (const QFileInfo target(m_target.filePath(move.targetName)); isThere(target))
                return taken(target.filePath());
        }
        return {};
    }

    Error carryOut(const Move& move) {
        const bool isDirectory = move.source.isDir() && !move.source.isSymLink();
        const QFileInfo target(m_target.filePath(move.targetName));
        QString name = move.targetName;
        if (isThere(target)) {
            switch (policy()) {
            case Policy::Refuse:
                return taken(target.filePath());
            case Policy::Skip:
                return {};
            case Policy::Rename:
                name = FileUtils::freeName(name, [this](const QString& candidate) {
                    return isThere(QFileInfo(m_target.filePath(candidate)));
                });
                break;
            case Policy::Overwrite:
            case Policy::OverwriteOlder:
                if (isDirectory)
                    return merge(move, target);
                break;
            }
        }
        const QString targetPath = m_target.filePath(name);
        if (isDirectory)
            ORX_RETURN_ON_ERROR(FileCopy::directory(move.source.filePath(), targetPath, filter()));
        else if (const Result<bool> copied = copyOne(move.source, targetPath, policy()); copied.hasError())
            return copied.error();
        else if (!*copied)
            return {};
        noteCopied(name);
        return {};
    }

    Error merge(const Move& move, const QFileInfo& target) {
        if (!target.isDir() || target.isSymLink())
            return taken(target.filePath());
        DirectoryMerge::Options options;
        options.filter = filter();
        options.onlyNewer = policy() == Policy::OverwriteOlder;
        const Error merged = DirectoryMerge::run(move.source.filePath(), target.filePath(), options);
        ORX_RETURN_ON_ERROR(merged);
        m_warnings += merged.warnings();
        noteCopied(move.targetName);
        return {};
    }

    FileCopy::Filter filter() const {
        return [this](const QString& path) { return m_validator.accepts(QFileInfo(path)); };
    }

    void noteCopied(const QString& name) {
        if (m_copiedNames)
            m_copiedNames->append(name);
    }

public:
    // False: the policy keeps what is there.
    static Result<bool> copyOne(const QFileInfo& source, const QString& targetPath, Policy policy) {
        const QFileInfo target(targetPath);
        if (!isThere(target) || policy == Policy::Refuse || policy == Policy::Rename)
            ORX_RETURN_ON_ERROR(FileCopy::file(source.filePath(), targetPath, FileCopy::IfExists::Fail));
        else if (policy == Policy::Skip || (policy == Policy::OverwriteOlder && !isNewer(source, target)))
            return false;
        else
            ORX_RETURN_ON_ERROR(FileCopy::file(source.filePath(), targetPath, FileCopy::IfExists::Replace));
        return true;
    }

private:
    QDir m_source;
    QDir m_target;
    FileUtils::CopyFilesOptions m_options;
    const FileUtils::CopyFilesValidator& m_validator;
    QList<QString>* m_copiedNames;
    QList<Move> m_moves;
    Warnings m_warnings;
};

//! The stamp of an error is its line in the log.
bool isSuccess(const Error& outcome) {
    for (const QString& warning : outcome.warnings())
        qCWarning(filesLog).noquote() << warning;
    return !outcome.hasError();
}

} // namespace

bool FileUtils::copyFiles(const QString& sourceDir, const QString& targetDir, const CopyFilesOptions& options,
                          const CopyFilesValidator& validator, const QList<CustomName>& customNames,
                          QList<QString>* copiedNames) {
    return isSuccess(tryCopyFiles(sourceDir, targetDir, options, validator, customNames, copiedNames));
}

bool FileUtils::copyFile(const QString& source, const QString& target, DuplicateFilesPolicy policy) {
    return isSuccess(tryCopyFile(source, target, policy));
}

Error FileUtils::tryCopyFiles(const QString& sourceDir, const QString& targetDir,
                              const CopyFilesOptions& options, const CopyFilesValidator& validator,
                              const QList<CustomName>& customNames, QList<QString>* copiedNames) {
    DirectoryCopy copy(QDir(sourceDir), QDir(targetDir), options, validator, copiedNames);
    const Error outcome = copy.run(customNames);
    ORX_RETURN_ON_ERROR(outcome);
    return outcome;
}

Error FileUtils::tryCopyFile(const QString& source, const QString& target, DuplicateFilesPolicy policy) {
    const QFileInfo info(target);
    QString path = target;
    if (policy == Policy::Rename)
        path = info.dir().filePath(freeName(info.fileName(), [&info](const QString& name) {
            return isThere(QFileInfo(info.dir().filePath(name)));
        }));
    if (const Result<bool> copied = DirectoryCopy::copyOne(QFileInfo(source), path, policy);
        copied.hasError())
        return Error(copied.error());
    return {};
}

QString FileUtils::freeName(const QString& name, const std::function<bool(const QString&)>& isTaken) {
    constexpr int longestName = 255;
    const QFileInfo info(name);
    const QString suffix = info.completeBaseName().isEmpty() || info.suffix().isEmpty()
                               ? QString()
                               : QStringLiteral(".") + info.suffix();
    QString candidate = name;
    for (int number = 2; isTaken(candidate); ++number) {
        const QString tail = QStringLiteral(" (%1)").arg(number) + suffix;
        QString stem = name.chopped(suffix.size());
        while (stem.toUtf8().size() + tail.toUtf8().size() > longestName)
            stem.chop(stem.size() > 1 && stem.back().isLowSurrogate() ? 2 : 1);
        candidate = stem + tail;
    }
    return candidate;
}

} // namespace orx
