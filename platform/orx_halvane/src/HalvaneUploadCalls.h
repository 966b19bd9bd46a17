#pragma once

#include "HalvaneTask.h"
#include "HalvaneUploadReplies.h"

#include <chrono>
#include <functional>

namespace orx {

//! The calls that uploads are made of, one class each; HalvaneUploadTasks.h composes them. All may be
//! repeated: by their nature or by their key.

//! POST /uploads.
class ORX_HALVANE_EXPORT HalvaneOpenUploadCall : public HalvaneTask {
    Q_OBJECT
public:
    HalvaneOpenUploadCall(const QJsonObject& body, const QByteArray& key);
    const HalvaneUploadReply& upload() const { return m_upload; }

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    QJsonObject m_body;
    QByteArray m_key;
    HalvaneUploadReply m_upload;
};

//! GET /uploads/ID.
class ORX_HALVANE_EXPORT HalvaneGetUploadCall : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetUploadCall(int uploadId);
    const HalvaneUploadReply& upload() const { return m_upload; }

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_uploadId;
    HalvaneUploadReply m_upload;
};

//! GET /uploads/by-key/KEY.
class ORX_HALVANE_EXPORT HalvaneGetUploadByKeyCall : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetUploadByKeyCall(const QByteArray& key);
    const HalvaneUploadState& state() const { return m_state; }

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    QByteArray m_key;
    HalvaneUploadState m_state;
};

//! PUT /uploads/ID/chunks/INDEX.
class ORX_HALVANE_EXPORT HalvanePutChunkCall : public HalvaneTask {
    Q_OBJECT
public:
    struct Chunk {
        int uploadId = -1;
        int index = 0;
        std::shared_ptr<const QByteArray> data;
        //! XXH3-128, hexadecimal.
        QByteArray checksum;
        //! SHA-256 of the whole content, hexadecimal; empty unless this is the last request.
        QByteArray contentSha256;
    };
    //! \a onBytesSent: see NetworkRequest.
    HalvanePutChunkCall(const Chunk& chunk, std::function<void(qint64)> onBytesSent);

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;

private:
    Chunk m_chunk;
    std::function<void(qint64)> m_onBytesSent;
};

//! PUT /uploads/ID/content-sha256.
class ORX_HALVANE_EXPORT HalvanePutContentHashCall : public HalvaneTask {
    Q_OBJECT
public:
    HalvanePutContentHashCall(int uploadId, const QByteArray& contentSha256);

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;

private:
    int m_uploadId;
    QByteArray m_contentSha256;
};

//! DELETE /uploads/ID.
class ORX_HALVANE_EXPORT HalvaneAbandonUploadCall : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneAbandonUploadCall(int uploadId);

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;

private:
    int m_uploadId;
};

//! POST /uploads/finalize.
class ORX_HALVANE_EXPORT HalvaneFinalizeUploadCall : public HalvaneTask {
    Q_OBJECT
public:
    //! \a timeout: for the whole request and for silence, since the server verifies and flushes everything
    //! before it answers.
    HalvaneFinalizeUploadCall(const QJsonObject& body, const QByteArray& key, std::chrono::seconds timeout);
    const HalvaneFinalizedFile& file() const { return m_file; }

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    QJsonObject m_body;
    QByteArray m_key;
    std::chrono::seconds m_timeout;
    HalvaneFinalizedFile m_file;
};

} // namespace orx
