// The folders of the SQLite catalogue.
#include "store/listing_queries.h"
#include "store/listing_tag.h"
#include "store/sqlite_access.h"
#include "store/sqlite_catalog.h"

#include <algorithm>

namespace halvane::server {

namespace {

// Bounds the cost of walking up from a folder.
constexpr std::int64_t maximumDepth = 256;

// True for a folder f that has a sub-folder which the caller (?2: administrator, ?3: ids of the groups, ?4:
// may read f) may read.
#define HALVANE_HAS_READABLE_CHILD                                                                           \
    "EXISTS (SELECT 1 FROM folders c WHERE c.parent_id = f.id AND (?2"                                       \
    " OR (?4 AND NOT EXISTS (SELECT 1 FROM grants g WHERE g.folder_id = c.id))"                              \
    " OR EXISTS (SELECT 1 FROM grants g WHERE g.folder_id = c.id AND g.privileges & 1"                       \
    " AND g.group_id IN (SELECT value FROM json_each(?3)))))"

std::vector<Id> groupIds(const std::vector<Grant>& grants) {
    std::vector<Id> ids;
    ids.reserve(grants.size());
    for (const Grant& grant : grants)
        ids.push_back(grant.groupId);
    return ids;
}

// The item of this folder in its parent's listing is another one since the last change of that listing.
void markListed(SqliteConnection& connection, Id folder) {
    Query(connection, "UPDATE folders SET listed_change = (SELECT p.folders_change FROM folders p"
                      " WHERE p.id = folders.parent_id) WHERE id = ?1 AND parent_id IS NOT NULL")
        .bind(folder)
        .run();
}

void countFolderChange(SqliteConnection& connection, Id folder) {
    // The parent's own listing shows whether this folder has children.
    Query(connection, "UPDATE folders SET folders_change = folders_change + 1"
                      " WHERE id = ?1 OR id = (SELECT parent_id FROM folders WHERE id = ?1)")
        .bind(folder)
        .run();
    markListed(connection, folder);
}

void countFolderRemoval(SqliteConnection& connection, Id parent) {
    countFolderChange(connection, parent);
    Query(connection, "UPDATE folders SET folders_removed = folders_change WHERE id = ?1").bind(parent).run();
}

// Of the listing of its sub-folders; the first change whose successors can be told, since nothing was
// removed.
struct SubfoldersTag {
    ListingTag tag;
    std::int64_t firstBase = 0;
};

SubfoldersTag subfoldersTag(SqliteConnection& connection, const Caller& caller, Id id) {
    Query query(connection,
                "SELECT folders_change, (SELECT value FROM settings WHERE name = 'access_change'),"
                " folders_removed FROM folders WHERE id = ?1");
    query.bind(id).next();
    return {{"\"d" + std::to_string(id) + '-', query.integer(0),
             '-' + query.text(1) + "-u" + std::to_string(caller.userId) + '"'},
            query.integer(2)};
}

} // namespace

#define HALVANE_SUBFOLDERS(index)                                                                            \
    "SELECT f.id, f.name, " HALVANE_HAS_READABLE_CHILD ", o.group_id, o.privileges FROM folders f " index    \
    " LEFT JOIN grants o ON o.folder_id = f.id WHERE f.parent_id = ?1"

// Left to itself SQLite goes through all of them to be spared the sorting of a few.
const char* const changedSubfoldersQuery =
    HALVANE_SUBFOLDERS("INDEXED BY folders_by_change") " AND f.listed_change > ?5 ORDER BY f.id, o.group_id";

namespace {

constexpr const char* allSubfolders = HALVANE_SUBFOLDERS("") " ORDER BY f.id, o.group_id";

void requireVisibleGroups(SqliteConnection& connection, const Caller& caller, const std::vector<Id>& groups) {
    for (const Id group : groups) {
        const bool own = std::any_of(caller.groups.begin(), caller.groups.end(),
                                     [group](const Group& candidate) { return candidate.id == group; });
        Query known(connection, "SELECT 1 FROM groups WHERE id = ?1");
        if (!own && (!caller.isAdmin || !known.bind(group).next()))
            throw ApiError(ErrorCode::NotFound,
                           "There is no group with the id " + std::to_string(group) + ".");
    }
}

Id insertFolder(SqliteConnection& connection, const Caller& caller, const FolderAccess& parent,
                const std::string& name, const std::vector<Id>& groups) {
    const auto depth = static_cast<std::int64_t>(parent.chain.size());
    if (depth > maximumDepth)
        throw ApiError(ErrorCode::BadRequest, "Folders may be nested at most 256 levels deep.");
    Query(connection,
          "INSERT INTO folders (parent_id, name, depth, created_at, created_by) VALUES (?1, ?2, ?3, ?4, ?5)")
        .bind(parent.folder().id, name, depth, currentTime(), caller.userId)
        .run();
    const Id id = connection.database().getLastInsertRowid();
    for (const Id group : groups)
        Query(connection,
              "INSERT OR IGNORE INTO grants (folder_id, group_id, privileges) VALUES (?1, ?2, ?3)")
            .bind(id, group, parent.here().bits())
            .run();
    countFolderChange(connection, parent.folder().id);
    markListed(connection, id);
    return id;
}

} // namespace

FolderRecord SqliteCatalog::folder(const Caller& caller, Id id) {
    FolderRecord result;
    read([&](SqliteConnection& connection) {
        const FolderAccess access = requireReadableOrRoot(connection, caller, id);
        const FolderLink& own = access.folder();
        Query query(connection,
                    "SELECT parent_id, " HALVANE_HAS_READABLE_CHILD " FROM folders f WHERE f.id = ?1");
        query.bind(id, caller.isAdmin, groupIdsJson(caller), access.here().has(Privilege::Read)).next();
        result = {own.id,
                  own.name,
                  query.optionalInteger(0).value_or(-1),
                  query.integer(1) != 0,
                  access.visiblePath(),
                  groupIds(own.grants),
                  access.here()};
    });
    return result;
}

ListingState SqliteCatalog::subfolders(const Caller& caller, Id id, const KnownListing& known,
                                       const std::function<void(const FolderRecord&)>& item) {
    ListingState state;
    read([&](SqliteConnection& connection) {
        const FolderAccess access = requireReadableOrRoot(connection, caller, id);
        const SubfoldersTag tag = subfoldersTag(connection, caller, id);
        const auto since = compare(known, tag.tag, tag.firstBase, state);
        if (state.notModified)
            return;
        const Identity who = caller.identity();
        Query query(connection, since ? changedSubfoldersQuery : allSubfolders);
        query.bind(id, caller.isAdmin, groupIdsJson(caller), true); // only what may be read is shown
        if (since)
            query.bindAt(5, *since);
        FolderRecord current;
        std::vector<Grant> grants;
        const auto emit = [&] {
            current.privileges = privilegesHere(grants, access.here(), who);
            current.groupIds = groupIds(grants);
            if (current.id != 0 && current.privileges.has(Privilege::Read))
                item(current);
        };
        while (query.next()) {
            if (current.id != query.integer(0)) {
                emit();
                current = {query.integer(0), query.text(1), id, query.integer(2) != 0, {}, {}, {}};
                grants.clear();
            }
            if (!query.isNull(3))
                grants.push_back(
                    {query.integer(3), PrivilegeSet(static_cast<std::uint32_t>(query.integer(4)))});
        }
        emit();
    });
    return state;
}

Id SqliteCatalog::createFolder(const Caller& caller, Id parent, const std::string& name,
                               const std::vector<Id>& groups, const CallKey& key) {
    Id id = 0;
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        if (const auto earlier = findCallResult(connection, caller.userId, createFolderCall, key)) {
            id = earlier->id;
            return;
        }
        const FolderAccess access = requireReadableOrRoot(connection, caller, parent);
        requirePrivilege(access, Privilege::CreateFolders, "create folders in");
        requireVisibleGroups(connection, caller, groups);
        id = insertFolder(connection, caller, access, name, groups);
        rememberCallResult(connection, caller.userId, createFolderCall, key, {id, 0});
    });
    return id;
}

void SqliteCatalog::removeFolder(Id id) {
    if (id == rootFolderId)
        throw ApiError(ErrorCode::BadRequest, "The root folder cannot be removed.");
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        {
            Query parent(connection, "SELECT parent_id FROM folders WHERE id = ?1");
            if (!parent.bind(id).next())
                throw ApiError(ErrorCode::NotFound,
                               "There is no folder with the id " + std::to_string(id) + ".");
            countFolderRemoval(connection, parent.integer(0));
        }
        connection.execute("CREATE TEMP TABLE IF NOT EXISTS gone_folders (id INTEGER PRIMARY KEY);"
                           "CREATE TEMP TABLE IF NOT EXISTS gone_files (id INTEGER PRIMARY KEY);"
                           "CREATE TEMP TABLE IF NOT EXISTS gone_uploads (id INTEGER PRIMARY KEY);"
                           "CREATE TEMP TABLE IF NOT EXISTS gone_contents (id INTEGER PRIMARY KEY);"
                           "DELETE FROM gone_folders; DELETE FROM gone_files; DELETE FROM gone_uploads; "
                           "DELETE FROM gone_contents;");
        Query(connection,
              "WITH RECURSIVE tree (id) AS (SELECT ?1 UNION ALL SELECT f.id FROM tree JOIN folders f"
              " ON f.parent_id = tree.id) INSERT INTO gone_folders SELECT id FROM tree")
            .bind(id)
            .run();
        connection.execute(
            "INSERT INTO gone_files SELECT id FROM files WHERE folder_id IN (SELECT id FROM gone_folders);"
            "INSERT INTO gone_uploads SELECT id FROM uploads WHERE (target_type = 1 AND target_id IN (SELECT "
            "id FROM gone_folders))"
            " OR (target_type = 0 AND target_id IN (SELECT id FROM gone_files));"
            "INSERT INTO gone_contents SELECT small_content_id FROM versions WHERE file_id IN (SELECT id "
            "FROM gone_files)"
            " AND small_content_id IS NOT NULL;"
            "INSERT OR IGNORE INTO garbage SELECT blob_name FROM versions WHERE file_id IN (SELECT id FROM "
            "gone_files)"
            " AND blob_name IS NOT NULL;"
            "INSERT OR IGNORE INTO garbage SELECT blob_name FROM uploads WHERE id IN (SELECT id FROM "
            "gone_uploads);"
            "DELETE FROM upload_chunks WHERE upload_id IN (SELECT id FROM gone_uploads);"
            "DELETE FROM uploads WHERE id IN (SELECT id FROM gone_uploads);"
            "DELETE FROM traces WHERE file_id IN (SELECT id FROM gone_files);"
            "DELETE FROM extended_metadata WHERE file_id IN (SELECT id FROM gone_files);"
            "DELETE FROM versions WHERE file_id IN (SELECT id FROM gone_files);"
            "DELETE FROM small_contents WHERE id IN (SELECT id FROM gone_contents);"
            "DELETE FROM files WHERE id IN (SELECT id FROM gone_files);"
            "DELETE FROM grants WHERE folder_id IN (SELECT id FROM gone_folders);"
            "PRAGMA defer_foreign_keys=ON;"
            "DELETE FROM folders WHERE id IN (SELECT id FROM gone_folders);");
    });
}

} // namespace halvane::server
