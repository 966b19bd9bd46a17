#include "HalvaneUploadReplies.h"

#include <JsonUtils.h>
#include <NetworkError.h>

#include <QCoreApplication>

namespace orx {
namespace {

Error invalidReply(const QString& reason) {
    return Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply),
                 QCoreApplication::translate("orx::HalvaneUploadReplies",
                                             "The server's reply about an upload cannot be used: %1")
                     .arg(reason));
}

template <typename T, typename Getter>
Error read(T& target, Getter getter, const QJsonObject& object, const char* key) {
    Result<T> value = getter(object, QString::fromLatin1(key));
    if (!value)
        return invalidReply(value.errorMessage());
    target = *std::move(value);
    return Error();
}

Error readReceived(QHash<int, QByteArray>& received, const QJsonObject& object) {
    QJsonArray chunks;
    ORX_RETURN_ON_ERROR(read(chunks, JsonUtils::arrayValue, object, "received"));
    received.reserve(chunks.size());
    for (const auto& chunk : std::as_const(chunks)) {
        int index = 0;
        QString checksum;
        ORX_RETURN_ON_ERROR(read(index, JsonUtils::intValue, chunk.toObject(), "index"));
        ORX_RETURN_ON_ERROR(read(checksum, JsonUtils::stringValue, chunk.toObject(), "xxh3"));
        received.insert(index, checksum.toLatin1());
    }
    return Error();
}

} // namespace

Result<HalvaneUploadReply> HalvaneUploadReply::parse(const QJsonObject& object) {
    HalvaneUploadReply reply;
    ORX_RETURN_ON_ERROR(read(reply.uploadId, JsonUtils::intValue, object, "upload_id"));
    ORX_RETURN_ON_ERROR(read(reply.size, JsonUtils::int64Value, object, "size"));
    ORX_RETURN_ON_ERROR(read(reply.chunkSize, JsonUtils::int64Value, object, "chunk_size"));
    ORX_RETURN_ON_ERROR(readReceived(reply.received, object));
    if (reply.uploadId < 1)
        return invalidReply(
            QCoreApplication::translate("orx::HalvaneUploadReplies", "the upload id is below 1"));
    return reply;
}

Result<HalvaneFinalizedFile> HalvaneFinalizedFile::parse(const QJsonObject& object) {
    HalvaneFinalizedFile file;
    ORX_RETURN_ON_ERROR(read(file.reference.fileId, JsonUtils::intValue, object, "id"));
    ORX_RETURN_ON_ERROR(read(file.reference.version, JsonUtils::intValue, object, "version"));
    ORX_RETURN_ON_ERROR(read(file.size, JsonUtils::int64Value, object, "size"));
    ORX_RETURN_ON_ERROR(read(file.sha256, JsonUtils::stringValue, object, "sha256"));
    if (file.reference.fileId < 1 || file.reference.version < 1)
        return invalidReply(
            QCoreApplication::translate("orx::HalvaneUploadReplies", "the file id or version is below 1"));
    return file;
}

Result<HalvaneUploadState> HalvaneUploadState::parse(const QJsonObject& object) {
    QString name;
    ORX_RETURN_ON_ERROR(read(name, JsonUtils::stringValue, object, "state"));
    HalvaneUploadState state;
    state.finalized = name == u"finalized";
    if (!state.finalized && name != u"open")
        return invalidReply(
            QCoreApplication::translate("orx::HalvaneUploadReplies", "the state \"%1\" is unknown")
                .arg(name));
    QJsonObject content;
    ORX_RETURN_ON_ERROR(read(content, JsonUtils::objectValue, object, state.finalized ? "file" : "upload"));
    if (!state.finalized) {
        Result<HalvaneUploadReply> upload = HalvaneUploadReply::parse(content);
        if (!upload)
            return ORX_ECATCH(upload).error();
        state.upload = *std::move(upload);
        return state;
    }
    Result<HalvaneFinalizedFile> file = HalvaneFinalizedFile::parse(content);
    if (!file)
        return ORX_ECATCH(file).error();
    state.file = *std::move(file);
    return state;
}

} // namespace orx
