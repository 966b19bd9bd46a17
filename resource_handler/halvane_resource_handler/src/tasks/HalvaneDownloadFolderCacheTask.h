#pragma once

#include "HalvaneDownloadFileCacheTask.h"

#include <HalvaneDownloadFolderTask.h>

#include <QHash>

namespace orx {

//! Brings a folder into the resource cache, file by file, and copies it to a directory. Who decides about
//! names that are taken there is told when it was a file of this same download that took one.
//!
//! Made without a parent and owned by whoever runs it. Thread: that of the object, which needs an event loop.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneDownloadFolderCacheTask
    : public HalvaneDownloadFolderTaskBase {
    Q_OBJECT
public:
    //! See HalvaneDownloadFolderTaskBase.
    HalvaneDownloadFolderCacheTask(const QSharedPointer<HalvaneFolderResourceReference>& folderReference,
                                   const QString& targetDirPath, bool contentOnly, QObject* parent);
    ~HalvaneDownloadFolderCacheTask() override;

Q_SIGNALS:
    //! HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy of \a task, which is answered in the
    //! same way: through \a fixedDuplicates, a policy or an error put on \a task. Connect directly.
    void duplicateFileNameDetectedInFolderOnCopy(const QStringList& duplicates,
                                                 const DuplicateDownloadFileInfo& duplicateFileInfo,
                                                 HalvaneDownloadFileCacheTask* task,
                                                 QStringList* fixedDuplicates);

protected:
    Task* createFileDownloadTask(const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                 const PathImpl<PathType::Dir>& targetDir, const QString& name,
                                 std::optional<DuplicateDownloadPolicy> policy) override;

private:
    void onDuplicateFileNameDetectedOnCopy(const QList<QString>& duplicates,
                                           const PathImpl<PathType::Dir>& targetDir,
                                           const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                           HalvaneDownloadFileCacheTask* task,
                                           QList<QString>* fixedDuplicates);
    void onFileDownloaded(HalvaneDownloadFileCacheTask& task,
                          const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                          const PathImpl<PathType::Dir>& targetDir);

    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
