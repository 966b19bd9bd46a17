#pragma once

#include "HalvaneFileUploadTaskBase.h"

#include <UploadedFileData.h>

#include <memory>

namespace orx {

class DuplicateUploadPolicyInterface;

//! What became of the file uploads of a folder upload.
struct ORX_HALVANE_RESOURCE_HANDLER_EXPORT FinishedTaskCounts {
    int successful = 0;
    int failed = 0;
    int canceled = 0;

    friend bool operator==(const FinishedTaskCounts&, const FinishedTaskCounts&) = default;
};

//! Uploads one local directory into a folder of the server, a level per task: finds or creates the folder of
//! the directory's name, compares the entries with what the folder holds, and makes an upload for each that
//! is to go up; a sub-directory becomes a nested task of this class. Hidden entries are left out.
//!
//! Progress is that of all uploads of the tree together; what a failed file had reached is taken back. With
//! HalvaneUploadPolicyOption::KeepGoing a failed upload does not stop the others. A failed or cancelled file
//! upload is kept on a list, in every folder task above it, from which retry() starts it again, also when the
//! task has finished.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFolderUploadTask : public HalvaneUploadTask {
    Q_OBJECT
public:
    HalvaneFolderUploadTask(const QString& path, int targetFolderId, const QList<int>& userGroups,
                            HalvaneUploadPolicyOptions policyOptions, QObject* parent);
    ~HalvaneFolderUploadTask() override;

protected:
    Error initialize() override;

public:
    //! Always Folder.
    UploadDataType uploadDataType() const override;
    int currentProgress() const override;
    //! Of the whole tree as it was when the task was made.
    int maxProgress() const override;

    //! The local directory.
    QString path() const;
    //! Who decides about files that the server has already; before the task starts. Nested tasks get it from
    //! their parent. A new DefaultDuplicateUploadPolicy at first.
    void setDuplicateUploadPolicy(std::shared_ptr<DuplicateUploadPolicyInterface> policy);

    //! What is on the server: set once the folder is known, complete when the task has finished.
    std::optional<HalvaneUploadedFolderInfo> uploadedFolder() const;

    //! Of the whole tree, like the other two; 0 before the server's folder is known.
    int successfulFileUploadsCount() const;
    //! What was given to retry() does not count any more.
    int failedFileUploadsCount() const;
    int canceledFileUploadsCount() const;
    FinishedTaskCounts finishedTaskCounts() const;

    //! Starts the failed, or else the cancelled, upload of this local path again, as a subtask of this task.
    //! A finished task runs again and finishes once more. ErrorCode::InvalidArgument for a path on neither
    //! list. When the upload cannot be made the task is finished with the error returned, and the path is not
    //! on its list any more.
    Result<HalvaneFileUploadTaskBase*> retry(const QString& path);

Q_SIGNALS:
    //! Before \a task, of this folder or of one below, runs; not for retries.
    void uploadStarted(orx::HalvaneFileUploadTaskBase* task);
    //! \a task is valid during the signal.
    void fileUploadFailed(const orx::HalvaneFileUploadTaskBase* task);
    void fileUploadCanceled(const orx::HalvaneFileUploadTaskBase* task);
    //! A folder below this one is there with everything in it. \a task is valid during the signal.
    void folderUploaded(const orx::HalvaneFolderUploadTask* task);
    //! A folder below this one ended with an error, be it of its own or of what is in it: what of its entries
    //! no other signal told of did not go up for that reason. \a task is valid during the signal.
    void folderUploadFailed(const orx::HalvaneFolderUploadTask* task);

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
