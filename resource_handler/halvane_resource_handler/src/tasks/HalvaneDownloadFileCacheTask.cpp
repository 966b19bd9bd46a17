#include "HalvaneDownloadFileCacheTask.h"

#include <FileTypes.h>
#include <ResourceManager.h>

#include <QFileInfo>
#include <QPointer>

#include <optional>

namespace orx {

class HalvaneDownloadFileCacheTask::Private {
public:
    using CopyFilesOptions = FileUtils::CopyFilesOptions;

    Private(const QSharedPointer<HalvaneFileResourceReference>& reference, const PathImpl<PathType::Dir>& dir,
            const QString& name)
        : fileReference(reference)
        , targetDir(dir.toString())
        , customName(name.isEmpty() ? std::nullopt : std::optional(name))
        , isVonk(reference && FileTypes::fileType(reference->name()) == FileTypes::VONK)
        , initError(init()) {}

    Error init();
    QString contentDirPath() const;
    QFileInfoList contentEntries() const;
    //! The content is one file and nothing else.
    static bool isSingleFile(const QFileInfoList& entries);
    QList<QString> duplicateFileNames() const;
    bool copyToTarget(const QList<FileUtils::CustomName>& customNames);
    bool copySingleFile(const QFileInfo& file, const QList<FileUtils::CustomName>& customNames) const;
    bool copyContent(const QList<FileUtils::CustomName>& customNames, QList<QString>* names) const;

    const QSharedPointer<HalvaneFileResourceReference> fileReference;
    const QDir targetDir;
    const std::optional<QString> customName;
    const bool isVonk;
    QSharedPointer<ResourceHandler> handler;
    QString cachePath;
    QString targetPath;
    CopyFilesOptions::DuplicateFilesPolicy duplicatePolicy = CopyFilesOptions::DuplicateFilesPolicy::Refuse;
    QList<QString> copiedNames;
    const Error initError; // last: init() fills the members above
};

HalvaneDownloadFileCacheTask::HalvaneDownloadFileCacheTask(
    const QSharedPointer<HalvaneFileResourceReference>& fileReference,
    const PathImpl<PathType::Dir>& targetDir, const QString& name, QObject* parent)
    : CustomComplexTask(
          QStringLiteral("Download:File(%1)").arg(fileReference ? fileReference->displayText() : QString()),
          parent)
    , d(std::make_unique<Private>(fileReference, targetDir, name)) {}

HalvaneDownloadFileCacheTask::~HalvaneDownloadFileCacheTask() = default;

QString HalvaneDownloadFileCacheTask::localFilePath() const {
    return d->targetPath;
}

QList<QString> HalvaneDownloadFileCacheTask::filenames() {
    return d->copiedNames;
}

void HalvaneDownloadFileCacheTask::setDuplicateFilesPolicy(
    FileUtils::CopyFilesOptions::DuplicateFilesPolicy policy) {
    d->duplicatePolicy = policy;
}

Error HalvaneDownloadFileCacheTask::initialize() {
    if (d->initError.hasError())
        return ORX_ECATCH(Error(d->initError));
    auto retrieval = d->handler->retrieveAsync(ResourceHandler::AsyncProcessingType::RunByCaller, nullptr);
    if (retrieval.hasError())
        return ORX_ECATCH(retrieval).error();
    if (std::unique_ptr<Task> task = std::move(*retrieval)) {
        connect(task.get(), &BaseTask::progress, this, &BaseTask::progress);
        connect(task.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
        execSubtask(task.release());
    } else {
        finish(Error());
    }
    return Error();
}

Error HalvaneDownloadFileCacheTask::doFinish() {
    if (hasError())
        return error();
    ORX_RETURN_ON_ERROR(BaseTask::doFinish());
    const QStringList duplicates = d->duplicateFileNames();
    QList<FileUtils::CustomName> customNames;
    if (!duplicates.isEmpty()) {
        QStringList fixedDuplicates = duplicates;
        const QPointer<HalvaneDownloadFileCacheTask> guard(this);
        Q_EMIT duplicateFileNameDetectedOnCopy(duplicates, &fixedDuplicates, d->targetDir, d->fileReference);
        if (!guard)
            return Error();
        if (hasError())
            return error();
        for (qsizetype i = 0; i < fixedDuplicates.size(); ++i)
            customNames.append({duplicates.value(i), fixedDuplicates.at(i)});
    }
    if (!d->copyToTarget(customNames))
        return ORX_ECATCH(Error(ErrorCode::General, tr("Copying a file to the target location failed.")));
    return Error();
}

Error HalvaneDownloadFileCacheTask::Private::init() {
    auto found = ResourceManager::getHandler(fileReference);
    if (found.hasError())
        return ORX_ECATCH(found).error();
    handler = *found;
    handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::CacheFirst);
    auto path = handler->expectedPath();
    if (path.hasError())
        return ORX_ECATCH(path).error();
    cachePath = path->toString();
    const QFileInfo cached(cachePath);
    if (isVonk)
        targetPath = targetDir.filePath(cached.completeBaseName());
    else
        targetPath = targetDir.filePath(customName.value_or(cached.fileName()));
    return Error();
}

// Always a directory of the cache that belongs to this one file.
QString HalvaneDownloadFileCacheTask::Private::contentDirPath() const {
    if (isVonk) {
        const QString content = cachePath + QDir::separator() + QStringLiteral("content");
        if (QFileInfo::exists(content))
            return content;
    }
    return QFileInfo(cachePath).absolutePath();
}

QFileInfoList HalvaneDownloadFileCacheTask::Private::contentEntries() const {
    return QDir(contentDirPath())
        .entryInfoList(QDir::Files | QDir::Dirs | QDir::Drives | QDir::NoDotAndDotDot, QDir::NoSort);
}

bool HalvaneDownloadFileCacheTask::Private::isSingleFile(const QFileInfoList& entries) {
    return entries.size() == 1 && entries.first().isFile();
}

QList<QString> HalvaneDownloadFileCacheTask::Private::duplicateFileNames() const {
    if (duplicatePolicy != CopyFilesOptions::DuplicateFilesPolicy::Refuse)
        return {};
    const QFileInfoList entries = contentEntries();
    QList<QString> names;
    if (isSingleFile(entries) && customName) {
        names.append(*customName);
    } else {
        for (const QFileInfo& entry : entries)
            names.append(entry.fileName());
    }
    names.removeIf([this](const QString& name) { return !QFileInfo::exists(targetDir.filePath(name)); });
    return names;
}

bool HalvaneDownloadFileCacheTask::Private::copyToTarget(const QList<FileUtils::CustomName>& customNames) {
    const QFileInfoList entries = contentEntries();
    if (isSingleFile(entries))
        return copySingleFile(entries.first(), customNames);
    return copyContent(customNames, &copiedNames);
}

bool HalvaneDownloadFileCacheTask::Private::copySingleFile(
    const QFileInfo& file, const QList<FileUtils::CustomName>& customNames) const {
    if (!customName)
        return copyContent(customNames, nullptr);
    QString targetName = *customName;
    for (const auto& [name, newName] : customNames) {
        if (name == *customName) {
            targetName = newName;
            break;
        }
    }
    return FileUtils::copyFile(file.absoluteFilePath(), targetDir.filePath(targetName), duplicatePolicy);
}

bool HalvaneDownloadFileCacheTask::Private::copyContent(const QList<FileUtils::CustomName>& customNames,
                                                        QList<QString>* names) const {
    return FileUtils::copyFiles(
        contentDirPath(), targetDir.absolutePath(),
        CopyFilesOptions(CopyFilesOptions::RecursionPolicy::Recursive, duplicatePolicy),
        FileUtils::CopyFilesValidator(), customNames, names);
}

} // namespace orx
