// The catalogue: accounts, folders, files, versions, privileges and open uploads. One plain interface, so
// that another database can stand behind it. Every function is one transaction, may be called from any
// thread, blocks until it is done, and throws ApiError: NotFound for what does not exist or may not be read
// by the caller, NoPrivilege for what may be read but not done, StorageFull when the database has no room,
// Internal for a fault. Unless a function says otherwise, what it changed is durable when it returns.
#pragma once

#include "core/errors.h"
#include "store/records.h"

#include <functional>
#include <memory>
#include <span>
#include <variant>

namespace halvane::server {

// What the caller has of a listing.
struct KnownListing {
    std::string tags;          // If-None-Match; empty for nothing
    bool takesChanges = false; // what is new or changed since its one tag is enough
};

// The state of a listing: with an unchanged tag no item was visited; with a base only those that are new or
// changed since the listing had that tag, of which nothing has gone.
struct ListingState {
    std::string etag; // with its quotes
    bool notModified = false;
    std::string base;
};

using FinalisationOutcome = std::variant<FinalizedFile, ApiError>;

// How a small call ended. A refused one left nothing.
template <typename Result>
struct SmallOutcome {
    std::string user;              // empty when the token is not valid
    std::uint64_t transaction = 0; // the same for what was committed together
    std::variant<std::monostate, Result, ApiError> result;

    // Nothing was done, since it is no small call, or not to be judged by one: the others tell.
    bool isDeclined() const { return result.index() == 0; }
};
// Called once, on the catalogue's thread, when the call is committed or refused; must be quick and must not
// throw.
template <typename Result>
using SmallDone = std::function<void(SmallOutcome<Result>)>;

class CatalogStore {
public:
    virtual ~CatalogStore() = default;

    // --- accounts ---
    virtual Id createUser(const NewUser& user) = 0; // BadRequest when the name is taken or a group is unknown
    virtual Id createGroup(const std::string& name) = 0; // BadRequest when the name is taken
    virtual void grant(Id folder, const std::string& group,
                       PrivilegeSet privileges) = 0; // replaces the group's set
    virtual std::optional<Credentials> credentials(const std::string& userName) = 0;
    virtual void addToken(const Sha256Digest& hash, Id user, TimeMs expires) = 0;
    virtual void revokeToken(const Sha256Digest& hash) = 0;
    // Nothing for an unknown or revoked token and for one that has expired at `now`.
    virtual std::optional<Caller> callerOfToken(const Sha256Digest& hash, TimeMs now) = 0;
    virtual Caller caller(Id user) = 0;
    virtual std::vector<Group> groups(const Caller& caller) = 0;
    // A setting of the data directory, as init wrote it; empty when there is none.
    virtual std::string setting(const std::string& name) = 0;

    // --- folders ---
    virtual FolderRecord folder(const Caller& caller, Id id) = 0;
    // Calls `item` for each entry by id, unless `known` spares it, all in one snapshot.
    virtual ListingState subfolders(const Caller& caller, Id id, const KnownListing& known,
                                    const std::function<void(const FolderRecord&)>& item) = 0;
    virtual ListingState files(const Caller& caller, Id id, const KnownListing& known,
                               const std::function<void(const FileRecord&)>& item) = 0;
    virtual Id createFolder(const Caller& caller, Id parent, const std::string& name,
                            const std::vector<Id>& groups, const CallKey& key) = 0;
    // Makes the folder and everything below it absent, open uploads into it included.
    virtual void removeFolder(Id id) = 0;

    // --- files ---
    virtual FileRecord file(const Caller& caller, Id id) = 0;
    virtual std::vector<PathStep> filePath(const Caller& caller, Id id) = 0;
    virtual std::vector<VersionRecord> versions(const Caller& caller, Id id) = 0;
    // The last version when none is given.
    virtual ContentRecord content(const Caller& caller, Id file, std::optional<std::int64_t> version) = 0;
    // The JSON object that came with the finalisation of that version (the last one when none is given); an
    // empty one when none came.
    virtual std::string trace(const Caller& caller, Id file, std::optional<std::int64_t> version) = 0;
    virtual void setExtendedMetadata(const Caller& caller, Id file,
                                     const std::vector<std::pair<std::string, std::string>>& values) = 0;
    virtual std::vector<std::pair<std::string, std::string>> extendedMetadata(const Caller& caller,
                                                                              Id file) = 0;

    // --- uploads: committed, but durable only with the next finalisation: what a power cut takes of them is
    // noticed and sent again ---
    virtual UploadRecord openUpload(const Caller& caller, const NewUpload& upload, const CallKey& key) = 0;
    // An open upload of the caller with its chunks; UploadGone for a finalised or expired one.
    virtual UploadRecord upload(const Caller& caller, Id id) = 0;
    // The same without its chunks.
    virtual UploadRecord uploadWithoutChunks(const Caller& caller, Id id) = 0;
    virtual std::vector<UploadRecord> uploads(const Caller& caller) = 0;
    // The upload that the caller opened with that key, with its chunks, finalised or not; nothing when the
    // key is unknown.
    virtual std::optional<UploadRecord> uploadOfKey(const Caller& caller, const std::string& key) = 0;
    // Marks a chunk as received (content: of an inline upload, else empty), and sets the content's SHA-256
    // when given.
    virtual void recordChunk(Id upload, const ReceivedChunk& chunk, const std::string& content,
                             const std::optional<Sha256Digest>& contentSha256) = 0;
    virtual void forgetChunks(Id upload, const std::vector<std::int64_t>& indexes) = 0;
    virtual void setContentSha256(Id upload, const std::optional<Sha256Digest>& sha256) = 0;
    virtual void clearSuspicion(Id upload) = 0;
    // Returns the name of its staging file.
    virtual std::string abandonUpload(const Caller& caller, Id id) = 0;

    // --- finalisation ---
    // The result of a finalisation of that key; IdempotencyMismatch when the fingerprint is another one;
    // nothing when unknown.
    virtual std::optional<FinalizedFile> finalizedOfKey(const Caller& caller, const CallKey& key) = 0;
    // The same whatever the call asked.
    virtual std::optional<FinalizedFile> finalizedOfKey(const Caller& caller, const std::string& key) = 0;
    virtual FinalizedFile finalizedFile(Id file, std::int64_t version) = 0;
    // Makes the versions of a batch in one transaction, one outcome for each; a member that fails leaves
    // nothing and does not touch the others. The content of an inline upload is verified here; one that
    // differs from its SHA-256 loses that.
    virtual std::vector<FinalisationOutcome> commit(std::span<const Finalisation> batch) = 0;

    // --- the calls of a small upload: each returns at once and is one transaction with its caller's token,
    // shared with whatever else waits. Declined for every token that is not valid ---
    // Begins with what was submitted; nothing of it need begin earlier.
    virtual void beginSmallCalls() = 0;
    virtual void openUpload(const Sha256Digest& token, NewUpload upload, CallKey key,
                            SmallDone<UploadRecord> done) = 0;
    // The verified content of a chunk; declined unless it is one of an open inline upload and fits.
    virtual void recordSmallChunk(const Sha256Digest& token, Id upload, const ReceivedChunk& chunk,
                                  std::string content, const std::optional<Sha256Digest>& contentSha256,
                                  SmallDone<ReceivedChunk> done) = 0;
    // `request` without its caller and its sha256; declined unless it is done already or its upload is an
    // open inline one whose content is what it should be.
    virtual void finalizeSmall(const Sha256Digest& token, Finalisation request,
                               SmallDone<FinalizedFile> done) = 0;

    // --- housekeeping ---
    // Tells that a process begins to serve. Uploads are suspect from here on unless the last one said
    // endServing.
    virtual void beginServing() = 0;
    virtual void endServing() = 0;
    // True while a version or an open upload names it, judged in one snapshot.
    virtual bool isBlobNeeded(const std::string& blobName) = 0;
    // Removes expired uploads and tokens and old keys; returns the staging files that nothing needs any more.
    virtual std::vector<std::string> expire(TimeMs now) = 0;
    // Blobs of removed versions: to be unlinked, then forgotten.
    virtual std::vector<std::string> garbage() = 0;
    virtual void forgetGarbage(const std::vector<std::string>& blobNames) = 0;
    // One cheap read, for the health call.
    virtual void check() = 0;
};

} // namespace halvane::server
