#include "HalvaneDownloadFolderCacheTask.h"

namespace orx {

class HalvaneDownloadFolderCacheTask::Private {
public:
    //! The file of this download that made \a path; null when none did.
    QSharedPointer<HalvaneFileResourceReference> whoMade(const QString& path) const {
        for (auto file = copiedPaths.begin(); file != copiedPaths.end(); ++file) {
            if (file.value().contains(path))
                return file.key();
        }
        return {};
    }

    //! What the copies of files that ended well made, by reference object.
    QHash<QSharedPointer<HalvaneFileResourceReference>, QStringList> copiedPaths;
};

HalvaneDownloadFolderCacheTask::HalvaneDownloadFolderCacheTask(
    const QSharedPointer<HalvaneFolderResourceReference>& folderReference, const QString& targetDirPath,
    bool contentOnly, QObject* parent)
    : HalvaneDownloadFolderTaskBase(folderReference, targetDirPath, contentOnly, parent)
    , d(std::make_unique<Private>()) {}

HalvaneDownloadFolderCacheTask::~HalvaneDownloadFolderCacheTask() = default;

Task* HalvaneDownloadFolderCacheTask::createFileDownloadTask(
    const QSharedPointer<HalvaneFileResourceReference>& fileReference,
    const PathImpl<PathType::Dir>& targetDir, const QString& name,
    std::optional<DuplicateDownloadPolicy> policy) {
    auto* const task = new HalvaneDownloadFileCacheTask(fileReference, targetDir, name, nullptr);
    task->setDuplicateFilesPolicy(duplicatePolicy(policy));
    connect(task, &BaseTask::finished, this,
            [this, fileReference, task, targetDir] { onFileDownloaded(*task, fileReference, targetDir); });
    connect(
        task, &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, this,
        [this, fileReference, task, targetDir](const QStringList& duplicates, QStringList* fixedDuplicates) {
            onDuplicateFileNameDetectedOnCopy(duplicates, targetDir, fileReference, task, fixedDuplicates);
        });
    return task;
}

void HalvaneDownloadFolderCacheTask::onFileDownloaded(
    HalvaneDownloadFileCacheTask& task, const QSharedPointer<HalvaneFileResourceReference>& fileReference,
    const PathImpl<PathType::Dir>& targetDir) {
    if (!task.isSuccessful())
        return;
    QStringList paths;
    for (const QString& name : task.filenames())
        paths.append(QDir(targetDir.toString()).filePath(name));
    d->copiedPaths.insert(fileReference, paths);
}

void HalvaneDownloadFolderCacheTask::onDuplicateFileNameDetectedOnCopy(
    const QList<QString>& duplicates, const PathImpl<PathType::Dir>& targetDir,
    const QSharedPointer<HalvaneFileResourceReference>& fileReference, HalvaneDownloadFileCacheTask* task,
    QList<QString>* fixedDuplicates) {
    const QDir directory(targetDir.toString());
    DuplicateDownloadFileInfo info;
    for (const QString& name : duplicates)
        info.clashes.insert(name, d->whoMade(directory.filePath(name)));
    info.targetDir = directory;
    info.earlierQuestions = 0;
    info.skipOption = duplicateDownloadSkipOption(task);
    info.fileReference = fileReference;
    Q_EMIT duplicateFileNameDetectedInFolderOnCopy(duplicates, info, task, fixedDuplicates);
}

} // namespace orx
