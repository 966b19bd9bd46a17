// The uploads of the scripted service.
#include "ScriptedHalvaneService.h"
#include "ScriptedReplies.h"

namespace orx::testing {

using namespace scripted;
using Code = HalvaneServerErrorCode;

int ScriptedHalvaneService::Upload::chunkCount() const {
    return int((size + chunkSize - 1) / chunkSize);
}

QJsonObject ScriptedHalvaneService::Upload::toJson() const {
    QJsonArray received;
    for (auto it = chunks.begin(); it != chunks.end(); ++it) {
        received.append(QJsonObject{{QStringLiteral("index"), it.key()},
                                    {QStringLiteral("xxh3"), QString::fromLatin1(xxh3Hex(it.value()))}});
    }
    return {{QStringLiteral("upload_id"), id},
            {QStringLiteral("name"), name},
            {QStringLiteral("size"), size},
            {QStringLiteral("target_id"), targetId},
            {QStringLiteral("target_type"), targetType},
            {QStringLiteral("chunk_size"), chunkSize},
            {QStringLiteral("received"), received},
            {QStringLiteral("content_sha256"), textOrNull(contentSha256)},
            {QStringLiteral("created_at"), Time},
            {QStringLiteral("expires_at"), Time}};
}

ScriptedReply ScriptedHalvaneService::routeUploads(const ScriptedRequest& request, const Parts& parts) {
    const QString line = request.line();
    if (line == u"POST /uploads")
        return openUpload(request);
    if (line == u"POST /uploads/finalize")
        return finalize(request);
    if (line == u"GET /uploads") {
        QJsonArray list;
        for (const Upload& upload : m_uploads) {
            if (upload.open)
                list.append(upload.toJson());
        }
        return success({{QStringLiteral("uploads"), list}});
    }
    if (request.method == "GET" && parts.value(1) == u"by-key")
        return byKey(parts.value(2));
    const auto upload = m_uploads.find(parts.value(1).toInt());
    if (upload == m_uploads.end())
        return notFound(QStringLiteral("upload with the id %1").arg(parts.value(1)));
    if (!upload->open)
        return failure(410, Code::UploadGone, QStringLiteral("The upload %1 is gone.").arg(upload->id));
    if (request.method == "PUT" && parts.size() == 4 && parts[2] == u"chunks")
        return putChunk(request, *upload, parts[3]);
    if (request.method == "PUT" && parts.value(2) == u"content-sha256")
        return putContentSha256(request, *upload);
    if (request.method == "GET" && parts.size() == 2)
        return success(upload->toJson());
    if (request.method == "DELETE" && parts.size() == 2) {
        upload->open = false;
        return success();
    }
    return notFound(QStringLiteral("call ") + line);
}

ScriptedReply ScriptedHalvaneService::openUpload(const ScriptedRequest& request) {
    if (const auto reply = remembered("uploads", request))
        return reply->status == 200 ? reopened(request.header("Idempotency-Key")) : *reply;
    const QJsonObject body = request.json();
    Upload upload;
    upload.id = int(m_uploads.size()) + 1;
    upload.name = body[QStringLiteral("name")].toString();
    upload.size = qint64(body[QStringLiteral("size")].toDouble(-1));
    upload.targetId = body[QStringLiteral("target_id")].toInt(-1);
    upload.targetType = body[QStringLiteral("target_type")].toInt(-1);
    upload.sourceModifiedAt = body[QStringLiteral("source_modified_at")].toString();
    upload.expectedVersion = intField(body, QStringLiteral("expected_version"));
    upload.chunkSize = m_chunkSize;
    upload.key = request.header("Idempotency-Key");
    if (upload.size < 0)
        return badField(QStringLiteral("size"));
    if (upload.targetType != 0 && upload.targetType != 1)
        return badField(QStringLiteral("target_type"));
    if (const auto problem = nameProblem(upload.name))
        return *problem;
    const bool toFile = upload.targetType == 0;
    if (toFile ? !m_files.contains(upload.targetId) : !m_folders.contains(upload.targetId)) {
        return notFound(
            (toFile ? QStringLiteral("file with the id %1") : QStringLiteral("folder with the id %1"))
                .arg(upload.targetId));
    }
    m_uploads.insert(upload.id, upload);
    return remember("uploads", request, success(upload.toJson()));
}

ScriptedReply ScriptedHalvaneService::reopened(const QByteArray& key) const {
    for (const Upload& upload : m_uploads) {
        if (upload.key == key && upload.open)
            return success(upload.toJson());
    }
    return failure(410, Code::UploadGone, QStringLiteral("The upload is gone."));
}

ScriptedReply ScriptedHalvaneService::putChunk(const ScriptedRequest& request, Upload& upload,
                                               const QString& index) {
    const int number = index.toInt();
    if (number < 0 || number >= upload.chunkCount())
        return failure(400, Code::BadRequest, QStringLiteral("There is no chunk %1.").arg(index));
    const QByteArray checksum = request.header("Halvane-Chunk-Xxh3");
    if (checksum.isEmpty())
        return failure(400, Code::BadRequest,
                       QStringLiteral("The header \"Halvane-Chunk-Xxh3\" is missing."));
    const qint64 length = std::min(upload.chunkSize, upload.size - number * upload.chunkSize);
    if (request.body.size() != length || checksum != xxh3Hex(request.body)) {
        return failure(422, Code::ChecksumMismatch,
                       QStringLiteral("The chunk %1 differs from its checksum.").arg(number));
    }
    upload.chunks.insert(number, request.body);
    if (const QByteArray sha256 = request.header("Halvane-Content-Sha256"); !sha256.isEmpty())
        upload.contentSha256 = QString::fromLatin1(sha256);
    return success({{QStringLiteral("index"), number}});
}

ScriptedReply ScriptedHalvaneService::putContentSha256(const ScriptedRequest& request, Upload& upload) {
    const QByteArray sha256 = request.header("Halvane-Content-Sha256");
    if (sha256.isEmpty())
        return failure(400, Code::BadRequest,
                       QStringLiteral("The header \"Halvane-Content-Sha256\" is missing."));
    upload.contentSha256 = QString::fromLatin1(sha256);
    return success();
}

ScriptedReply ScriptedHalvaneService::finalize(const ScriptedRequest& request) {
    if (const auto reply = remembered("finalize", request))
        return *reply;
    const QJsonObject body = request.json();
    const std::optional<int> id = intField(body, QStringLiteral("upload_id"));
    if (!id)
        return badField(QStringLiteral("upload_id"));
    const QString type = body[QStringLiteral("force_data_type")].toString(QStringLiteral("Regular"));
    if (type != u"Regular" && type != u"MS")
        return badField(QStringLiteral("force_data_type"));
    const auto upload = m_uploads.find(*id);
    if (upload == m_uploads.end())
        return notFound(QStringLiteral("upload with the id %1").arg(*id));
    if (!upload->open)
        return failure(410, Code::UploadGone, QStringLiteral("The upload %1 is gone.").arg(*id));
    if (upload->chunks.size() < upload->chunkCount() || upload->contentSha256.isEmpty())
        return failure(409, Code::UploadIncomplete, QStringLiteral("Chunks of the upload are missing."));
    const ScriptedReply reply = commit(*upload, body);
    return reply.status == 200 ? remember("finalize", request, reply) : reply;
}

ScriptedReply ScriptedHalvaneService::commit(Upload& upload, const QJsonObject& body) {
    QByteArray bytes;
    for (const QByteArray& chunk : upload.chunks)
        bytes += chunk;
    if (QString::fromLatin1(sha256Hex(bytes)) != upload.contentSha256) {
        upload.contentSha256.clear();
        return failure(422, Code::ChecksumMismatch, QStringLiteral("The content differs from its checksum."));
    }
    int fileId = upload.targetId;
    if (upload.targetType == 0) {
        if (upload.expectedVersion && *upload.expectedVersion != m_files[fileId].versions.size())
            return failure(409, Code::VersionConflict, QStringLiteral("The file has a newer version."));
        addVersion(fileId, bytes);
    } else {
        fileId = addFile(upload.name, bytes, upload.targetId);
    }
    File& file = m_files[fileId];
    Version& version = file.versions.last();
    version.alias = body[QStringLiteral("file_alias")].toString();
    version.dataType = body[QStringLiteral("force_data_type")].toString(QStringLiteral("Regular"));
    version.vonkTrace = body[QStringLiteral("vonk_trace")].toObject();
    version.sourceModifiedAt = upload.sourceModifiedAt;
    upload.open = false;
    upload.result = QJsonObject{{QStringLiteral("id"), fileId},
                                {QStringLiteral("version"), int(file.versions.size())},
                                {QStringLiteral("folder_id"), file.folderId},
                                {QStringLiteral("name"), file.name},
                                {QStringLiteral("size"), bytes.size()},
                                {QStringLiteral("sha256"), QString::fromLatin1(sha256Hex(bytes))}};
    return success({{QStringLiteral("file"), *upload.result}});
}

ScriptedReply ScriptedHalvaneService::byKey(const QString& key) const {
    for (const Upload& upload : m_uploads) {
        if (QString::fromLatin1(upload.key) != key)
            continue;
        if (upload.result) {
            return success({{QStringLiteral("state"), QStringLiteral("finalized")},
                            {QStringLiteral("file"), *upload.result}});
        }
        if (upload.open) {
            return success({{QStringLiteral("state"), QStringLiteral("open")},
                            {QStringLiteral("upload"), upload.toJson()}});
        }
    }
    return notFound(QStringLiteral("upload with the key \"%1\"").arg(key));
}

} // namespace orx::testing
