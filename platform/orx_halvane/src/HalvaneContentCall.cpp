#include "HalvaneContentCall.h"

#include "HalvaneConnection.h"

namespace orx {

HalvaneContentCall::HalvaneContentCall(const Content& content, const std::shared_ptr<DownloadBody>& body)
    : HalvaneTask(QStringLiteral("GetContent(ID=%1)").arg(content.fileId)), m_content(content), m_body(body) {
    setMaxAttempts(1);
}

Result<NetworkRequest> HalvaneContentCall::prepareRequest(const QUrl& baseUrl) const {
    const QString path =
        QStringLiteral("/files/%1/versions/%2/content").arg(m_content.fileId).arg(m_content.version);
    Result<NetworkRequest> request = prepareRequest(baseUrl, path, NetworkRequest::Method::Get);
    if (!request)
        return request;
    if (m_content.offset > 0) {
        request->setHeader("Range", "bytes=" + QByteArray::number(m_content.offset) + "-");
        request->setHeader("If-Range", m_content.entityTag);
    }
    request->sink = m_body;
    request->silenceTimeout = HalvaneConnection::instance().settings().userSettingsPtr()->transferSilence();
    request->totalTimeout = std::chrono::milliseconds::zero(); // a slow line may take its time
    return request;
}

Error HalvaneContentCall::handleReply(const NetworkReply& reply) {
    if (reply.status == 200 || reply.status == 206)
        return Error();
    m_reply = reply;
    return ORX_ECATCH(HalvaneTask::handleReply(reply));
}

NetworkReply HalvaneContentCall::failedReply() const {
    NetworkReply reply = m_reply;
    if (reply.status == 0)
        reply.error = error();
    return reply;
}

} // namespace orx
