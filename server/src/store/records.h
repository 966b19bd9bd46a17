// What the catalogue holds, as plain values.
#pragma once

#include "core/hashes.h"
#include "core/privileges.h"
#include "core/times.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace halvane::server {

using Id = std::int64_t; // 1 to 2^31-1

inline constexpr Id rootFolderId = 1;
inline constexpr Id maximumId = 0x7FFFFFFF;

struct Group {
    Id id = 0;
    std::string name;
};

// Who makes a call: the user of a valid token, with everything that privileges depend on.
struct Caller {
    Id userId = 0;
    std::string name;
    bool isAdmin = false;
    std::vector<Group> groups;
    TimeMs tokenExpires = 0;

    Identity identity() const {
        Identity result{isAdmin, {}};
        for (const Group& group : groups)
            result.groupIds.push_back(group.id);
        return result;
    }
};

struct Credentials {
    Id userId = 0;
    std::string passwordHash;
};

struct NewUser {
    std::string name;
    std::string passwordHash;
    bool isAdmin = false;
    std::vector<std::string> groups; // names
};

struct PathStep {
    Id folderId = 0;
    std::string name;
};

struct FolderRecord {
    Id id = 0;
    std::string name;
    Id parentId = -1;
    bool hasChildren = false;
    std::vector<PathStep> path; // empty in listings
    std::vector<Id> groupIds;   // with a privilege set on this very folder
    PrivilegeSet privileges;    // of the caller
};

struct FileRecord {
    Id id = 0;
    Id folderId = 0;
    std::string name;
    std::string alias;
    std::int64_t lastVersion = 0;
    std::int64_t size = 0;
    Sha256Digest sha256{};
    std::string dataType;
    TimeMs createdAt = 0;
    TimeMs modifiedAt = 0;
    std::optional<TimeMs> sourceModifiedAt;
    std::string createdBy;
};

struct VersionRecord {
    std::int64_t version = 0;
    std::int64_t size = 0;
    Sha256Digest sha256{};
    std::string alias;
    std::string dataType;
    TimeMs createdAt = 0;
    std::optional<TimeMs> sourceModifiedAt;
    std::string createdBy;
};

// Where the bytes of a version are: in the catalogue (inlineContent) or in the blob of that name.
struct ContentRecord {
    Id fileId = 0;
    std::int64_t version = 0;
    std::int64_t size = 0;
    Sha256Digest sha256{};
    TimeMs createdAt = 0;
    std::string blobName;
    std::string inlineContent;
};

// The identity of one call for idempotency: the caller's key and a fingerprint of everything the call asks.
// An empty key: none.
struct CallKey {
    std::string key;
    Sha256Digest fingerprint{};
};

enum class TargetType { File = 0, Folder = 1 };

struct NewUpload {
    std::string name;
    std::int64_t size = 0;
    Id targetId = 0;
    TargetType targetType = TargetType::Folder;
    std::optional<TimeMs> sourceModifiedAt;
    std::optional<std::int64_t> expectedVersion;
    std::int64_t chunkSize = 0;
    std::string stagingName; // random part of the staging file's name
};

struct ReceivedChunk {
    std::int64_t index = 0;
    Xxh3Digest xxh3{};
};

struct UploadRecord {
    Id id = 0;
    Id userId = 0;
    std::string name;
    std::int64_t size = 0;
    Id targetId = 0;
    TargetType targetType = TargetType::Folder;
    std::int64_t chunkSize = 0;
    std::string blobName; // of the staging file, and of the blob that it becomes
    std::optional<TimeMs> sourceModifiedAt;
    std::optional<std::int64_t> expectedVersion;
    std::optional<Sha256Digest> contentSha256;
    TimeMs createdAt = 0;
    TimeMs expiresAt = 0;
    bool suspect = false; // its staged bytes may have been lost in an unclean stop
    std::optional<std::pair<Id, std::int64_t>> finalized; // file and version
    std::vector<ReceivedChunk> chunks;                    // by index; only where a call says so

    std::int64_t chunkCount() const { return (size + chunkSize - 1) / chunkSize; }
    std::int64_t chunkLength(std::int64_t index) const {
        return index + 1 < chunkCount() ? chunkSize : size - index * chunkSize;
    }
};

// Contents below this size live in the catalogue, so that they share its flush.
inline constexpr std::int64_t inlineContentLimit = 64 * 1024;

inline bool isInline(const UploadRecord& upload) {
    return upload.size < inlineContentLimit;
}

// What a finalisation made; the reply of the call and of every repetition of it.
struct FinalizedFile {
    Id fileId = 0;
    std::int64_t version = 0;
    Id folderId = 0;
    std::string name;
    std::int64_t size = 0;
    Sha256Digest sha256{};
    bool isNew = false; // made by this very call
};

// One finalisation. A content of inlineContentLimit bytes or more has been verified and is durable.
struct Finalisation {
    Caller caller;
    Id uploadId = 0;
    CallKey key;
    std::string alias;
    std::string dataType;
    std::string trace;     // JSON object
    Sha256Digest sha256{}; // verified; not of inline uploads, whose own one counts
};

} // namespace halvane::server
