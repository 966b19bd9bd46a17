#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <DuplicateUploadPolicy.h>
#include <HalvaneTask.h>
#include <UploadedFileData.h>

#include <memory>

namespace orx {

//! Compares one local path with what the target folder holds, and decides what is to be uploaded for it: a
//! new item, whatever the policy says when the name is taken, or nothing. The steps:
//!   validate the path -> list the files of the folder -> [ask the policy]   when the name is taken
//! A path that may not be uploaded is no failure: it is left out.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneVerifyUploadedFileTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    struct Input {
        //! The target folder's id and the local path.
        UploadedFileData uploadedFileData;
        QString folderName;
    };

    HalvaneVerifyUploadedFileTask(const Input& input, std::shared_ptr<DuplicateUploadPolicyInterface> policy);
    ~HalvaneVerifyUploadedFileTask() override;

    //! Id -1: nothing is to be uploaded, and before the task has finished.
    UploadedFileData uploadedFileData() const;

protected:
    Error initialize() override;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
