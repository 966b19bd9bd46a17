// The catalogue in one SQLite database: reads on pooled connections, writes through one SqliteWriter.
#pragma once

#include "store/catalog_store.h"
#include "store/sqlite_writer.h"

#include <mutex>

namespace halvane::server {

struct FolderAccess;

class SqliteCatalog final : public CatalogStore {
public:
    // Opens a catalogue that was created. Throws ApiError with a message for the operator.
    explicit SqliteCatalog(const std::string& path);
    // Makes a new, empty one with the root folder and these settings, durably.
    static void create(const std::string& path,
                       const std::vector<std::pair<std::string, std::string>>& settings);
    // Brings one of an earlier version up to this one; only while no server works with it.
    static void upgrade(const std::string& path);

    Id createUser(const NewUser& user) override;
    Id createGroup(const std::string& name) override;
    void grant(Id folder, const std::string& group, PrivilegeSet privileges) override;
    std::optional<Credentials> credentials(const std::string& userName) override;
    void addToken(const Sha256Digest& hash, Id user, TimeMs expires) override;
    void revokeToken(const Sha256Digest& hash) override;
    std::optional<Caller> callerOfToken(const Sha256Digest& hash, TimeMs now) override;
    Caller caller(Id user) override;
    std::vector<Group> groups(const Caller& caller) override;
    std::string setting(const std::string& name) override;

    FolderRecord folder(const Caller& caller, Id id) override;
    ListingState subfolders(const Caller& caller, Id id, const KnownListing& known,
                            const std::function<void(const FolderRecord&)>& item) override;
    ListingState files(const Caller& caller, Id id, const KnownListing& known,
                       const std::function<void(const FileRecord&)>& item) override;
    Id createFolder(const Caller& caller, Id parent, const std::string& name, const std::vector<Id>& groups,
                    const CallKey& key) override;
    void removeFolder(Id id) override;

    FileRecord file(const Caller& caller, Id id) override;
    std::vector<PathStep> filePath(const Caller& caller, Id id) override;
    std::vector<VersionRecord> versions(const Caller& caller, Id id) override;
    ContentRecord content(const Caller& caller, Id file, std::optional<std::int64_t> version) override;
    std::string trace(const Caller& caller, Id file, std::optional<std::int64_t> version) override;
    void setExtendedMetadata(const Caller& caller, Id file,
                             const std::vector<std::pair<std::string, std::string>>& values) override;
    std::vector<std::pair<std::string, std::string>> extendedMetadata(const Caller& caller, Id file) override;

    UploadRecord openUpload(const Caller& caller, const NewUpload& upload, const CallKey& key) override;
    UploadRecord upload(const Caller& caller, Id id) override;
    UploadRecord uploadWithoutChunks(const Caller& caller, Id id) override;
    std::vector<UploadRecord> uploads(const Caller& caller) override;
    std::optional<UploadRecord> uploadOfKey(const Caller& caller, const std::string& key) override;
    void recordChunk(Id upload, const ReceivedChunk& chunk, const std::string& content,
                     const std::optional<Sha256Digest>& contentSha256) override;
    void forgetChunks(Id upload, const std::vector<std::int64_t>& indexes) override;
    void setContentSha256(Id upload, const std::optional<Sha256Digest>& sha256) override;
    void clearSuspicion(Id upload) override;
    std::string abandonUpload(const Caller& caller, Id id) override;

    std::optional<FinalizedFile> finalizedOfKey(const Caller& caller, const CallKey& key) override;
    std::optional<FinalizedFile> finalizedOfKey(const Caller& caller, const std::string& key) override;
    FinalizedFile finalizedFile(Id file, std::int64_t version) override;
    std::vector<FinalisationOutcome> commit(std::span<const Finalisation> batch) override;

    void beginSmallCalls() override { m_writer.begin(); }
    void openUpload(const Sha256Digest& token, NewUpload upload, CallKey key,
                    SmallDone<UploadRecord> done) override;
    void recordSmallChunk(const Sha256Digest& token, Id upload, const ReceivedChunk& chunk,
                          std::string content, const std::optional<Sha256Digest>& contentSha256,
                          SmallDone<ReceivedChunk> done) override;
    void finalizeSmall(const Sha256Digest& token, Finalisation request,
                       SmallDone<FinalizedFile> done) override;

    void beginServing() override;
    void endServing() override;
    bool isBlobNeeded(const std::string& blobName) override;
    std::vector<std::string> expire(TimeMs now) override;
    std::vector<std::string> garbage() override;
    void forgetGarbage(const std::vector<std::string>& blobNames) override;
    void check() override;

private:
    // Runs `work` in one read snapshot on a pooled connection; what SQLite throws becomes an ApiError.
    void read(const std::function<void(SqliteConnection&)>& work);

    std::string m_path;
    std::mutex m_mutex;
    std::vector<std::unique_ptr<SqliteConnection>> m_idleReaders;
    SqliteWriter m_writer;
};

} // namespace halvane::server
