// What the parts of the SQLite catalogue share: folder chains, privileges and the results of calls with a
// key.
#pragma once

#include "store/catalog_store.h"
#include "store/sqlite_connection.h"

namespace halvane::server {

// A folder with everything above it, from the root, and what the caller may do in each.
struct FolderAccess {
    std::vector<FolderLink> chain;
    std::vector<PrivilegeSet> privileges;

    const FolderLink& folder() const { return chain.back(); }
    PrivilegeSet here() const { return privileges.back(); }
    // As the protocol shows it: readable folders without the root, outermost first.
    std::vector<PathStep> visiblePath() const;
};

// Nothing when there is no such folder or the caller may not read it.
std::optional<FolderAccess> readableFolder(SqliteConnection& connection, const Caller& caller, Id folder);
// The same, but throws NotFound.
FolderAccess requireReadable(SqliteConnection& connection, const Caller& caller, Id folder);
// The same, but the root is there for everybody: paths begin at it. Whoever may not read it has no privilege
// there, and finds nothing in it but the sub-folders that he may read.
FolderAccess requireReadableOrRoot(SqliteConnection& connection, const Caller& caller, Id folder);
// Throws NoPrivilege with "You may not <action> the folder ..." unless the privilege is there.
void requirePrivilege(const FolderAccess& access, Privilege privilege, const std::string& action);
// The folder of a file that the caller may read; throws NotFound.
FolderAccess requireReadableFile(SqliteConnection& connection, const Caller& caller, Id file);

std::string groupIdsJson(const Caller& caller);

// Nothing for an unknown or revoked token and for one that has expired at `now`.
std::optional<Caller> findCaller(SqliteConnection& connection, const Sha256Digest& tokenHash, TimeMs now);

struct CallResult {
    Id id = 0;
    std::int64_t version = 0;
};

// The result of an earlier call of that user and key. Throws IdempotencyMismatch when it asked for something
// else.
std::optional<CallResult> findCallResult(SqliteConnection& connection, Id user, const char* call,
                                         const CallKey& key);
std::optional<CallResult> findCallResult(SqliteConnection& connection, Id user, const char* call,
                                         const std::string& key);
// Does nothing for an empty key.
void rememberCallResult(SqliteConnection& connection, Id user, const char* call, const CallKey& key,
                        CallResult result);

inline constexpr const char* createFolderCall = "create-folder";
inline constexpr const char* openUploadCall = "open-upload";
inline constexpr const char* finalizeCall = "finalize";

} // namespace halvane::server
