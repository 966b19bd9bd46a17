// The open uploads of the SQLite catalogue.
#include "store/sqlite_small_call.h"

#include <chrono>

namespace halvane::server {

namespace {

constexpr TimeMs uploadLifetime = std::chrono::milliseconds(std::chrono::days(7)).count();
// The expiry is moved by whole hours, so that a chunk rewrites the upload's row only now and then.
constexpr TimeMs expiryStep = std::chrono::milliseconds(std::chrono::hours(1)).count();

#define HALVANE_UPLOAD_COLUMNS                                                                               \
    "SELECT id, user_id, name, size, target_id, target_type, chunk_size, blob_name, source_modified_at,"     \
    " expected_version, content_sha256, created_at, expires_at, suspect, final_file, final_version FROM "    \
    "uploads"

UploadRecord uploadOf(const Query& row) {
    UploadRecord upload;
    upload.id = row.integer(0);
    upload.userId = row.integer(1);
    upload.name = row.text(2);
    upload.size = row.integer(3);
    upload.targetId = row.integer(4);
    upload.targetType = row.integer(5) == 0 ? TargetType::File : TargetType::Folder;
    upload.chunkSize = row.integer(6);
    upload.blobName = row.text(7);
    upload.sourceModifiedAt = row.optionalInteger(8);
    upload.expectedVersion = row.optionalInteger(9);
    if (!row.isNull(10))
        upload.contentSha256 = row.digest<Sha256Digest>(10);
    upload.createdAt = row.integer(11);
    upload.expiresAt = row.integer(12);
    upload.suspect = row.integer(13) != 0;
    if (!row.isNull(14))
        upload.finalized = {row.integer(14), row.integer(15)};
    return upload;
}

void readChunks(SqliteConnection& connection, UploadRecord& upload) {
    Query query(connection,
                "SELECT position, xxh3 FROM upload_chunks WHERE upload_id = ?1 ORDER BY position");
    query.bind(upload.id);
    while (query.next())
        upload.chunks.push_back({query.integer(0), query.digest<Xxh3Digest>(1)});
}

ApiError uploadGone(Id id, const std::string& why) {
    return {ErrorCode::UploadGone, "The upload " + std::to_string(id) + " " + why + "; start a new one."};
}

std::optional<UploadRecord> findUpload(SqliteConnection& connection, const Caller& caller, Id id) {
    Query query(connection, HALVANE_UPLOAD_COLUMNS " WHERE id = ?1 AND user_id = ?2");
    if (!query.bind(id, caller.userId).next())
        return std::nullopt;
    return uploadOf(query);
}

void requireOpen(const UploadRecord& upload) {
    if (upload.finalized)
        throw ApiError(ErrorCode::UploadGone, "The upload " + std::to_string(upload.id) +
                                                  " was finalised as version " +
                                                  std::to_string(upload.finalized->second) + " of the file " +
                                                  std::to_string(upload.finalized->first) + ".");
    if (upload.expiresAt <= currentTime())
        throw uploadGone(upload.id, "has expired");
}

UploadRecord requireOpenUpload(SqliteConnection& connection, const Caller& caller, Id id) {
    auto upload = findUpload(connection, caller, id);
    if (!upload)
        throw ApiError(ErrorCode::NotFound, "There is no upload with the id " + std::to_string(id) + ".");
    requireOpen(*upload);
    return std::move(*upload);
}

void requireTarget(SqliteConnection& connection, const Caller& caller, const NewUpload& upload) {
    const FolderAccess access = upload.targetType == TargetType::File
                                    ? requireReadableFile(connection, caller, upload.targetId)
                                    : requireReadableOrRoot(connection, caller, upload.targetId);
    requirePrivilege(access, Privilege::AddFiles, "add files to");
}

Id insertUpload(SqliteConnection& connection, const Caller& caller, const NewUpload& upload) {
    const TimeMs now = currentTime();
    Query(connection,
          "INSERT INTO uploads (user_id, name, size, target_id, target_type, chunk_size, blob_name,"
          " source_modified_at, expected_version, created_at, expires_at)"
          " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)")
        .bind(caller.userId, upload.name, upload.size, upload.targetId, static_cast<int>(upload.targetType),
              upload.chunkSize, upload.stagingName, upload.sourceModifiedAt, upload.expectedVersion, now,
              now + uploadLifetime)
        .run();
    return connection.database().getLastInsertRowid();
}

void deleteUpload(SqliteConnection& connection, Id id) {
    Query(connection, "DELETE FROM upload_chunks WHERE upload_id = ?1").bind(id).run();
    Query(connection, "DELETE FROM call_results WHERE call = ?1 AND result_id = ?2 AND user_id ="
                      " (SELECT user_id FROM uploads WHERE id = ?2)")
        .bind(openUploadCall, id)
        .run();
    Query(connection, "DELETE FROM uploads WHERE id = ?1").bind(id).run();
}

UploadRecord openOne(SqliteConnection& connection, const Caller& caller, const NewUpload& upload,
                     const CallKey& key) {
    if (const auto earlier = findCallResult(connection, caller.userId, openUploadCall, key)) {
        UploadRecord known = requireOpenUpload(connection, caller, earlier->id);
        readChunks(connection, known);
        return known;
    }
    requireTarget(connection, caller, upload);
    const Id id = insertUpload(connection, caller, upload);
    rememberCallResult(connection, caller.userId, openUploadCall, key, {id, 0});
    return requireOpenUpload(connection, caller, id);
}

void storeChunk(SqliteConnection& connection, Id upload, const ReceivedChunk& chunk,
                const std::string& content, const std::optional<Sha256Digest>& contentSha256) {
    const auto bytes = std::span(reinterpret_cast<const unsigned char*>(content.data()), content.size());
    Query(connection, "INSERT INTO upload_chunks (upload_id, position, xxh3, content) VALUES (?1, ?2, ?3, ?4)"
                      " ON CONFLICT (upload_id, position) DO UPDATE SET xxh3 = excluded.xxh3, content = "
                      "excluded.content")
        .bind(upload, chunk.index, std::span<const unsigned char>(chunk.xxh3),
              content.empty() ? std::optional<std::span<const unsigned char>>() : bytes)
        .run();
    const TimeMs expires = currentTime() + uploadLifetime;
    Query(connection, "UPDATE uploads SET expires_at = ?2, content_sha256 = COALESCE(?3, content_sha256)"
                      " WHERE id = ?1 AND (?3 IS NOT NULL OR expires_at < ?4)")
        .bind(upload, expires,
              contentSha256 ? std::optional<std::span<const unsigned char>>(*contentSha256) : std::nullopt,
              expires - expiryStep)
        .run();
}

} // namespace

UploadRecord SqliteCatalog::openUpload(const Caller& caller, const NewUpload& upload, const CallKey& key) {
    UploadRecord result;
    m_writer.run(Durability::Relaxed,
                 [&](SqliteConnection& connection) { result = openOne(connection, caller, upload, key); });
    return result;
}

void SqliteCatalog::openUpload(const Sha256Digest& token, NewUpload upload, CallKey key,
                               SmallDone<UploadRecord> done) {
    const auto open = [upload = std::move(upload), key = std::move(key)](
                          SqliteConnection& connection, const Caller& caller) -> SmallResult<UploadRecord> {
        return openOne(connection, caller, upload, key);
    };
    submitSmall<UploadRecord>(m_writer, Durability::Relaxed, token, open, std::move(done));
}

void SqliteCatalog::recordSmallChunk(const Sha256Digest& token, Id id, const ReceivedChunk& chunk,
                                     std::string content, const std::optional<Sha256Digest>& contentSha256,
                                     SmallDone<ReceivedChunk> done) {
    auto record = [=, content = std::move(content)](SqliteConnection& connection,
                                                    const Caller& caller) -> SmallResult<ReceivedChunk> {
        const UploadRecord upload = requireOpenUpload(connection, caller, id);
        if (!isInline(upload) || chunk.index >= upload.chunkCount() ||
            upload.chunkLength(chunk.index) != static_cast<std::int64_t>(content.size()))
            return {};
        storeChunk(connection, id, chunk, content, contentSha256);
        return chunk;
    };
    submitSmall<ReceivedChunk>(m_writer, Durability::Relaxed, token, std::move(record), std::move(done));
}

UploadRecord SqliteCatalog::upload(const Caller& caller, Id id) {
    UploadRecord result;
    read([&](SqliteConnection& connection) {
        result = requireOpenUpload(connection, caller, id);
        readChunks(connection, result);
    });
    return result;
}

UploadRecord SqliteCatalog::uploadWithoutChunks(const Caller& caller, Id id) {
    UploadRecord result;
    read([&](SqliteConnection& connection) { result = requireOpenUpload(connection, caller, id); });
    return result;
}

std::vector<UploadRecord> SqliteCatalog::uploads(const Caller& caller) {
    std::vector<UploadRecord> result;
    read([&](SqliteConnection& connection) {
        {
            Query query(connection, HALVANE_UPLOAD_COLUMNS
                        " WHERE user_id = ?1 AND final_file IS NULL AND expires_at > ?2 ORDER BY id");
            query.bind(caller.userId, currentTime());
            while (query.next())
                result.push_back(uploadOf(query));
        }
        for (UploadRecord& upload : result)
            readChunks(connection, upload);
    });
    return result;
}

std::optional<UploadRecord> SqliteCatalog::uploadOfKey(const Caller& caller, const std::string& key) {
    std::optional<UploadRecord> result;
    read([&](SqliteConnection& connection) {
        const auto earlier = findCallResult(connection, caller.userId, openUploadCall, key);
        if (!earlier)
            return;
        result = findUpload(connection, caller, earlier->id);
        if (result)
            readChunks(connection, *result);
    });
    return result;
}

void SqliteCatalog::recordChunk(Id upload, const ReceivedChunk& chunk, const std::string& content,
                                const std::optional<Sha256Digest>& contentSha256) {
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        {
            Query known(connection, "SELECT 1 FROM uploads WHERE id = ?1 AND final_file IS NULL");
            if (!known.bind(upload).next())
                throw uploadGone(upload, "is gone");
        }
        storeChunk(connection, upload, chunk, content, contentSha256);
    });
}

void SqliteCatalog::forgetChunks(Id upload, const std::vector<std::int64_t>& indexes) {
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        for (const std::int64_t index : indexes)
            Query(connection, "DELETE FROM upload_chunks WHERE upload_id = ?1 AND position = ?2")
                .bind(upload, index)
                .run();
    });
}

void SqliteCatalog::setContentSha256(Id upload, const std::optional<Sha256Digest>& sha256) {
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        const int changed =
            Query(connection, "UPDATE uploads SET content_sha256 = ?2 WHERE id = ?1 AND final_file IS NULL")
                .bind(upload, sha256 ? std::optional<std::span<const unsigned char>>(*sha256) : std::nullopt)
                .run();
        if (changed == 0)
            throw uploadGone(upload, "is gone");
    });
}

void SqliteCatalog::clearSuspicion(Id upload) {
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        Query(connection, "UPDATE uploads SET suspect = 0 WHERE id = ?1").bind(upload).run();
    });
}

std::string SqliteCatalog::abandonUpload(const Caller& caller, Id id) {
    std::string name;
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        name = requireOpenUpload(connection, caller, id).blobName;
        deleteUpload(connection, id);
    });
    return name;
}

void SqliteCatalog::beginServing() {
    m_writer.run(Durability::Flushed, [](SqliteConnection& connection) {
        // Ids of uploads that a power cut took are not given to others: their owners may still ask for them.
        connection.execute(
            "UPDATE sqlite_sequence SET seq = min(seq + 65536, 2100000000) WHERE name = 'uploads'"
            " AND seq < 2100000000 AND (SELECT value FROM settings WHERE name = 'serving') = 1;"
            "UPDATE uploads SET suspect = 1 WHERE final_file IS NULL AND (SELECT value FROM settings WHERE "
            "name = 'serving') = 1;"
            "UPDATE settings SET value = 1 WHERE name = 'serving';");
    });
}

void SqliteCatalog::endServing() {
    m_writer.run(Durability::Flushed, [](SqliteConnection& connection) {
        connection.execute("UPDATE settings SET value = 0 WHERE name = 'serving'");
    });
}

bool SqliteCatalog::isBlobNeeded(const std::string& blobName) {
    bool needed = false;
    read([&](SqliteConnection& connection) {
        Query query(connection,
                    "SELECT EXISTS (SELECT 1 FROM versions WHERE blob_name = ?1)"
                    " OR EXISTS (SELECT 1 FROM uploads WHERE blob_name = ?1 AND final_file IS NULL)");
        query.bind(blobName).next();
        needed = query.integer(0) != 0;
    });
    return needed;
}

std::vector<std::string> SqliteCatalog::expire(TimeMs now) {
    constexpr TimeMs keyLifetime = std::chrono::milliseconds(std::chrono::days(31)).count();
    std::vector<std::string> names;
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        names.clear();
        std::vector<Id> ids;
        {
            // A finalised upload is remembered as long as its keys are.
            Query query(connection, "SELECT id, blob_name, final_file FROM uploads WHERE (final_file IS NULL "
                                    "AND expires_at <= ?1)"
                                    " OR (final_file IS NOT NULL AND expires_at <= ?2) LIMIT 1000");
            query.bind(now, now - keyLifetime);
            while (query.next()) {
                ids.push_back(query.integer(0));
                if (query.isNull(2))
                    names.push_back(query.text(1));
            }
        }
        for (const Id id : ids)
            deleteUpload(connection, id);
        Query(connection, "DELETE FROM call_results WHERE created_at < ?1").bind(now - keyLifetime).run();
        Query(connection, "DELETE FROM tokens WHERE expires_at <= ?1").bind(now).run();
    });
    return names;
}

std::vector<std::string> SqliteCatalog::garbage() {
    std::vector<std::string> names;
    read([&](SqliteConnection& connection) {
        Query query(connection, "SELECT blob_name FROM garbage LIMIT 10000");
        while (query.next())
            names.push_back(query.text(0));
    });
    return names;
}

void SqliteCatalog::forgetGarbage(const std::vector<std::string>& blobNames) {
    m_writer.run(Durability::Relaxed, [&](SqliteConnection& connection) {
        for (const std::string& name : blobNames)
            Query(connection, "DELETE FROM garbage WHERE blob_name = ?1").bind(name).run();
    });
}

void SqliteCatalog::check() {
    read([](SqliteConnection& connection) {
        Query query(connection, "SELECT 1 FROM settings LIMIT 1");
        query.next();
    });
}

} // namespace halvane::server
