// The catalogue, the blob store and the committer on a directory of their own.
#include "blobs/blob_store.h"
#include "store/listing_queries.h"
#include "store/sqlite_catalog.h"
#include "store/sqlite_connection.h"
#include "support/temporary_directory.h"
#include "uploads/finalizer.h"
#include "uploads/sweeper.h"
#include "uploads/upload_sessions.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <vector>

namespace halvane::server {

namespace fs = std::filesystem;

namespace {

class CatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        SqliteCatalog::create(path(), {{"password_passes", "1"}});
        BlobStore::create(m_directory.path());
        reopen();
        m_admin = m_catalog->caller(m_catalog->createUser({"root", "hash", true, {}}));
    }

    std::string path() const { return m_directory.file("catalog.sqlite3"); }
    void reopen() {
        m_catalog.reset();
        m_catalog = std::make_unique<SqliteCatalog>(path());
    }
    NewUpload newUpload(const std::string& name, std::int64_t size) const {
        NewUpload upload;
        upload.name = name;
        upload.size = size;
        upload.targetId = rootFolderId;
        upload.chunkSize = 100'000;
        upload.stagingName = BlobStore::newName();
        return upload;
    }
    // An upload of a small content that lacks nothing but its finalisation.
    Finalisation completeUpload(const std::string& name, const std::string& content) {
        const UploadRecord upload =
            m_catalog->openUpload(m_admin, newUpload(name, static_cast<std::int64_t>(content.size())), {});
        if (!content.empty())
            m_catalog->recordChunk(upload.id, {0, Xxh3::of(content)}, content, Sha256::of(content));
        Finalisation request;
        request.caller = m_admin;
        request.uploadId = upload.id;
        request.dataType = "Regular";
        request.trace = "{}";

        return request;
    }
    static ErrorCode codeOf(const std::function<void()>& call) {
        try {
            call();
        } catch (const ApiError& error) {
            return error.code();
        }
        ADD_FAILURE() << "nothing was thrown";
        return {};
    }

    TemporaryDirectory m_directory;
    std::unique_ptr<SqliteCatalog> m_catalog;
    Caller m_admin;
    Metrics m_metrics;
};

} // namespace

TEST_F(CatalogTest, ABatchIsOneTransactionInWhichAFailingMemberHarmsNoOther) {
    std::vector<Finalisation> batch{completeUpload("a", "one"), completeUpload("b", "two"),
                                    completeUpload("c", "three")};
    batch[1].uploadId = 999;
    const auto outcomes = m_catalog->commit(batch);
    EXPECT_EQ(std::get<FinalizedFile>(outcomes[0]).name, "a");
    EXPECT_EQ(std::get<ApiError>(outcomes[1]).code(), ErrorCode::NotFound);
    EXPECT_EQ(std::get<FinalizedFile>(outcomes[2]).name, "c");
    EXPECT_EQ(m_catalog->content(m_admin, std::get<FinalizedFile>(outcomes[2]).fileId, 1).inlineContent,
              "three");
}

namespace {

class SmallCallsTest : public CatalogTest {
protected:
    void SetUp() override {
        CatalogTest::SetUp();
        m_catalog->addToken(m_token, m_admin.userId, currentTime() + 1'000'000);
    }

    template <typename Result, typename Call>
    SmallOutcome<Result> outcomeOf(const Call& submit) {
        std::promise<SmallOutcome<Result>> made;
        submit([&](SmallOutcome<Result> outcome) { made.set_value(std::move(outcome)); });
        m_catalog->beginSmallCalls();
        return made.get_future().get();
    }
    SmallOutcome<UploadRecord> open(std::int64_t size, const Sha256Digest& token) {
        return outcomeOf<UploadRecord>(
            [&](const auto& done) { m_catalog->openUpload(token, newUpload("a", size), {}, done); });
    }
    SmallOutcome<ReceivedChunk> record(Id upload, const std::string& content) {
        return outcomeOf<ReceivedChunk>([&](const auto& done) {
            m_catalog->recordSmallChunk(m_token, upload, {0, Xxh3::of(content)}, content, m_sha256, done);
        });
    }
    SmallOutcome<FinalizedFile> finalize(Id upload, const CallKey& key = {}) {
        Finalisation request;
        request.uploadId = upload;
        request.key = key;
        request.dataType = "Regular";
        request.trace = "{}";
        return outcomeOf<FinalizedFile>(
            [&](const auto& done) { m_catalog->finalizeSmall(m_token, std::move(request), done); });
    }

    const Sha256Digest m_token = Sha256::of("token");
    const Sha256Digest m_sha256 = Sha256::of("content");
};

} // namespace

TEST_F(SmallCallsTest, MakeAVersionOnceForAKey) {
    const Id id = std::get<UploadRecord>(open(7, m_token).result).id;
    EXPECT_EQ(std::get<ReceivedChunk>(record(id, "content").result).index, 0);
    const CallKey key{"k", Sha256::of("this")};
    const auto first = finalize(id, key);
    EXPECT_EQ(first.user, "root");
    const auto& file = std::get<FinalizedFile>(first.result);
    EXPECT_TRUE(file.isNew);
    EXPECT_EQ(m_catalog->content(m_admin, file.fileId, 1).inlineContent, "content");
    const auto again = std::get<FinalizedFile>(finalize(id, key).result);
    EXPECT_FALSE(again.isNew);
    EXPECT_EQ(again.fileId, file.fileId);
    EXPECT_EQ(std::get<ApiError>(finalize(id, {"k", Sha256::of("that")}).result).code(),
              ErrorCode::IdempotencyMismatch);
}

TEST_F(SmallCallsTest, AreDeclinedForATokenThatIsNotValidAndLeaveNothing) {
    EXPECT_TRUE(open(7, Sha256::of("unknown")).isDeclined());
    m_catalog->revokeToken(m_token);
    EXPECT_TRUE(open(7, m_token).isDeclined());
    EXPECT_TRUE(m_catalog->uploads(m_admin).empty());
}

TEST_F(SmallCallsTest, AreDeclinedForAStagedUploadAndForAChunkThatDoesNotFit) {
    const Id staged = m_catalog->openUpload(m_admin, newUpload("a", inlineContentLimit), {}).id;
    EXPECT_TRUE(record(staged, std::string(inlineContentLimit, 'x')).isDeclined());
    EXPECT_TRUE(finalize(staged).isDeclined());
    const Id small = m_catalog->openUpload(m_admin, newUpload("b", 7), {}).id;
    EXPECT_TRUE(record(small, "longer content").isDeclined());
    EXPECT_TRUE(m_catalog->upload(m_admin, small).chunks.empty());
}

TEST_F(SmallCallsTest, AContentThatDiffersFromItsSha256IsDeclinedAndChangesNothing) {
    const Id id = m_catalog->openUpload(m_admin, newUpload("a", 7), {}).id;
    EXPECT_FALSE(record(id, "CONTENT").isDeclined());
    EXPECT_TRUE(finalize(id).isDeclined());
    EXPECT_TRUE(m_catalog->upload(m_admin, id).contentSha256);
    EXPECT_FALSE(record(id, "content").isDeclined());
    EXPECT_TRUE(std::get<FinalizedFile>(finalize(id).result).isNew);
}

TEST_F(SmallCallsTest, OfOneBatchAreDoneOneAfterTheOtherAndHarmNoOther) {
    const Id first = std::get<UploadRecord>(open(7, m_token).result).id;
    const Id wrong = std::get<UploadRecord>(open(7, m_token).result).id;
    ASSERT_FALSE(record(first, "content").isDeclined());
    ASSERT_FALSE(record(wrong, "CONTENT").isDeclined());
    std::array<std::promise<SmallOutcome<FinalizedFile>>, 4> made;
    const auto submit = [&](std::size_t index, Id upload, const std::string& key) {
        Finalisation request;
        request.uploadId = upload;
        request.key = {key, Sha256::of(std::to_string(upload))};
        request.dataType = "Regular";
        request.trace = "{}";
        m_catalog->finalizeSmall(m_token, std::move(request),
                                 [&made, index](SmallOutcome<FinalizedFile> outcome) {
                                     made[index].set_value(std::move(outcome));
                                 });
    };
    submit(0, first, "one");
    submit(1, wrong, "two");
    submit(2, first, "one");
    submit(3, first, "three");
    m_catalog->beginSmallCalls();
    const auto file = std::get<FinalizedFile>(made[0].get_future().get().result);
    EXPECT_TRUE(file.isNew);
    EXPECT_TRUE(made[1].get_future().get().isDeclined());
    const auto again = std::get<FinalizedFile>(made[2].get_future().get().result);
    EXPECT_FALSE(again.isNew);
    EXPECT_EQ(again.fileId, file.fileId);
    EXPECT_TRUE(made[3].get_future().get().isDeclined());
    EXPECT_EQ(m_catalog->versions(m_admin, file.fileId).size(), 1U);
}

TEST_F(CatalogTest, AKeyIsRememberedOverARestartAndRefusesAnotherRequest) {
    Finalisation request = completeUpload("a", "one");
    request.key = {"k", Sha256::of("this")};
    const auto first = std::get<FinalizedFile>(m_catalog->commit({&request, 1})[0]);
    reopen();
    const auto again = std::get<FinalizedFile>(m_catalog->commit({&request, 1})[0]);
    EXPECT_EQ(again.fileId, first.fileId);
    EXPECT_EQ(again.version, 1);
    request.key.fingerprint = Sha256::of("that");
    EXPECT_EQ(std::get<ApiError>(m_catalog->commit({&request, 1})[0]).code(), ErrorCode::IdempotencyMismatch);
}

TEST_F(CatalogTest, IdsAreNeverUsedTwice) {
    const Id first = m_catalog->createFolder(m_admin, rootFolderId, "a", {}, {});
    m_catalog->removeFolder(first);
    EXPECT_GT(m_catalog->createFolder(m_admin, rootFolderId, "b", {}, {}), first);
}

TEST_F(CatalogTest, UploadsAreSuspectOnlyAfterAnUncleanStop) {
    m_catalog->beginServing();
    const Id id = m_catalog->openUpload(m_admin, newUpload("a", 500'000), {}).id;
    m_catalog->endServing();
    m_catalog->beginServing();
    EXPECT_FALSE(m_catalog->upload(m_admin, id).suspect);
    m_catalog->beginServing(); // the last process did not say that it ended
    EXPECT_TRUE(m_catalog->upload(m_admin, id).suspect);
    EXPECT_GT(m_catalog->openUpload(m_admin, newUpload("b", 1), {}).id,
              id + 10'000); // no id of a lost upload comes again
    m_catalog->clearSuspicion(id);
    EXPECT_FALSE(m_catalog->upload(m_admin, id).suspect);
}

TEST_F(CatalogTest, AnExpiredUploadIsGoneWithItsKey) {
    const UploadRecord upload = m_catalog->openUpload(m_admin, newUpload("a", 10), {"k", {}});
    const TimeMs eightDays = currentTime() + std::chrono::milliseconds(std::chrono::days(8)).count();
    EXPECT_EQ(m_catalog->expire(currentTime()), std::vector<std::string>());
    EXPECT_EQ(m_catalog->expire(eightDays), std::vector<std::string>{upload.blobName});
    EXPECT_EQ(codeOf([&] { (void)m_catalog->upload(m_admin, upload.id); }), ErrorCode::NotFound);
    EXPECT_FALSE(m_catalog->uploadOfKey(m_admin, "k"));
}

TEST_F(CatalogTest, ListingsHaveANewTagExactlyWhenTheyChange) {
    const auto tags = [this](Id folder) {
        const auto folders = m_catalog->subfolders(m_admin, folder, {}, [](const FolderRecord&) {});
        const auto files = m_catalog->files(m_admin, folder, {}, [](const FileRecord&) {});
        return std::make_pair(folders.etag, files.etag);
    };
    const auto begin = tags(rootFolderId);
    const Id folder = m_catalog->createFolder(m_admin, rootFolderId, "a", {}, {});
    const auto withFolder = tags(rootFolderId);
    EXPECT_NE(withFolder.first, begin.first);
    EXPECT_EQ(withFolder.second, begin.second);
    (void)m_catalog->createFolder(m_admin, folder, "b", {},
                                  {}); // the root's listing shows that a has children now
    const auto withGrandchild = tags(rootFolderId);
    EXPECT_NE(withGrandchild.first, withFolder.first);
    const std::vector<Finalisation> batch{completeUpload("f", "x")};
    (void)m_catalog->commit(batch);
    EXPECT_NE(tags(rootFolderId).second, begin.second);
    EXPECT_EQ(tags(rootFolderId).first, withGrandchild.first);
    m_catalog->createGroup("lab");
    m_catalog->grant(folder, "lab", PrivilegeSet::all());
    EXPECT_NE(tags(rootFolderId).first, withGrandchild.first);
}

TEST_F(CatalogTest, WhoKnowsAListingIsToldWhatIsNewOrChangedSinceWhileNothingHasGone) {
    const auto create = [this](const std::string& name, Id parent = rootFolderId) {
        return m_catalog->createFolder(m_admin, parent, name, {}, {});
    };
    const auto list = [this](const KnownListing& known) {
        std::string names;
        const ListingState state = m_catalog->subfolders(
            m_admin, rootFolderId, known, [&](const FolderRecord& folder) { names += folder.name + ';'; });
        return std::make_pair(state, names);
    };
    const Id a = create("a");
    const Id b = create("b");
    const std::string begin = list({}).first.etag;
    create("c");
    create("below a", a);
    const auto [changes, changed] = list({begin, true});
    EXPECT_EQ(changes.base, begin);
    EXPECT_EQ(changed, "a;c;");
    EXPECT_EQ(list({changes.etag, true}).first.notModified, true);
    for (const KnownListing& other :
         {KnownListing{begin, false}, KnownListing{"", true}, KnownListing{"\"d1-x-0-u1\"", true},
          KnownListing{"\"d1-999-0-u1\"", true}, KnownListing{begin + ", " + begin, true},
          KnownListing{"\"d2" + begin.substr(3), true}}) {
        const auto [state, names] = list(other);
        EXPECT_EQ(state.base, "") << other.tags;
        EXPECT_EQ(names, "a;b;c;") << other.tags;
    }
    m_catalog->removeFolder(b);
    EXPECT_EQ(list({changes.etag, true}).second, "a;c;") << "all of it: the one that has gone is no change";
    const std::string removed = list({}).first.etag;
    create("d");
    EXPECT_EQ(list({removed, true}).second, "d;");
    m_catalog->createGroup("lab");
    m_catalog->grant(a, "lab", PrivilegeSet::all());
    EXPECT_EQ(list({removed, true}).second, "a;c;d;") << "other privileges are another listing";
}

TEST_F(CatalogTest, ChangesOfAListingCostWhatHasChanged) {
    SqliteConnection connection(path());
    const auto plan = [&connection](const char* query) {
        std::string steps;
        const std::string explain = std::string("EXPLAIN QUERY PLAN ") + query;
        Query explained(connection, explain);
        while (explained.next())
            steps += explained.text(3) + '\n';
        return steps;
    };
    const auto scans = [](const std::string& steps) {
        std::istringstream lines(steps);
        std::vector<std::string> found;
        for (std::string line; std::getline(lines, line);) {
            // The user's groups come as a list of the query's own.
            if (line.starts_with("SCAN") && line.find("json_each") == std::string::npos)
                found.push_back(line);
        }
        return found;
    };
    EXPECT_EQ(scans(plan("SELECT * FROM files")).size(), 1U) << "it would be seen";
    EXPECT_NE(plan(changedFilesQuery).find("files_by_change (folder_id=? AND listed_change>?)"),
              std::string::npos)
        << plan(changedFilesQuery);
    EXPECT_NE(plan(changedSubfoldersQuery).find("folders_by_change (parent_id=? AND listed_change>?)"),
              std::string::npos)
        << plan(changedSubfoldersQuery);
    for (const char* query : {changedFilesQuery, changedSubfoldersQuery})
        EXPECT_THAT(scans(plan(query)), ::testing::IsEmpty()) << plan(query);
}

TEST_F(CatalogTest, ACatalogueOfTheFirstVersionIsBroughtUpToDate) {
    const Id folder = m_catalog->createFolder(m_admin, rootFolderId, "a", {}, {});
    const std::vector<Finalisation> batch{completeUpload("f", "x")};
    (void)m_catalog->commit(batch);
    const auto list = [this](const KnownListing& known) {
        std::string names;
        ListingState folders = m_catalog->subfolders(m_admin, rootFolderId, known,
                                                     [&](const FolderRecord& f) { names += f.name + ';'; });
        const ListingState files =
            m_catalog->files(m_admin, rootFolderId, {}, [&](const FileRecord& f) { names += f.name + ';'; });
        EXPECT_FALSE(files.etag.empty());
        return std::make_pair(folders, names);
    };
    const std::string before = list({}).first.etag;
    m_catalog.reset();
    SqliteConnection(path()).execute(
        "DROP INDEX folders_by_change; DROP INDEX files_by_change; ALTER TABLE folders DROP COLUMN "
        "folders_removed; ALTER TABLE folders DROP COLUMN listed_change; ALTER TABLE files DROP COLUMN "
        "listed_change; PRAGMA user_version=1");
    try {
        reopen();
        ADD_FAILURE() << "it was opened";
    } catch (const ApiError& error) {
        EXPECT_NE(std::string(error.what()).find("earlier version of halvane-server; start the server once"),
                  std::string::npos);
    }
    SqliteCatalog::upgrade(path());
    SqliteCatalog::upgrade(path()); // of this version already
    reopen();
    const auto [state, names] = list({before, true});
    EXPECT_EQ(state.base, "") << "what changed since then is not known";
    EXPECT_FALSE(state.notModified);
    EXPECT_EQ(names, "a;f;");
    (void)m_catalog->createFolder(m_admin, folder, "below", {}, {});
    EXPECT_EQ(list({state.etag, true}).second, "a;f;");
    EXPECT_EQ(list({state.etag, true}).first.base, state.etag);
    m_catalog.reset();
    SqliteConnection(path()).execute("PRAGMA user_version=3");
    SqliteCatalog::upgrade(path());
    EXPECT_THROW(reopen(), ApiError);
}

TEST_F(CatalogTest, AFullDatabaseFailsTheWriteThatFillsItAndNoOther) {
    // SQLite's own limit stands for the disk's: it fails at the same place.
    SqliteWriter writer(path());
    writer.run(Durability::Flushed,
               [](SqliteConnection& connection) { connection.execute("PRAGMA max_page_count=200"); });
    const auto insert = [](std::size_t bytes) {
        return [bytes](SqliteConnection& connection) {
            Query(connection, "INSERT INTO small_contents (content) VALUES (?1)")
                .bind(std::string(bytes, 'x'))
                .run();
        };
    };
    auto done = writer.submit(Durability::Flushed, {insert(10), insert(5'000'000), insert(20)});
    EXPECT_NO_THROW(done[0].get());
    EXPECT_EQ(codeOf([&] { done[1].get(); }), ErrorCode::StorageFull);
    EXPECT_NO_THROW(done[2].get());
    std::int64_t rows = 0;
    writer.run(Durability::Flushed, [&rows](SqliteConnection& connection) {
        Query count(connection, "SELECT count(*) FROM small_contents");
        count.next();
        rows = count.integer(0);
    });
    EXPECT_EQ(rows, 2);
}

TEST_F(CatalogTest, TheSweepTakesLeftoversAndNothingThatIsNeeded) {
    BlobStore blobs(m_directory.path());
    const UploadRecord open = m_catalog->openUpload(m_admin, newUpload("open", 500'000), {});
    (void)blobs.openStaged(open.blobName, open.size);
    const std::string leftover = BlobStore::newName();
    (void)blobs.openStaged(leftover, 10);
    const std::string unnamedBlob = BlobStore::newName();
    (void)blobs.openStaged(unnamedBlob, 10);
    blobs.place(unnamedBlob);
    Log log;
    Sweeper(*m_catalog, blobs, log, m_metrics, std::chrono::hours(1)).sweepLeftovers();
    EXPECT_TRUE(blobs.openExistingStaged(open.blobName).isOpen());
    EXPECT_FALSE(blobs.openExistingStaged(leftover).isOpen());
    EXPECT_FALSE(blobs.openBlob(unnamedBlob).isOpen());
}

TEST_F(CatalogTest, APlacedBlobOfAFailedFinalisationIsFoundAgain) {
    BlobStore blobs(m_directory.path());
    const std::string name = BlobStore::newName();
    (void)blobs.openStaged(name, 10);
    const std::string directory = blobs.place(name);
    EXPECT_EQ(blobs.place(name), directory);
    EXPECT_TRUE(blobs.openStaged(name, 10).isOpen());
    EXPECT_FALSE(fs::exists(m_directory.file("staging/" + name)));
    EXPECT_EQ(codeOf([&] { blobs.place(BlobStore::newName()); }), ErrorCode::Internal);
}

TEST_F(CatalogTest, TheCommitterAnswersEveryMember) {
    BlobStore blobs(m_directory.path());
    std::vector<Finalisation> requests;
    for (int i = 0; i < 100; ++i)
        requests.push_back(completeUpload("f" + std::to_string(i), "content " + std::to_string(i)));
    std::atomic<int> made{0};
    {
        Committer committer(*m_catalog, blobs, m_metrics);
        for (Finalisation& request : requests)
            committer.submit(std::move(request), {}, [&](const FinalisationOutcome& outcome) {
                made += std::holds_alternative<FinalizedFile>(outcome) ? 1 : 0;
            });
        committer.submit(completeUpload("lost", "x"), "20260101-missing",
                         [](const FinalisationOutcome& outcome) {
                             EXPECT_EQ(std::get<ApiError>(outcome).code(), ErrorCode::Internal);
                         });
    }
    EXPECT_EQ(made, 100);
    EXPECT_EQ(m_metrics.versionsCommitted, 100U);
    EXPECT_LE(m_metrics.commitBatches, 100U);
}

namespace {

class UploadSessionTest : public CatalogTest {
protected:
    void SetUp() override {
        CatalogTest::SetUp();
        m_upload = m_catalog->openUpload(m_admin, newUpload("a", 250'000), {});
        restart();
    }
    void TearDown() override { m_hashing.finish(); }

    void restart() { m_sessions = std::make_unique<UploadSessions>(m_blobs, *m_catalog, m_hashing); }
    std::shared_ptr<UploadSession> session() { return m_sessions->session(m_admin, m_upload.id); }
    std::string chunk(int index, char fill) const {
        return std::string(static_cast<std::size_t>(m_upload.chunkLength(index)), fill);
    }
    std::unique_ptr<ChunkWriter> begin(
        int index, char fill, std::function<void()> abort = [] {}) {
        return session()->beginChunk(index, Xxh3::of(chunk(index, fill)), std::move(abort));
    }
    void put(int index, char fill) {
        const auto writer = begin(index, fill);
        writer->write(bytesOf(chunk(index, fill)));
        writer->finish({});
    }
    std::string received() {
        std::string indexes;
        for (const ReceivedChunk& one : m_catalog->upload(m_admin, m_upload.id).chunks)
            indexes += std::to_string(one.index);
        return indexes;
    }
    Sha256Digest expected(const std::string& fills) const {
        return Sha256::of(chunk(0, fills[0]) + chunk(1, fills[1]) + chunk(2, fills[2]));
    }

    // Why the upload did not become a version of that content; nothing when it did.
    std::optional<ErrorCode> finalised(const std::string& fills) {
        m_catalog->setContentSha256(m_upload.id, expected(fills));
        Committer committer(*m_catalog, m_blobs, m_metrics);
        Finalizer finalizer(*m_catalog, *m_sessions, committer, m_hashing);
        Finalisation request;
        request.caller = m_admin;
        request.uploadId = m_upload.id;
        request.dataType = "Regular";
        request.trace = "{}";
        std::promise<FinalisationOutcome> outcome;
        finalizer.finalize(std::move(request),
                           [&](const FinalisationOutcome& made) { outcome.set_value(made); });
        const FinalisationOutcome made = outcome.get_future().get();
        if (const auto* error = std::get_if<ApiError>(&made))
            return error->code();
        return std::nullopt;
    }

    BlobStore m_blobs{m_directory.path()};
    UploadRecord m_upload;
    WorkerPool m_hashing{2};
    std::unique_ptr<UploadSessions> m_sessions;
};

} // namespace

TEST_F(UploadSessionTest, TheDigestIsThatOfTheContentWhateverTheOrderOfTheChunks) {
    put(2, 'c');
    put(0, 'a');
    put(1, 'b');
    session()->beginFinalising();
    EXPECT_EQ(session()->contentDigest(), expected("abc"));
    EXPECT_EQ(session()->contentDigest(), expected("abc"));
}

TEST_F(UploadSessionTest, AReplacedChunkCountsInTheDigestAlsoWhenItWasHashedAlready) {
    put(0, 'a');
    put(1, 'b');
    put(0, 'x');
    put(2, 'c');
    session()->beginFinalising();
    EXPECT_EQ(session()->contentDigest(), expected("xbc"));
}

TEST_F(UploadSessionTest, AChunkThatIsBeingReplacedIsNotReceivedUntilItIsThereAgain) {
    put(0, 'a');
    {
        const auto writer = begin(0, 'x');
        EXPECT_EQ(received(), "");
        writer->write(bytesOf("half of it"));
    }
    EXPECT_EQ(received(), "");
    EXPECT_EQ(codeOf([&] { session()->beginFinalising(); }), ErrorCode::UploadIncomplete);
}

TEST_F(UploadSessionTest, TheSameChunkSentAgainStaysReceivedEvenWhenItBreaksOff) {
    put(0, 'a');
    {
        const auto writer = begin(0, 'a');
        writer->write(bytesOf("xx"));
        EXPECT_EQ(codeOf([&] { writer->finish({}); }), ErrorCode::ChecksumMismatch);
    }
    EXPECT_EQ(received(), "0");
    put(1, 'b');
    put(2, 'c');
    session()->beginFinalising();
    EXPECT_EQ(session()->contentDigest(), expected("abc"));
}

TEST_F(UploadSessionTest, AWrongChunkDoesNotCountAndMayBeSentAgain) {
    const auto writer = begin(1, 'b');
    writer->write(bytesOf(chunk(1, 'x')));
    EXPECT_EQ(codeOf([&] { writer->finish({}); }), ErrorCode::ChecksumMismatch);
    EXPECT_EQ(codeOf([&] { writer->write(bytesOf("more")); }), ErrorCode::ChecksumMismatch);
    EXPECT_EQ(received(), "");
}

TEST_F(UploadSessionTest, TheLaterWriterOfAChunkEndsTheEarlierOne) {
    std::unique_ptr<ChunkWriter> first;
    std::promise<void> aborted;
    first = begin(0, 'x', [&] { aborted.set_value(); });
    first->write(bytesOf("xx"));
    auto second = std::async(std::launch::async, [&] { put(0, 'a'); });
    aborted.get_future().wait();
    EXPECT_EQ(codeOf([&] { first->write(bytesOf("xx")); }), ErrorCode::Internal);
    first.reset();
    EXPECT_NO_THROW(second.get());
    EXPECT_EQ(received(), "0");
}

TEST_F(UploadSessionTest, NoChunkChangesWhileTheUploadIsFinalised) {
    put(0, 'a');
    put(1, 'b');
    put(2, 'c');
    session()->beginFinalising();
    EXPECT_EQ(codeOf([&] { (void)begin(1, 'x'); }), ErrorCode::UploadGone);
    EXPECT_NO_THROW(put(1, 'b'));
    session()->endFinalising();
    EXPECT_NO_THROW(put(1, 'x'));
}

TEST_F(UploadSessionTest, NoChunkChangesOnceTheVersionIsMade) {
    put(0, 'a');
    put(1, 'b');
    put(2, 'c');
    const std::shared_ptr<UploadSession> foundOpen = session();
    EXPECT_EQ(finalised("abx"), ErrorCode::ChecksumMismatch);
    EXPECT_NO_THROW(put(1, 'x'));
    EXPECT_EQ(finalised("axc"), std::nullopt);
    EXPECT_EQ(codeOf([&] { (void)foundOpen->beginChunk(1, Xxh3::of(chunk(1, 'y')), [] {}); }),
              ErrorCode::UploadGone);
}

TEST_F(UploadSessionTest, BytesLostInAPowerCutAreNoticedWhenTheUploadIsSuspect) {
    put(0, 'a');
    put(1, 'b');
    restart();
    const std::string staged = m_directory.file("staging/" + m_upload.blobName);
    {
        std::fstream file(staged, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(150'000);
        file.put('\0');
    }
    m_catalog->beginServing();
    m_catalog->beginServing();
    EXPECT_EQ(m_sessions->session(m_admin, m_upload.id)->forgetDamagedChunks(),
              0U); // forgotten when the session was made
    EXPECT_EQ(received(), "0");
    EXPECT_FALSE(m_catalog->upload(m_admin, m_upload.id).suspect);
}

TEST_F(UploadSessionTest, AStagingFileThatIsGoneLosesItsChunks) {
    put(0, 'a');
    restart();
    fs::remove(m_directory.file("staging/" + m_upload.blobName));
    m_catalog->beginServing();
    m_catalog->beginServing();
    (void)session();
    EXPECT_EQ(received(), "");
}

} // namespace halvane::server
