#pragma once

#include "FileDownloadTask.h"

#include <tasks/HalvaneDownloadFolderCacheTask.h>

#include <QPointer>

namespace halvane::host {

//! Brings a folder with everything in it into a directory, each file as ItemDownloadTask does, and tells what
//! came of each. Thread: that of the object.
class HALVANE_HOST_EXPORT FolderDownloadTask : public orx::HalvaneDownloadFolderCacheTask {
    Q_OBJECT
public:
    //! As of its base; of \a request the use of the cache. \a answerer outlives the task.
    FolderDownloadTask(const QSharedPointer<orx::HalvaneFolderResourceReference>& reference,
                       const QString& targetDirPath, bool contentOnly, ClashAnswerer& answerer,
                       const DownloadRequest& request, QObject* parent = nullptr);
    ~FolderDownloadTask() override;

    //! Files that were tried.
    int triedFileCount() const { return m_tried; }

Q_SIGNALS:
    //! A file did not fail.
    void fileDone(const halvane::host::DownloadedFile& file);

protected:
    orx::Task* createFileDownloadTask(const QSharedPointer<orx::HalvaneFileResourceReference>& fileReference,
                                      const orx::PathImpl<orx::PathType::Dir>& targetDir, const QString& name,
                                      std::optional<orx::DuplicateDownloadPolicy> policy) override;
    //! False: AcquisitionDownloadTask finds the names of what an acquisition holds.
    bool namesContent() const override;
    void onFolderListed(int folderId, const QString& path) override;

private:
    ItemDownloadTask::Wanted wantedOf(const orx::HalvaneFileResourceReference& reference,
                                      const QString& directory, const QString& name) const;
    orx::HalvaneDownloadFileCacheTask*
    makeCacheTask(FileDownloadTask& asker,
                  const QSharedPointer<orx::HalvaneFileResourceReference>& fileReference,
                  const orx::PathImpl<orx::PathType::Dir>& targetDir, const QString& name,
                  orx::DuplicateDownloadPolicy policy);

    ClashAnswerer& m_answerer;
    DownloadRequest m_request;
    //! Who waits for which of the plug-in's tasks.
    QHash<orx::HalvaneDownloadFileCacheTask*, QPointer<FileDownloadTask>> m_askers;
    int m_tried = 0;
};

} // namespace halvane::host
