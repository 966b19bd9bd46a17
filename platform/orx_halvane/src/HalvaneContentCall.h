#pragma once

#include "DownloadBody.h"
#include "HalvaneTask.h"

namespace orx {

//! GET /files/ID/versions/N/content from an offset to the end, into a DownloadBody. One attempt: what comes
//! after a failure depends on how much has arrived.
class ORX_HALVANE_EXPORT HalvaneContentCall : public HalvaneTask {
    Q_OBJECT
public:
    struct Content {
        int fileId = -1;
        int version = 0;
        qint64 offset = 0;
        //! The entity tag that the content must have for the offset to count.
        QByteArray entityTag;
    };
    HalvaneContentCall(const Content& content, const std::shared_ptr<DownloadBody>& body);

    //! Status and headers of a reply that was no success, or the error of the network.
    NetworkReply failedReply() const;
    //! Goes on after the body said Pause.
    using HalvaneTask::resumeBody;

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error handleReply(const NetworkReply& reply) override;

private:
    Content m_content;
    std::shared_ptr<DownloadBody> m_body;
    NetworkReply m_reply;
};

} // namespace orx
