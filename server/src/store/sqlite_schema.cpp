#include "store/sqlite_schema.h"

#include "core/times.h"
#include "store/sqlite_connection.h"

namespace halvane::server {

namespace {

// AUTOINCREMENT: an id is never used twice, so that a reference to a removed thing never meets another one.
constexpr const char* tables = R"sql(
CREATE TABLE settings (name TEXT PRIMARY KEY, value NOT NULL) WITHOUT ROWID;

CREATE TABLE users (
    id INTEGER PRIMARY KEY AUTOINCREMENT CHECK (id <= 2147483647),
    name TEXT NOT NULL UNIQUE, password_hash TEXT NOT NULL, is_admin INTEGER NOT NULL, created_at INTEGER NOT NULL);
CREATE TABLE groups (
    id INTEGER PRIMARY KEY AUTOINCREMENT CHECK (id <= 2147483647),
    name TEXT NOT NULL UNIQUE);
CREATE TABLE memberships (
    user_id INTEGER NOT NULL REFERENCES users (id), group_id INTEGER NOT NULL REFERENCES groups (id),
    PRIMARY KEY (user_id, group_id)) WITHOUT ROWID;
CREATE TABLE tokens (
    hash BLOB PRIMARY KEY, user_id INTEGER NOT NULL REFERENCES users (id), expires_at INTEGER NOT NULL) WITHOUT ROWID;

CREATE TABLE folders (
    id INTEGER PRIMARY KEY AUTOINCREMENT CHECK (id <= 2147483647),
    parent_id INTEGER REFERENCES folders (id), name TEXT NOT NULL, depth INTEGER NOT NULL,
    created_at INTEGER NOT NULL, created_by INTEGER,
    files_change INTEGER NOT NULL DEFAULT 0, folders_change INTEGER NOT NULL DEFAULT 0,
    folders_removed INTEGER NOT NULL DEFAULT 0, listed_change INTEGER NOT NULL DEFAULT 0);
CREATE INDEX folders_by_parent ON folders (parent_id, id);
CREATE INDEX folders_by_change ON folders (parent_id, listed_change);
CREATE TABLE grants (
    folder_id INTEGER NOT NULL REFERENCES folders (id), group_id INTEGER NOT NULL REFERENCES groups (id),
    privileges INTEGER NOT NULL, PRIMARY KEY (folder_id, group_id)) WITHOUT ROWID;

CREATE TABLE files (
    id INTEGER PRIMARY KEY AUTOINCREMENT CHECK (id <= 2147483647),
    folder_id INTEGER NOT NULL REFERENCES folders (id), name TEXT NOT NULL, last_version INTEGER NOT NULL,
    created_at INTEGER NOT NULL, created_by INTEGER NOT NULL, listed_change INTEGER NOT NULL DEFAULT 0);
CREATE INDEX files_by_folder ON files (folder_id, id);
CREATE INDEX files_by_change ON files (folder_id, listed_change);
CREATE TABLE small_contents (id INTEGER PRIMARY KEY AUTOINCREMENT, content BLOB NOT NULL);
CREATE TABLE versions (
    file_id INTEGER NOT NULL REFERENCES files (id), version INTEGER NOT NULL,
    size INTEGER NOT NULL, sha256 BLOB NOT NULL, alias TEXT NOT NULL, data_type TEXT NOT NULL,
    source_modified_at INTEGER, created_at INTEGER NOT NULL, created_by INTEGER NOT NULL,
    blob_name TEXT, small_content_id INTEGER REFERENCES small_contents (id),
    PRIMARY KEY (file_id, version)) WITHOUT ROWID;
CREATE UNIQUE INDEX versions_by_blob ON versions (blob_name) WHERE blob_name IS NOT NULL;
CREATE INDEX versions_by_small_content ON versions (small_content_id) WHERE small_content_id IS NOT NULL;
CREATE TABLE traces (
    id INTEGER PRIMARY KEY, file_id INTEGER NOT NULL, version INTEGER NOT NULL, trace TEXT NOT NULL,
    UNIQUE (file_id, version), FOREIGN KEY (file_id, version) REFERENCES versions (file_id, version));
CREATE TABLE extended_metadata (
    file_id INTEGER NOT NULL REFERENCES files (id), position INTEGER NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL,
    PRIMARY KEY (file_id, position));

CREATE TABLE uploads (
    id INTEGER PRIMARY KEY AUTOINCREMENT CHECK (id <= 2147483647),
    user_id INTEGER NOT NULL REFERENCES users (id), name TEXT NOT NULL, size INTEGER NOT NULL,
    target_id INTEGER NOT NULL, target_type INTEGER NOT NULL, chunk_size INTEGER NOT NULL, blob_name TEXT NOT NULL,
    source_modified_at INTEGER, expected_version INTEGER, content_sha256 BLOB,
    created_at INTEGER NOT NULL, expires_at INTEGER NOT NULL, suspect INTEGER NOT NULL DEFAULT 0,
    final_file INTEGER, final_version INTEGER);
CREATE INDEX uploads_by_user ON uploads (user_id, id) WHERE final_file IS NULL;
CREATE INDEX uploads_by_expiry ON uploads (expires_at);
CREATE INDEX uploads_by_target ON uploads (target_type, target_id);
CREATE UNIQUE INDEX uploads_by_blob ON uploads (blob_name);
CREATE TABLE upload_chunks (
    upload_id INTEGER NOT NULL REFERENCES uploads (id), position INTEGER NOT NULL, xxh3 BLOB NOT NULL, content BLOB,
    PRIMARY KEY (upload_id, position));
CREATE TABLE call_results (
    user_id INTEGER NOT NULL REFERENCES users (id), call TEXT NOT NULL, key TEXT NOT NULL, fingerprint BLOB NOT NULL,
    result_id INTEGER NOT NULL, result_version INTEGER NOT NULL, created_at INTEGER NOT NULL,
    PRIMARY KEY (user_id, call, key)) WITHOUT ROWID;
CREATE INDEX call_results_by_age ON call_results (created_at);
CREATE TABLE garbage (blob_name TEXT PRIMARY KEY) WITHOUT ROWID;
)sql";

// Version 1 did not note when the item of a listing changed: what changed since a tag is known only for the
// tags to come.
constexpr const char* fromVersion1 = R"sql(
ALTER TABLE folders ADD COLUMN folders_removed INTEGER NOT NULL DEFAULT 0;
ALTER TABLE folders ADD COLUMN listed_change INTEGER NOT NULL DEFAULT 0;
ALTER TABLE files ADD COLUMN listed_change INTEGER NOT NULL DEFAULT 0;
UPDATE folders SET files_change = files_change + 1, folders_change = folders_change + 1;
UPDATE folders SET folders_removed = folders_change;
UPDATE files SET listed_change = (SELECT files_change FROM folders WHERE folders.id = files.folder_id);
CREATE INDEX folders_by_change ON folders (parent_id, listed_change);
CREATE INDEX files_by_change ON files (folder_id, listed_change);
)sql";

std::int64_t versionOf(SqliteConnection& connection) {
    Query query(connection, "PRAGMA user_version");
    query.next();
    return query.integer(0);
}

void setVersion(SqliteConnection& connection) {
    connection.execute(("PRAGMA user_version=" + std::to_string(schemaVersion)).c_str());
}

} // namespace

void createSchema(SqliteConnection& connection,
                  const std::vector<std::pair<std::string, std::string>>& settings) {
    connection.execute("BEGIN IMMEDIATE");
    connection.execute(tables);
    Query(connection,
          "INSERT INTO folders (id, parent_id, name, depth, created_at) VALUES (1, NULL, '/', 0, ?1)")
        .bind(currentTime())
        .run();
    for (const auto& [name, value] : settings)
        Query(connection, "INSERT INTO settings (name, value) VALUES (?1, ?2)").bind(name, value).run();
    connection.execute("INSERT INTO settings (name, value) VALUES ('access_change', 0), ('serving', 0)");
    setVersion(connection);
    connection.execute("COMMIT");
}

void upgradeSchema(SqliteConnection& connection) {
    if (versionOf(connection) != 1)
        return;
    connection.execute("BEGIN IMMEDIATE");
    connection.execute(fromVersion1);
    setVersion(connection);
    connection.execute("COMMIT");
}

void requireSchema(SqliteConnection& connection, const std::string& path) {
    const std::int64_t version = versionOf(connection);
    if (version == 0)
        throw ApiError(ErrorCode::Internal,
                       "'" + path +
                           "' is not a catalogue; prepare the data directory with 'halvane-server init'.");
    if (version < schemaVersion)
        throw ApiError(ErrorCode::Internal,
                       "The catalogue '" + path +
                           "' was written by an earlier version of halvane-server; start "
                           "the server once, which brings it up to this version.");
    if (version > schemaVersion)
        throw ApiError(ErrorCode::Internal,
                       "The catalogue '" + path +
                           "' was written by a later version of halvane-server; use that one.");
}

} // namespace halvane::server
