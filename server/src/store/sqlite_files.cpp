// The files and versions of the SQLite catalogue.
#include "store/listing_queries.h"
#include "store/listing_tag.h"
#include "store/sqlite_access.h"
#include "store/sqlite_catalog.h"

namespace halvane::server {

#define HALVANE_FILE_COLUMNS_FROM(files)                                                                     \
    "SELECT f.id, f.folder_id, f.name, v.alias, f.last_version, v.size, v.sha256, v.data_type, "             \
    "f.created_at,"                                                                                          \
    " v.created_at, v.source_modified_at, u.name FROM " files                                                \
    " JOIN versions v ON v.file_id = f.id AND v.version = f.last_version LEFT JOIN users u ON u.id = "       \
    "f.created_by"
#define HALVANE_FILE_COLUMNS HALVANE_FILE_COLUMNS_FROM("files f")

// The index is named so that it stays the one: the order of ids would be a reason to go through all of them.
const char* const changedFilesQuery = HALVANE_FILE_COLUMNS_FROM(
    "files f INDEXED BY files_by_change") " WHERE f.folder_id = ?1 AND f.listed_change > ?2 ORDER BY f.id";

namespace {

constexpr const char* allFiles = HALVANE_FILE_COLUMNS " WHERE f.folder_id = ?1 ORDER BY f.id";

FileRecord fileOf(const Query& row) {
    return {row.integer(0),
            row.integer(1),
            row.text(2),
            row.text(3),
            row.integer(4),
            row.integer(5),
            row.digest<Sha256Digest>(6),
            row.text(7),
            row.integer(8),
            row.integer(9),
            row.optionalInteger(10),
            row.text(11)};
}

} // namespace

FileRecord SqliteCatalog::file(const Caller& caller, Id id) {
    FileRecord result;
    read([&](SqliteConnection& connection) {
        (void)requireReadableFile(connection, caller, id);
        Query query(connection, HALVANE_FILE_COLUMNS " WHERE f.id = ?1");
        query.bind(id).next();
        result = fileOf(query);
    });
    return result;
}

ListingState SqliteCatalog::files(const Caller& caller, Id id, const KnownListing& known,
                                  const std::function<void(const FileRecord&)>& item) {
    ListingState state;
    read([&](SqliteConnection& connection) {
        const FolderAccess access = requireReadableOrRoot(connection, caller, id);
        const bool hidden = !access.here().has(Privilege::Read);
        Query change(connection, "SELECT files_change FROM folders WHERE id = ?1");
        change.bind(id).next();
        const ListingTag tag{"\"f" + std::to_string(id) + '-', change.integer(0),
                             hidden ? "-hidden\"" : "\""};
        const auto since = compare(known, tag, 0, state); // files go with their folder only
        if (state.notModified || hidden)
            return;
        Query query(connection, since ? changedFilesQuery : allFiles);
        query.bindAt(1, id);
        if (since)
            query.bindAt(2, *since);
        while (query.next())
            item(fileOf(query));
    });
    return state;
}

std::vector<PathStep> SqliteCatalog::filePath(const Caller& caller, Id id) {
    std::vector<PathStep> path;
    read([&](SqliteConnection& connection) {
        const FolderAccess access = requireReadableFile(connection, caller, id);
        if (access.folder().id != rootFolderId)
            path = access.visiblePath();
    });
    return path;
}

std::vector<VersionRecord> SqliteCatalog::versions(const Caller& caller, Id id) {
    std::vector<VersionRecord> result;
    read([&](SqliteConnection& connection) {
        (void)requireReadableFile(connection, caller, id);
        Query query(connection, "SELECT v.version, v.size, v.sha256, v.alias, v.data_type, v.created_at, "
                                "v.source_modified_at, u.name"
                                " FROM versions v LEFT JOIN users u ON u.id = v.created_by WHERE v.file_id = "
                                "?1 ORDER BY v.version");
        query.bind(id);
        while (query.next())
            result.push_back({query.integer(0), query.integer(1), query.digest<Sha256Digest>(2),
                              query.text(3), query.text(4), query.integer(5), query.optionalInteger(6),
                              query.text(7)});
    });
    return result;
}

ContentRecord SqliteCatalog::content(const Caller& caller, Id file, std::optional<std::int64_t> version) {
    ContentRecord result;
    read([&](SqliteConnection& connection) {
        (void)requireReadableFile(connection, caller, file);
        Query query(connection,
                    "SELECT v.version, v.size, v.sha256, v.created_at, v.blob_name, s.content FROM versions v"
                    " LEFT JOIN small_contents s ON s.id = v.small_content_id WHERE v.file_id = ?1"
                    " AND v.version = COALESCE(?2, (SELECT last_version FROM files WHERE id = ?1))");
        if (!query.bind(file, version).next())
            throw ApiError(ErrorCode::NotFound, "The file " + std::to_string(file) + " has no version " +
                                                    std::to_string(version.value_or(0)) + ".");
        result = {file,
                  query.integer(0),
                  query.integer(1),
                  query.digest<Sha256Digest>(2),
                  query.integer(3),
                  query.text(4),
                  query.text(5)};
    });
    return result;
}

std::string SqliteCatalog::trace(const Caller& caller, Id file, std::optional<std::int64_t> version) {
    std::string result;
    read([&](SqliteConnection& connection) {
        (void)requireReadableFile(connection, caller, file);
        Query query(connection,
                    "SELECT COALESCE(t.trace, '{}') FROM versions v"
                    " LEFT JOIN traces t ON t.file_id = v.file_id AND t.version = v.version"
                    " WHERE v.file_id = ?1"
                    " AND v.version = COALESCE(?2, (SELECT last_version FROM files WHERE id = ?1))");
        if (!query.bind(file, version).next())
            throw ApiError(ErrorCode::NotFound, "The file " + std::to_string(file) + " has no version " +
                                                    std::to_string(version.value_or(0)) + ".");
        result = query.text(0);
    });
    return result;
}

void SqliteCatalog::setExtendedMetadata(const Caller& caller, Id file,
                                        const std::vector<std::pair<std::string, std::string>>& values) {
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        const FolderAccess access = requireReadableFile(connection, caller, file);
        requirePrivilege(access, Privilege::AddFiles, "change files in");
        Query(connection, "DELETE FROM extended_metadata WHERE file_id = ?1").bind(file).run();
        std::int64_t position = 0;
        for (const auto& [key, value] : values)
            Query(connection,
                  "INSERT INTO extended_metadata (file_id, position, key, value) VALUES (?1, ?2, ?3, ?4)")
                .bind(file, position++, key, value)
                .run();
    });
}

std::vector<std::pair<std::string, std::string>> SqliteCatalog::extendedMetadata(const Caller& caller,
                                                                                 Id file) {
    std::vector<std::pair<std::string, std::string>> values;
    read([&](SqliteConnection& connection) {
        (void)requireReadableFile(connection, caller, file);
        Query query(connection,
                    "SELECT key, value FROM extended_metadata WHERE file_id = ?1 ORDER BY position");
        query.bind(file);
        while (query.next())
            values.emplace_back(query.text(0), query.text(1));
    });
    return values;
}

} // namespace halvane::server
