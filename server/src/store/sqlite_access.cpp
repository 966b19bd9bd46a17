#include "store/sqlite_access.h"

namespace halvane::server {

std::vector<PathStep> FolderAccess::visiblePath() const {
    std::vector<PathStep> path;
    // The root is there for everybody.
    const std::size_t from = chain.size() == 1 ? 0 : visibleFrom(privileges);
    for (std::size_t i = from; i < chain.size(); ++i)
        path.push_back({chain[i].id, chain[i].name});
    return path;
}

namespace {

// An empty chain when there is no such folder.
FolderAccess accessOf(SqliteConnection& connection, const Caller& caller, Id folder) {
    Query query(connection, "WITH RECURSIVE up (id, parent_id, name, distance) AS ("
                            " SELECT id, parent_id, name, 0 FROM folders WHERE id = ?1"
                            " UNION ALL SELECT f.id, f.parent_id, f.name, up.distance + 1"
                            " FROM up JOIN folders f ON f.id = up.parent_id)"
                            " SELECT up.id, up.name, g.group_id, g.privileges"
                            " FROM up LEFT JOIN grants g ON g.folder_id = up.id ORDER BY up.distance DESC");
    query.bind(folder);
    FolderAccess access;
    while (query.next()) {
        if (access.chain.empty() || access.chain.back().id != query.integer(0))
            access.chain.push_back({query.integer(0), query.text(1), {}});
        if (!query.isNull(2))
            access.chain.back().grants.push_back(
                {query.integer(2), PrivilegeSet(static_cast<std::uint32_t>(query.integer(3)))});
    }
    access.privileges = privilegesAlong(access.chain, caller.identity());
    return access;
}

ApiError noSuchFolder(Id folder) {
    return ApiError(ErrorCode::NotFound, "There is no folder with the id " + std::to_string(folder) + ".");
}

} // namespace

std::optional<FolderAccess> readableFolder(SqliteConnection& connection, const Caller& caller, Id folder) {
    FolderAccess access = accessOf(connection, caller, folder);
    if (access.chain.empty() || !access.here().has(Privilege::Read))
        return std::nullopt;
    return access;
}

FolderAccess requireReadable(SqliteConnection& connection, const Caller& caller, Id folder) {
    auto access = readableFolder(connection, caller, folder);
    if (!access)
        throw noSuchFolder(folder);
    return std::move(*access);
}

FolderAccess requireReadableOrRoot(SqliteConnection& connection, const Caller& caller, Id folder) {
    if (folder != rootFolderId)
        return requireReadable(connection, caller, folder);
    FolderAccess access = accessOf(connection, caller, folder);
    // Without reading, the other privileges are worth nothing.
    if (!access.here().has(Privilege::Read))
        access.privileges.back() = PrivilegeSet();
    return access;
}

void requirePrivilege(const FolderAccess& access, Privilege privilege, const std::string& action) {
    if (!access.here().has(privilege))
        throw ApiError(ErrorCode::NoPrivilege, "You may not " + action + " the folder '" +
                                                   access.folder().name + "' (id " +
                                                   std::to_string(access.folder().id) + ").");
}

FolderAccess requireReadableFile(SqliteConnection& connection, const Caller& caller, Id file) {
    std::optional<FolderAccess> access;
    {
        Query query(connection, "SELECT folder_id FROM files WHERE id = ?1");
        query.bind(file);
        if (query.next())
            access = readableFolder(connection, caller, query.integer(0));
    }
    if (!access)
        throw ApiError(ErrorCode::NotFound, "There is no file with the id " + std::to_string(file) + ".");
    return std::move(*access);
}

std::string groupIdsJson(const Caller& caller) {
    std::string json = "[";
    for (const Group& group : caller.groups)
        json += (json.size() > 1 ? "," : "") + std::to_string(group.id);
    return json + "]";
}

namespace {

std::optional<CallResult> findResult(SqliteConnection& connection, Id user, const char* call,
                                     const std::string& key, const Sha256Digest* fingerprint) {
    if (key.empty())
        return std::nullopt;
    Query query(connection, "SELECT result_id, result_version, fingerprint FROM call_results"
                            " WHERE user_id = ?1 AND call = ?2 AND key = ?3");
    query.bind(user, call, key);
    if (!query.next())
        return std::nullopt;
    if (fingerprint != nullptr && query.digest<Sha256Digest>(2) != *fingerprint)
        throw ApiError(ErrorCode::IdempotencyMismatch,
                       "The idempotency key '" + key + "' was used for a different request.");
    return CallResult{query.integer(0), query.integer(1)};
}

} // namespace

std::optional<CallResult> findCallResult(SqliteConnection& connection, Id user, const char* call,
                                         const CallKey& key) {
    return findResult(connection, user, call, key.key, &key.fingerprint);
}

std::optional<CallResult> findCallResult(SqliteConnection& connection, Id user, const char* call,
                                         const std::string& key) {
    return findResult(connection, user, call, key, nullptr);
}

void rememberCallResult(SqliteConnection& connection, Id user, const char* call, const CallKey& key,
                        CallResult result) {
    if (key.key.empty())
        return;
    Query(connection,
          "INSERT INTO call_results (user_id, call, key, fingerprint, result_id, result_version, created_at)"
          " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)")
        .bind(user, call, key.key, std::span<const unsigned char>(key.fingerprint), result.id, result.version,
              currentTime())
        .run();
}

} // namespace halvane::server
