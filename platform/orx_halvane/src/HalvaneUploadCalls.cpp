#include "HalvaneUploadCalls.h"

#include "HalvaneConnection.h"

namespace orx {
namespace {

// A transfer of hours is worth waiting for a server that restarts: about a quarter of a minute in all.
constexpr int attemptsOfTransfers = 7;

QString uploadPath(int uploadId, const QString& rest = QString()) {
    return QStringLiteral("/uploads/%1%2").arg(QString::number(uploadId), rest);
}

//! Reads the object "data" of \a json, or the one called \a key in it, into \a target.
template <typename T>
Error readData(T& target, const QJsonObject& json, const QString& key = QString()) {
    Result<QJsonObject> data = JsonUtils::objectValue(json, QStringLiteral("data"));
    if (data && !key.isEmpty())
        data = JsonUtils::objectValue(*data, key);
    if (!data)
        return ORX_ECATCH(data).error();
    Result<T> value = T::parse(*data);
    if (!value)
        return ORX_ECATCH(value).error();
    target = *std::move(value);
    return Error();
}

} // namespace

HalvaneOpenUploadCall::HalvaneOpenUploadCall(const QJsonObject& body, const QByteArray& key)
    : HalvaneTask(QStringLiteral("OpenUpload")), m_body(body), m_key(key) {}

Result<NetworkRequest> HalvaneOpenUploadCall::prepareRequest(const QUrl& baseUrl) const {
    Result<NetworkRequest> request =
        prepareRequest(baseUrl, QStringLiteral("/uploads"), NetworkRequest::Method::Post);
    if (!request)
        return request;
    setJsonBody(*request, m_body);
    request->setHeader("Idempotency-Key", m_key);
    request->idempotent = true;
    return request;
}

Error HalvaneOpenUploadCall::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(readData(m_upload, json));
}

HalvaneGetUploadCall::HalvaneGetUploadCall(int uploadId)
    : HalvaneTask(QStringLiteral("GetUpload(ID=%1)").arg(uploadId)), m_uploadId(uploadId) {}

Result<NetworkRequest> HalvaneGetUploadCall::prepareRequest(const QUrl& baseUrl) const {
    return prepareRequest(baseUrl, uploadPath(m_uploadId), NetworkRequest::Method::Get);
}

Error HalvaneGetUploadCall::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(readData(m_upload, json));
}

HalvaneGetUploadByKeyCall::HalvaneGetUploadByKeyCall(const QByteArray& key)
    : HalvaneTask(QStringLiteral("GetUploadByKey")), m_key(key) {}

Result<NetworkRequest> HalvaneGetUploadByKeyCall::prepareRequest(const QUrl& baseUrl) const {
    return prepareRequest(baseUrl, QStringLiteral("/uploads/by-key/") + QString::fromLatin1(m_key),
                          NetworkRequest::Method::Get);
}

Error HalvaneGetUploadByKeyCall::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(readData(m_state, json));
}

HalvanePutChunkCall::HalvanePutChunkCall(const Chunk& chunk, std::function<void(qint64)> onBytesSent)
    : HalvaneTask(QStringLiteral("PutChunk(ID=%1, %2)").arg(chunk.uploadId).arg(chunk.index))
    , m_chunk(chunk)
    , m_onBytesSent(std::move(onBytesSent)) {
    setMaxAttempts(attemptsOfTransfers);
}

Result<NetworkRequest> HalvanePutChunkCall::prepareRequest(const QUrl& baseUrl) const {
    const QString path = uploadPath(m_chunk.uploadId, QStringLiteral("/chunks/%1").arg(m_chunk.index));
    Result<NetworkRequest> request = prepareRequest(baseUrl, path, NetworkRequest::Method::Put);
    if (!request)
        return request;
    request->setHeader("Content-Type", "application/octet-stream");
    request->setHeader("Halvane-Chunk-Xxh3", m_chunk.checksum);
    if (!m_chunk.contentSha256.isEmpty())
        request->setHeader("Halvane-Content-Sha256", m_chunk.contentSha256);
    request->body = m_chunk.data;
    request->idempotent = true;
    request->silenceTimeout = HalvaneConnection::instance().settings().userSettingsPtr()->transferSilence();
    request->totalTimeout = std::chrono::milliseconds::zero(); // a slow line may take its time
    request->onBytesSent = m_onBytesSent;
    return request;
}

HalvanePutContentHashCall::HalvanePutContentHashCall(int uploadId, const QByteArray& contentSha256)
    : HalvaneTask(QStringLiteral("PutContentHash(ID=%1)").arg(uploadId))
    , m_uploadId(uploadId)
    , m_contentSha256(contentSha256) {
    setMaxAttempts(attemptsOfTransfers);
}

Result<NetworkRequest> HalvanePutContentHashCall::prepareRequest(const QUrl& baseUrl) const {
    const QString path = uploadPath(m_uploadId, QStringLiteral("/content-sha256"));
    Result<NetworkRequest> request = prepareRequest(baseUrl, path, NetworkRequest::Method::Put);
    if (!request)
        return request;
    request->setHeader("Halvane-Content-Sha256", m_contentSha256);
    request->body = std::make_shared<const QByteArray>();
    request->idempotent = true;
    return request;
}

HalvaneAbandonUploadCall::HalvaneAbandonUploadCall(int uploadId)
    : HalvaneTask(QStringLiteral("AbandonUpload(ID=%1)").arg(uploadId)), m_uploadId(uploadId) {}

Result<NetworkRequest> HalvaneAbandonUploadCall::prepareRequest(const QUrl& baseUrl) const {
    Result<NetworkRequest> request =
        prepareRequest(baseUrl, uploadPath(m_uploadId), NetworkRequest::Method::Delete);
    if (request)
        request->idempotent = true;
    return request;
}

HalvaneFinalizeUploadCall::HalvaneFinalizeUploadCall(const QJsonObject& body, const QByteArray& key,
                                                     std::chrono::seconds timeout)
    : HalvaneTask(QStringLiteral("FinalizeUpload")), m_body(body), m_key(key), m_timeout(timeout) {
    setMaxAttempts(attemptsOfTransfers);
}

Result<NetworkRequest> HalvaneFinalizeUploadCall::prepareRequest(const QUrl& baseUrl) const {
    Result<NetworkRequest> request =
        prepareRequest(baseUrl, QStringLiteral("/uploads/finalize"), NetworkRequest::Method::Post);
    if (!request)
        return request;
    setJsonBody(*request, m_body);
    request->setHeader("Idempotency-Key", m_key);
    request->idempotent = true;
    request->totalTimeout = m_timeout;
    request->silenceTimeout = m_timeout;
    return request;
}

Error HalvaneFinalizeUploadCall::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(readData(m_file, json, QStringLiteral("file")));
}

} // namespace orx
