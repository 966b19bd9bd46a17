#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <HalvaneItemTasks.h>

namespace orx {

//! Fetches the metadata of one file: its record and the chain of folders above it, by two requests side by
//! side. After success the variant result holds a QSharedPointer<orx::ResourceMetadata> to a
//! HalvaneFileResourceMetadata; a failure leaves none.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneGetFileResourceMetadataTask : public HalvaneComplexTask {
public:
    //! Without a parent.
    explicit HalvaneGetFileResourceMetadataTask(int fileId);
    ~HalvaneGetFileResourceMetadataTask() override;

protected:
    Error doFinish() override;
    Error initialize() override;

private:
    void getFileMetadata();
    void getFilePath();
    void onGetFileMetadataFinished(HalvaneGetFileMetadataTask* task);
    void onGetFilePathFinished(HalvaneGetFilePathTask* task);

    HalvaneFileItem m_fileItem;
    //! From the outermost folder down to that of the file, like the names.
    QList<int> m_folderIdsPath;
    QList<QString> m_folderPath;
    int m_fileId;
};

} // namespace orx
