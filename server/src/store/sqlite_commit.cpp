// The finalisations of the SQLite catalogue: the commit point of every version.
#include "store/sqlite_small_call.h"

namespace halvane::server {

namespace {

// The upload as the transaction sees it.
struct OpenUpload {
    std::string name;
    std::int64_t size = 0;
    Id targetId = 0;
    bool isNewVersion = false;
    std::optional<std::int64_t> expectedVersion;
    std::optional<TimeMs> sourceModifiedAt;
    std::string blobName;
    std::optional<Sha256Digest> contentSha256;
};

std::optional<FinalizedFile> findFinalized(SqliteConnection& connection, Id file, std::int64_t version) {
    Query query(connection, "SELECT f.id, v.version, f.folder_id, f.name, v.size, v.sha256 FROM files f"
                            " JOIN versions v ON v.file_id = f.id WHERE f.id = ?1 AND v.version = ?2");
    if (!query.bind(file, version).next())
        return std::nullopt;
    return FinalizedFile{query.integer(0), query.integer(1), query.integer(2),
                         query.text(3),    query.integer(4), query.digest<Sha256Digest>(5)};
}

template <typename Key>
std::optional<FinalizedFile> findFinalizedOfKey(SqliteConnection& connection, Id user, const Key& key) {
    if (const auto earlier = findCallResult(connection, user, finalizeCall, key))
        return findFinalized(connection, earlier->id, earlier->version);
    return std::nullopt;
}

OpenUpload requireCompleteUpload(SqliteConnection& connection, const Finalisation& request) {
    Query query(connection,
                "SELECT name, size, target_id, target_type, expected_version, source_modified_at, blob_name,"
                " chunk_size, final_file, (SELECT count(*) FROM upload_chunks WHERE upload_id = ?1),"
                " content_sha256 FROM uploads WHERE id = ?1 AND user_id = ?2");
    const std::string id = std::to_string(request.uploadId);
    if (!query.bind(request.uploadId, request.caller.userId).next())
        throw ApiError(ErrorCode::NotFound, "There is no upload with the id " + id + ".");
    if (!query.isNull(8))
        throw ApiError(ErrorCode::UploadGone, "The upload " + id + " was finalised already.");
    const std::int64_t chunkSize = query.integer(7);
    if (query.integer(9) != (query.integer(1) + chunkSize - 1) / chunkSize)
        throw ApiError(ErrorCode::UploadIncomplete, "The upload " + id + " lacks chunks.");
    return {query.text(0),
            query.integer(1),
            query.integer(2),
            query.integer(3) == 0,
            query.optionalInteger(4),
            query.optionalInteger(5),
            query.text(6),
            query.isNull(10) ? std::nullopt : std::optional(query.digest<Sha256Digest>(10))};
}

std::string inlineContentOf(SqliteConnection& connection, Id upload) {
    std::string content;
    Query query(connection, "SELECT content FROM upload_chunks WHERE upload_id = ?1 ORDER BY position");
    query.bind(upload);
    while (query.next())
        content += query.text(0);
    return content;
}

// The content that becomes the version and its SHA-256.
struct Content {
    Sha256Digest sha256{};
    std::optional<std::string> inlined;
};

// Nothing when the content of an inline upload differs from its SHA-256.
std::optional<Content> verifiedContent(SqliteConnection& connection, const Finalisation& request,
                                       const OpenUpload& upload) {
    if (upload.size >= inlineContentLimit)
        return Content{request.sha256, {}};
    const std::string id = std::to_string(request.uploadId);
    std::string content = inlineContentOf(connection, request.uploadId);
    if (static_cast<std::int64_t>(content.size()) != upload.size)
        throw ApiError(ErrorCode::UploadIncomplete, "The upload " + id + " lacks chunks.");
    if (!upload.contentSha256)
        throw ApiError(ErrorCode::UploadIncomplete,
                       "The upload " + id + " lacks the SHA-256 of its content.");
    if (Sha256::of(content) != *upload.contentSha256)
        return std::nullopt;
    return Content{*upload.contentSha256, std::move(content)};
}

struct Target {
    Id fileId = 0;
    std::int64_t version = 1;
    Id folderId = 0;
};

void countFileChange(SqliteConnection& connection, Id folder) {
    Query(connection, "UPDATE folders SET files_change = files_change + 1 WHERE id = ?1").bind(folder).run();
}

Target newVersionOf(SqliteConnection& connection, const Finalisation& request, const OpenUpload& upload) {
    const FolderAccess access = requireReadableFile(connection, request.caller, upload.targetId);
    requirePrivilege(access, Privilege::AddFiles, "add files to");
    Query query(connection, "SELECT last_version, name FROM files WHERE id = ?1");
    query.bind(upload.targetId).next();
    const std::int64_t last = query.integer(0);
    if (upload.expectedVersion && *upload.expectedVersion != last)
        throw ApiError(ErrorCode::VersionConflict,
                       "The file '" + query.text(1) + "' (id " + std::to_string(upload.targetId) +
                           ") has the version " + std::to_string(last) + " by now, not " +
                           std::to_string(*upload.expectedVersion) + ".");
    countFileChange(connection, access.folder().id);
    Query(connection, "UPDATE files SET last_version = ?2, listed_change = (SELECT files_change FROM folders"
                      " WHERE folders.id = files.folder_id) WHERE id = ?1")
        .bind(upload.targetId, last + 1)
        .run();
    return {upload.targetId, last + 1, access.folder().id};
}

Target newFileIn(SqliteConnection& connection, const Finalisation& request, const OpenUpload& upload,
                 TimeMs now) {
    const FolderAccess access = requireReadable(connection, request.caller, upload.targetId);
    requirePrivilege(access, Privilege::AddFiles, "add files to");
    countFileChange(connection, upload.targetId);
    Query(connection,
          "INSERT INTO files (folder_id, name, last_version, created_at, created_by, listed_change)"
          " VALUES (?1, ?2, 1, ?3, ?4, (SELECT files_change FROM folders WHERE id = ?1))")
        .bind(upload.targetId, upload.name, now, request.caller.userId)
        .run();
    return {connection.database().getLastInsertRowid(), 1, upload.targetId};
}

void insertVersion(SqliteConnection& connection, const Finalisation& request, const OpenUpload& upload,
                   const Content& content, const Target& target, TimeMs now) {
    std::optional<Id> smallContent;
    std::optional<std::string> blobName;
    if (content.inlined) {
        const auto* data = reinterpret_cast<const unsigned char*>(content.inlined->data());
        Query(connection, "INSERT INTO small_contents (content) VALUES (?1)")
            .bind(std::span(data, content.inlined->size()))
            .run();
        smallContent = connection.database().getLastInsertRowid();
    } else {
        blobName = upload.blobName;
    }
    Query(connection,
          "INSERT INTO versions (file_id, version, size, sha256, alias, data_type, source_modified_at,"
          " created_at, created_by, blob_name, small_content_id)"
          " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)")
        .bind(target.fileId, target.version, upload.size, std::span<const unsigned char>(content.sha256),
              request.alias, request.dataType, upload.sourceModifiedAt, now, request.caller.userId, blobName,
              smallContent)
        .run();
    if (request.trace != "{}")
        Query(connection, "INSERT INTO traces (file_id, version, trace) VALUES (?1, ?2, ?3)")
            .bind(target.fileId, target.version, request.trace)
            .run();
}

void closeUpload(SqliteConnection& connection, Id upload, const Target& target, TimeMs now) {
    Query(connection, "DELETE FROM upload_chunks WHERE upload_id = ?1").bind(upload).run();
    Query(connection, "UPDATE uploads SET final_file = ?2, final_version = ?3, expires_at = ?4 WHERE id = ?1")
        .bind(upload, target.fileId, target.version, now)
        .run();
}

// Nothing, and nothing done, when the content differs from its SHA-256.
std::optional<FinalizedFile> commitVerified(SqliteConnection& connection, const Finalisation& request) {
    const Id user = request.caller.userId;
    if (auto file = findFinalizedOfKey(connection, user, request.key))
        return file;
    const TimeMs now = currentTime();
    const OpenUpload upload = requireCompleteUpload(connection, request);
    const std::optional<Content> content = verifiedContent(connection, request, upload);
    if (!content)
        return std::nullopt;
    const Target target = upload.isNewVersion ? newVersionOf(connection, request, upload)
                                              : newFileIn(connection, request, upload, now);
    insertVersion(connection, request, upload, *content, target, now);
    closeUpload(connection, request.uploadId, target, now);
    rememberCallResult(connection, user, finalizeCall, request.key, {target.fileId, target.version});
    FinalizedFile made = findFinalized(connection, target.fileId, target.version).value();
    made.isNew = true;
    return made;
}

FinalisationOutcome commitOne(SqliteConnection& connection, const Finalisation& request) {
    if (auto file = commitVerified(connection, request))
        return std::move(*file);
    // Returned rather than thrown: that the SHA-256 is gone is to be committed.
    Query(connection, "UPDATE uploads SET content_sha256 = NULL WHERE id = ?1").bind(request.uploadId).run();
    return ApiError(ErrorCode::ChecksumMismatch,
                    "The content of the upload " + std::to_string(request.uploadId) +
                        " differs from its SHA-256; the file changed while it was sent.");
}

// Whether a finalisation of a small upload is all that there is to do.
bool isOpenInline(SqliteConnection& connection, Id user, Id upload) {
    Query query(connection, "SELECT size FROM uploads WHERE id = ?1 AND user_id = ?2 AND final_file IS NULL"
                            " AND expires_at > ?3");
    return query.bind(upload, user, currentTime()).next() && query.integer(0) < inlineContentLimit;
}

} // namespace

void SqliteCatalog::finalizeSmall(const Sha256Digest& token, Finalisation request,
                                  SmallDone<FinalizedFile> done) {
    const auto finalize = [request = std::make_shared<Finalisation>(std::move(request))](
                              SqliteConnection& connection,
                              const Caller& caller) -> SmallResult<FinalizedFile> {
        request->caller = caller;
        if (auto file = findFinalizedOfKey(connection, caller.userId, request->key))
            return std::move(*file);
        if (!isOpenInline(connection, caller.userId, request->uploadId))
            return {};
        // Who asks the same meanwhile is to hear the same, which the ordinary way sees to.
        auto file = commitVerified(connection, *request);
        return file ? SmallResult<FinalizedFile>(std::move(*file)) : SmallResult<FinalizedFile>();
    };
    submitSmall<FinalizedFile>(m_writer, Durability::Flushed, token, finalize, std::move(done));
}

std::vector<FinalisationOutcome> SqliteCatalog::commit(std::span<const Finalisation> batch) {
    std::vector<FinalisationOutcome> files(batch.size());
    std::vector<SqliteWriter::Work> works;
    works.reserve(batch.size());
    for (std::size_t i = 0; i < batch.size(); ++i)
        works.emplace_back([&file = files[i], &request = batch[i]](SqliteConnection& connection) {
            file = commitOne(connection, request);
        });
    std::vector<SqliteWriter::Pending> done = m_writer.submit(Durability::Flushed, std::move(works));
    std::vector<FinalisationOutcome> outcomes;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        try {
            done[i].get();
            outcomes.push_back(std::move(files[i]));
        } catch (const ApiError& error) {
            outcomes.emplace_back(error);
        } catch (const std::exception& error) {
            outcomes.emplace_back(ApiError(ErrorCode::Internal, error.what()));
        }
    }
    return outcomes;
}

std::optional<FinalizedFile> SqliteCatalog::finalizedOfKey(const Caller& caller, const CallKey& key) {
    std::optional<FinalizedFile> result;
    read([&](SqliteConnection& connection) { result = findFinalizedOfKey(connection, caller.userId, key); });
    return result;
}

std::optional<FinalizedFile> SqliteCatalog::finalizedOfKey(const Caller& caller, const std::string& key) {
    std::optional<FinalizedFile> result;
    read([&](SqliteConnection& connection) { result = findFinalizedOfKey(connection, caller.userId, key); });
    return result;
}

FinalizedFile SqliteCatalog::finalizedFile(Id file, std::int64_t version) {
    std::optional<FinalizedFile> result;
    read([&](SqliteConnection& connection) { result = findFinalized(connection, file, version); });
    if (!result)
        throw ApiError(ErrorCode::NotFound, "The file " + std::to_string(file) + " was removed.");
    return std::move(*result);
}

} // namespace halvane::server
