// Uploads: opening, chunks, finalisation.
#include "api/support.h"

#include "core/json_input.h"
#include "core/json_text.h"
#include "core/names.h"
#include "http/error_reply.h"

namespace halvane::server {

namespace {

// What ext4 holds in one file.
constexpr std::int64_t maximumUploadSize = std::int64_t{16} << 40;
constexpr std::size_t maximumTraceBytes = 16 * 1024 * 1024;
constexpr std::size_t maximumAliasBytes = 1024;

std::string uploadJson(const UploadRecord& upload) {
    std::string out;
    {
        JsonObject object(out);
        object.field("upload_id", upload.id).field("name", upload.name).field("size", upload.size);
        object.field("target_id", upload.targetId)
            .field("target_type", static_cast<std::int64_t>(upload.targetType));
        object.field("chunk_size", upload.chunkSize);
        {
            JsonList list(object.open("received"));
            for (const ReceivedChunk& chunk : upload.chunks)
                JsonObject(list.next()).field("index", chunk.index).field("xxh3", hexText(chunk.xxh3));
        }
        std::optional<std::string> sha256;
        if (upload.contentSha256)
            sha256 = hexText(*upload.contentSha256);
        object.field("content_sha256", sha256).field("created_at", isoText(upload.createdAt));
        object.field("expires_at", isoText(upload.expiresAt));
    }
    return out;
}

// An upload whose staged bytes may be lost is checked before its chunks are told to anyone.
bool mustBeChecked(const UploadRecord& upload) {
    return upload.suspect && !isInline(upload) && !upload.chunks.empty();
}

UploadRecord checkedUpload(const Caller& caller, UploadRecord upload, Services& services) {
    if (!mustBeChecked(upload))
        return upload;
    (void)services.sessions.session(caller, upload.id);
    return services.catalog.upload(caller, upload.id);
}

NewUpload newUpload(const JsonInput& input, const Services& services) {
    NewUpload upload;
    upload.targetType = static_cast<TargetType>(input.wholeNumber("target_type", 0, 1));
    upload.targetId = input.wholeNumber("target_id", 1, maximumId);
    upload.name = input.text("name");
    upload.size = input.wholeNumber("size", 0, maximumUploadSize);
    upload.sourceModifiedAt = input.optionalTime("source_modified_at");
    if (upload.targetType == TargetType::File)
        upload.expectedVersion = input.optionalWholeNumber("expected_version", 0, maximumId);
    requireValidName(upload.name, "file name");
    upload.chunkSize = services.chunkSize;
    upload.stagingName = BlobStore::newName();
    return upload;
}

std::string identityOf(const NewUpload& upload) {
    const auto number = [](const std::optional<std::int64_t>& value) {
        return value ? std::to_string(*value) : "-";
    };
    return "upload\n" + std::to_string(upload.size) + '\n' + std::to_string(upload.targetId) + '\n' +
           std::to_string(static_cast<int>(upload.targetType)) + '\n' + number(upload.sourceModifiedAt) +
           '\n' + number(upload.expectedVersion) + '\n' + upload.name;
}

Response openUpload(const Request& request, const Caller& caller, Services& services) {
    const NewUpload upload = newUpload(JsonInput(request.body), services);
    const CallKey key = callKey(request, identityOf(upload));
    return success(
        uploadJson(checkedUpload(caller, services.catalog.openUpload(caller, upload, key), services)));
}

Response listUploads(const Caller& caller, Services& services) {
    std::string data;
    {
        JsonObject object(data);
        JsonList list(object.open("uploads"));
        for (UploadRecord& upload : services.catalog.uploads(caller))
            list.next() += uploadJson(checkedUpload(caller, std::move(upload), services));
    }
    return success(data);
}

Response uploadByKey(const Caller& caller, const std::string& key, Services& services) {
    requireKeySyntax(key);
    std::optional<FinalizedFile> file = services.catalog.finalizedOfKey(caller, key);
    std::optional<UploadRecord> upload;
    if (!file)
        upload = services.catalog.uploadOfKey(caller, key);
    if (upload && upload->finalized)
        file = services.catalog.finalizedFile(upload->finalized->first, upload->finalized->second);
    std::string data;
    if (file)
        JsonObject(data).field("state", "finalized").rawField("file", finalizedJson(*file));
    else if (upload && upload->expiresAt > currentTime())
        JsonObject(data)
            .field("state", "open")
            .rawField("upload", uploadJson(checkedUpload(caller, std::move(*upload), services)));
    else
        throw ApiError(ErrorCode::NotFound, "There is no upload with the key '" + key + "'.");
    return success(data);
}

std::optional<Sha256Digest> declaredSha256(const Request& request) {
    const std::string_view text = request.header("Halvane-Content-Sha256");
    if (text.empty())
        return std::nullopt;
    const auto digest = parseSha256(text);
    if (!digest)
        throw ApiError(ErrorCode::BadRequest,
                       "The header Halvane-Content-Sha256 must hold 64 lower-case hexadecimal digits.");
    return digest;
}

Xxh3Digest requiredXxh3(const Request& request) {
    const auto digest = parseXxh3(request.header("Halvane-Chunk-Xxh3"));
    if (!digest)
        throw ApiError(ErrorCode::BadRequest,
                       "The header Halvane-Chunk-Xxh3 must hold 32 lower-case hexadecimal digits.");
    return *digest;
}

Response chunkReceived(std::int64_t index) {
    std::string data;
    JsonObject(data).field("index", index);
    return success(data);
}

// A chunk of a staged upload, streamed to its file.
class StagedChunkSink final : public BodySink {
public:
    StagedChunkSink(std::unique_ptr<ChunkWriter> writer, std::int64_t index,
                    std::optional<Sha256Digest> contentSha256)
        : m_writer(std::move(writer)), m_index(index), m_contentSha256(contentSha256) {}

    std::span<std::byte> room() override { return m_writer->room(); }
    void write(Bytes data) override { m_writer->write(data); }
    Response finish() override {
        m_writer->finish(m_contentSha256);
        return chunkReceived(m_index);
    }

private:
    std::unique_ptr<ChunkWriter> m_writer;
    std::int64_t m_index;
    std::optional<Sha256Digest> m_contentSha256;
};

// A chunk of a content that goes into the catalogue: below 64 KiB, so it is collected.
class InlineChunkSink final : public BodySink {
public:
    InlineChunkSink(CatalogStore& catalog, Id upload, const ReceivedChunk& expected,
                    std::optional<Sha256Digest> contentSha256)
        : m_catalog(catalog), m_upload(upload), m_expected(expected), m_contentSha256(contentSha256) {}

    void write(Bytes data) override {
        m_content.append(reinterpret_cast<const char*>(data.data()), data.size());
    }
    Response finish() override {
        if (Xxh3::of(m_content) != m_expected.xxh3)
            throw ApiError(ErrorCode::ChecksumMismatch, "The chunk " + std::to_string(m_expected.index) +
                                                            " differs from its checksum; send it again.");
        m_catalog.recordChunk(m_upload, m_expected, m_content, m_contentSha256);
        return chunkReceived(m_expected.index);
    }

private:
    CatalogStore& m_catalog;
    Id m_upload;
    ReceivedChunk m_expected;
    std::optional<Sha256Digest> m_contentSha256;
    std::string m_content;
};

std::unique_ptr<BodySink> beginChunk(Request& request, const PathValues& values, Services& services) {
    const Caller caller = authenticated(request, services);
    const UploadRecord upload = services.catalog.uploadWithoutChunks(caller, pathId(values[0], "upload"));
    const auto index = pathNumber(values[1]);
    if (!index || *index >= upload.chunkCount())
        throw ApiError(ErrorCode::BadRequest, "The upload " + std::to_string(upload.id) +
                                                  " has the chunks 0 to " +
                                                  std::to_string(upload.chunkCount() - 1) + ".");
    const ReceivedChunk expected{*index, requiredXxh3(request)};
    const auto contentSha256 = declaredSha256(request);
    if (request.contentLength != static_cast<std::uint64_t>(upload.chunkLength(*index)))
        throw ApiError(ErrorCode::ChecksumMismatch, "The chunk " + std::to_string(*index) + " must have " +
                                                        std::to_string(upload.chunkLength(*index)) +
                                                        " bytes, not " +
                                                        std::to_string(request.contentLength) + ".");
    if (isInline(upload))
        return std::make_unique<InlineChunkSink>(services.catalog, upload.id, expected, contentSha256);
    auto writer =
        services.sessions.session(caller, upload.id)->beginChunk(*index, expected.xxh3, request.abort);
    return std::make_unique<StagedChunkSink>(std::move(writer), *index, contentSha256);
}

Response setContentSha256(const Request& request, const Caller& caller, Id id, Services& services) {
    const auto digest = declaredSha256(request);
    if (!digest)
        throw ApiError(ErrorCode::BadRequest, "The header Halvane-Content-Sha256 is missing.");
    services.catalog.setContentSha256(services.catalog.uploadWithoutChunks(caller, id).id, digest);
    return success("{}");
}

Response abandonUpload(const Caller& caller, Id id, Services& services) {
    const std::string staged = services.catalog.abandonUpload(caller, id);
    services.sessions.drop(id);
    services.blobs.discard(staged);
    return success("{}");
}

// Without its caller.
Finalisation finalisationOf(const Request& request) {
    const JsonInput input(request.body, "vonk_trace");
    Finalisation result;
    result.uploadId = input.wholeNumber("upload_id", 1, maximumId);
    result.alias = input.textOr("file_alias", "");
    result.dataType = input.textOr("force_data_type", "Regular");
    result.trace = input.rawObjectOrEmpty();
    if (result.dataType != "Regular" && result.dataType != "MS")
        throw ApiError(ErrorCode::BadRequest, "The field \"force_data_type\" must be \"Regular\" or \"MS\".");
    if (result.alias.size() > maximumAliasBytes)
        throw ApiError(ErrorCode::BadRequest, "The field \"file_alias\" has more than 1024 bytes.");
    if (result.trace.size() > maximumTraceBytes)
        throw ApiError(ErrorCode::BadRequest, "The field \"vonk_trace\" has more than 16 MiB.", 413);
    const std::string identity = "finalize\n" + std::to_string(result.uploadId) + '\n' + result.dataType +
                                 '\n' + std::to_string(result.alias.size()) + '\n' + result.alias +
                                 hexText(Sha256::of(result.trace));
    result.key = callKey(request, identity);
    return result;
}

Response finalized(const FinalizedFile& file) {
    std::string data;
    JsonObject(data).rawField("file", finalizedJson(file));
    return success(data);
}

void finalizeUpload(Request& request, Services& services, const Respond& respond) {
    Caller caller = authenticated(request, services);
    Finalisation finalisation = finalisationOf(request);
    finalisation.caller = std::move(caller);
    request.body = {};
    services.finalizer.finalize(
        std::move(finalisation), [respond, &services, id = request.id](const FinalisationOutcome& outcome) {
            if (const auto* error = std::get_if<ApiError>(&outcome)) {
                respond(errorReply(std::make_exception_ptr(*error), services.log, id));
                return;
            }
            respond(finalized(std::get<FinalizedFile>(outcome)));
        });
}

// The calls of a small upload: parsed on the I/O thread, done in the catalogue's next transaction and
// answered from there. Whatever is wrong with one, and whatever takes longer, is for the ordinary handler.

constexpr std::size_t quickJson = 4 * 1024;

using Answer = std::function<void(QuickReply)>;

// Answers with what `reply` makes of a result; it may decline as well.
template <typename Result, typename Reply>
SmallDone<Result> answering(const Answer& answer, Services& services, const Request& request, Reply reply) {
    return [answer, &services, id = request.id, reply](SmallOutcome<Result> outcome) {
        QuickReply made{{}, outcome.user};
        if (const auto* error = std::get_if<ApiError>(&outcome.result))
            made.response = errorReply(std::make_exception_ptr(*error), services.log, id);
        else if (!outcome.isDeclined())
            made.response = reply(outcome);
        answer(std::move(made));
    };
}

// A handler of a call with a token; what `call` throws before it has begun declines.
QuickHandler
smallCall(std::function<void(const Request&, const PathValues&, const Sha256Digest&, const Answer&)> call) {
    return [call = std::move(call)](const Request& request, const PathValues& values, const Answer& answer) {
        try {
            if (const auto token = Accounts::tokenHash(request.header("Authorization")))
                return call(request, values, *token, answer);
        } catch (
            const std::exception&) { // the ordinary handler says it, after the token was found to be valid
        }
        answer({});
    };
}

void openSmall(const Request& request, const Sha256Digest& token, const Answer& answer, Services& services) {
    if (request.body.size() > quickJson)
        return answer({});
    NewUpload upload = newUpload(JsonInput(request.body), services);
    CallKey key = callKey(request, identityOf(upload));
    const auto reply = [](const SmallOutcome<UploadRecord>& outcome) -> std::optional<Response> {
        const auto& record = std::get<UploadRecord>(outcome.result);
        if (mustBeChecked(record))
            return std::nullopt; // opened earlier with this key, so asking again finds it
        return success(uploadJson(record));
    };
    services.catalog.openUpload(token, std::move(upload), std::move(key),
                                answering<UploadRecord>(answer, services, request, reply));
}

void recordSmall(const Request& request, const PathValues& values, const Sha256Digest& token,
                 const Answer& answer, Services& services) {
    const Id upload = pathId(values[0], "upload");
    const ReceivedChunk chunk{pathNumber(values[1]).value_or(-1), requiredXxh3(request)};
    const auto contentSha256 = declaredSha256(request);
    if (Xxh3::of(request.body) != chunk.xxh3)
        return answer({});
    const auto reply = [](const SmallOutcome<ReceivedChunk>& outcome) -> std::optional<Response> {
        return chunkReceived(std::get<ReceivedChunk>(outcome.result).index);
    };
    services.catalog.recordSmallChunk(token, upload, chunk, request.body, contentSha256,
                                      answering<ReceivedChunk>(answer, services, request, reply));
}

void finalizeSmall(const Request& request, const Sha256Digest& token, const Answer& answer,
                   Services& services) {
    // Without a key two that are alike are one only by the ordinary way.
    if (request.body.size() > quickJson || request.header("Idempotency-Key").empty())
        return answer({});
    const auto reply = [&services](const SmallOutcome<FinalizedFile>& outcome) -> std::optional<Response> {
        const auto& file = std::get<FinalizedFile>(outcome.result);
        if (file.isNew)
            services.metrics.countSmallVersion(outcome.transaction);
        return finalized(file);
    };
    services.catalog.finalizeSmall(token, finalisationOf(request),
                                   answering<FinalizedFile>(answer, services, request, reply));
}

} // namespace

void addUploadCalls(Router& router, Services& services) {
    router.setQuickWork([&services] { services.catalog.beginSmallCalls(); });
    const auto onUpload = [&services](Response (*call)(const Caller&, Id, Services&)) {
        return authenticatedCall(services,
                                 [&services, call](Request&, const PathValues& values, const Caller& caller) {
                                     return call(caller, pathId(values[0], "upload"), services);
                                 });
    };
    router.add("POST", "/uploads", jsonBody,
               authenticatedCall(services,
                                 [&services](Request& request, const PathValues&, const Caller& caller) {
                                     return openUpload(request, caller, services);
                                 }),
               smallCall([&services](const Request& request, const PathValues&, const Sha256Digest& token,
                                     const Answer& answer) { openSmall(request, token, answer, services); }));
    router.add("GET", "/uploads", noBody,
               authenticatedCall(services, [&services](Request&, const PathValues&, const Caller& caller) {
                   return listUploads(caller, services);
               }));
    router.add(
        "POST", "/uploads/finalize", finalizeBody,
        [&services](Request& request, const PathValues&, const Respond& respond) {
            finalizeUpload(request, services, respond);
        },
        smallCall([&services](const Request& request, const PathValues&, const Sha256Digest& token,
                              const Answer& answer) { finalizeSmall(request, token, answer, services); }));
    router.add(
        "GET", "/uploads/by-key/{}", noBody,
        authenticatedCall(services, [&services](Request&, const PathValues& values, const Caller& caller) {
            return uploadByKey(caller, values[0], services);
        }));
    router.add("GET", "/uploads/{}", noBody, onUpload([](const Caller& caller, Id id, Services& all) {
                   return success(uploadJson(checkedUpload(caller, all.catalog.upload(caller, id), all)));
               }));
    router.add("DELETE", "/uploads/{}", noBody, onUpload(abandonUpload));
    router.add("PUT", "/uploads/{}/content-sha256", noBody,
               authenticatedCall(
                   services, [&services](Request& request, const PathValues& values, const Caller& caller) {
                       return setContentSha256(request, caller, pathId(values[0], "upload"), services);
                   }));
    // An upload keeps the chunk size that it was opened with, so its own bound is checked by the handler.
    router.addStream(
        "PUT", "/uploads/{}/chunks/{}", maximumChunkSize,
        [&services](Request& request, const PathValues& values) {
            return beginChunk(request, values, services);
        },
        smallCall(
            [&services](const Request& request, const PathValues& values, const Sha256Digest& token,
                        const Answer& answer) { recordSmall(request, values, token, answer, services); }),
        // A later chunk belongs to a staged upload and is not collected before it is looked at.
        [](const PathValues& values) { return values[1] == "0"; });
}

} // namespace halvane::server
