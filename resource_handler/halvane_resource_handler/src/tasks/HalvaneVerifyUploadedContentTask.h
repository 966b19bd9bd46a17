#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <DuplicateUploadPolicy.h>
#include <HalvaneTask.h>
#include <UploadedFileData.h>

#include <memory>

namespace orx {

//! Verifies the local entries of one folder level side by side, each by a HalvaneVerifyUploadedFileTask, and
//! collects what is to be uploaded. Fails with the first error of an entry.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneVerifyUploadedContentTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    struct Input {
        //! Local paths. An empty list is ErrorCode::InvalidArgument.
        QStringList files;
        int folderId = -1;
        QString folderName;
    };

    HalvaneVerifyUploadedContentTask(const Input& input,
                                     std::shared_ptr<DuplicateUploadPolicyInterface> policy);
    ~HalvaneVerifyUploadedContentTask() override;

    //! In the order in which the verifications ended; without what is left out.
    QList<UploadedFileData> uploadedFilesData() const;

protected:
    Error initialize() override;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
