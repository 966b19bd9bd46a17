#pragma once

#include "../HalvaneFolderResourceMetadata.h"

#include <HalvaneTask.h>

namespace orx {

//! GET /folders/ID: the metadata of one folder. After success the variant result holds a
//! QSharedPointer<orx::ResourceMetadata> to a copy of metadata(); a failure leaves none.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneGetFolderMetadataTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetFolderMetadataTask(int folderId, QObject* parent = nullptr);
    ~HalvaneGetFolderMetadataTask() override;

    //! Default-constructed until a reply was read.
    HalvaneFolderResourceMetadata metadata() const { return m_metadata; }

protected:
    Error parseData(const QJsonObject& json) override;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;

private:
    HalvaneFolderResourceMetadata m_metadata;
    int m_folderId;
};

} // namespace orx
