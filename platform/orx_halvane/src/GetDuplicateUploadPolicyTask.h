#pragma once

#include "DuplicateUploadPolicy.h"
#include "HalvaneTask.h"
#include "UploadedFileData.h"

namespace orx {

//! Asks the policy what becomes of one local path whose name is taken in the target folder, and makes what is
//! to be uploaded of its answer:
//!   NewVersion (existing id, File, path, none); KeepBoth (folder id, Folder, path, a free name); Skip id -1;
//!   Cancel: the task is cancelled; Fail: ErrorCode::AlreadyExists.
//! A directory that is no raw data is not asked about: (folder id, Folder, path, none). While a policy does
//! not answer, the task's slot serves others (BaseTask::lendSlot()).
//!
//! The free name is one that no file of the folder has, no local file beside the path will take, and no other
//! run of this process was given for that folder.
class ORX_HALVANE_EXPORT GetDuplicateUploadPolicyTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    //! Without a policy the default one decides.
    GetDuplicateUploadPolicyTask(const DuplicateUploadPolicyRequest::Input& input,
                                 const std::shared_ptr<DuplicateUploadPolicyInterface>& policy);
    ~GetDuplicateUploadPolicyTask() override;

    //! Id -1 before success.
    UploadedFileData uploadedFileData() const;

protected:
    Error initialize() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
