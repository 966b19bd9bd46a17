// Stops, kills and restarts in the middle of things.
#include "store/sqlite_connection.h"
#include "support/server_test.h"

#include <csignal>
#include <fcntl.h>
#include <future>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace halvane::server {

using nlohmann::json;

class Restart : public ServerTest {
protected:
    void killAndStart() {
        kill();
        start();
    }
};

TEST_F(Restart, WhatWasAcknowledgedIsThereAfterAKill) {
    const std::string large = sampleBytes(1'000'000);
    const json a = storeFile("large", large);
    const json b = storeFile("small", "x");
    const int folder = makeFolder("f");
    killAndStart();
    EXPECT_EQ(contentOf(a.at("id")), large);
    EXPECT_EQ(contentOf(b.at("id")), "x");
    EXPECT_EQ(get("/folders/" + std::to_string(folder)).status, 200);
}

TEST_F(Restart, AServerBringsTheCatalogueOfAnEarlierVersionUpToDate) {
    const int folder = makeFolder("f");
    ASSERT_EQ(stop(), 0);
    SqliteConnection(dataDirectory() + "/catalog.sqlite3")
        .execute("DROP INDEX folders_by_change; DROP INDEX files_by_change; ALTER TABLE folders DROP COLUMN "
                 "folders_removed; ALTER TABLE folders DROP COLUMN listed_change; ALTER TABLE files DROP "
                 "COLUMN listed_change; PRAGMA user_version=1");
    const ProgramResult refused = command({"group", "add", "--name", "lab"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("start the server once"), std::string::npos) << refused.err;
    start();
    EXPECT_EQ(get("/folders/" + std::to_string(folder)).status, 200);
    EXPECT_EQ(addGroup("lab"), 1);
}

TEST_F(Restart, ReceivedChunksSurviveAKillAndTheUploadGoesOn) {
    for (const std::size_t size : {std::size_t{50'000}, std::size_t{250'000}}) {
        const std::string content = sampleBytes(size);
        const std::string key = "k" + std::to_string(size);
        const int id = openUpload("a", size, 1, 1, key).at("upload_id");
        ASSERT_EQ(putChunk(id, 0, content.substr(0, 100'000)).status, 200);
        killAndStart();
        const json state = get("/uploads/by-key/" + key).data();
        EXPECT_EQ(state.at("state"), "open");
        EXPECT_EQ(state.at("upload").at("received"),
                  (json{{{"index", 0}, {"xxh3", xxh3Text(content.substr(0, 100'000))}}}));
        for (std::size_t at = 100'000; at < size; at += 100'000)
            ASSERT_EQ(putChunk(id, static_cast<int>(at / 100'000), content.substr(at, 100'000)).status, 200);
        declareSha256(id, content);
        EXPECT_EQ(contentOf(finalize(id, key).data().at("file").at("id")), content);
    }
}

TEST_F(Restart, StagedBytesLostInAPowerCutAreToldAndSentAgain) {
    const std::string content = sampleBytes(250'000);
    const json upload = openUpload("a", content.size());
    const int id = upload.at("upload_id");
    putAll(upload, content);
    kill();
    const std::string staged = filesBelow("staging").at(0);
    ASSERT_EQ(::truncate(staged.c_str(), 120'000), 0);
    ASSERT_EQ(::truncate(staged.c_str(), 250'000),
              0); // as a file system leaves it whose blocks never reached the disk
    start();
    const json received = get("/uploads/" + std::to_string(id)).data().at("received");
    ASSERT_EQ(received.size(), 1U);
    EXPECT_EQ(received.at(0).at("index"), 0);
    EXPECT_EQ(finalize(id).errorCode(), 8);
    putAll(upload, content);
    EXPECT_EQ(contentOf(finalize(id).data().at("file").at("id")), content);
}

TEST_F(Restart, ADamagedStagingFileIsNoticedByTheFinalisationAndHealed) {
    const std::string content = sampleBytes(250'000);
    const json upload = openUpload("a", content.size());
    const int id = upload.at("upload_id");
    putAll(upload, content);
    EXPECT_EQ(stop(), 0); // cleanly: the chunks are believed until the content's SHA-256 is taken
    ASSERT_EQ(::truncate(filesBelow("staging").at(0).c_str(), 120'000), 0);
    ASSERT_EQ(::truncate(filesBelow("staging").at(0).c_str(), 250'000), 0);
    start();
    const Reply reply = finalize(id);
    EXPECT_EQ(reply.errorCode(), 7);
    EXPECT_EQ(get("/uploads/" + std::to_string(id)).data().at("received").size(), 1U);
    putAll(upload, content);
    EXPECT_EQ(contentOf(finalize(id).data().at("file").at("id")), content);
}

TEST_F(Restart, LeftoversAreSwept) {
    kill();
    std::filesystem::create_directories(dataDirectory() + "/blobs/20260101");
    for (const char* leftover : {"/staging/20260101-aaaa", "/blobs/20260101/20260101-bbbb"})
        ASSERT_EQ(::creat((dataDirectory() + leftover).c_str(), 0600) >= 0, true);
    start();
    waitUntil([&] { return filesBelow("blobs").empty() && filesBelow("staging").empty(); });
}

TEST_F(Restart, KillsWhileFilesArriveLoseNothingAndMakeNothingTwice) {
    constexpr int files = 30;
    std::vector<std::string> contents;
    for (int i = 0; i < files; ++i)
        contents.push_back(sampleBytes(i % 2 == 0 ? 5'000 : 150'000, static_cast<unsigned>(i)));
    std::atomic<bool> givenUp{false};
    const auto store = [&](int i) { // as a client does that asks again until it hears
        const std::string key = "file" + std::to_string(i);
        while (!givenUp) {
            try {
                const Reply known = get("/uploads/by-key/" + key);
                if (known.status == 200 && known.data().at("state") == "finalized")
                    return;
                const Reply opened = call("POST", "/uploads",
                                          {{"name", key},
                                           {"size", contents[static_cast<std::size_t>(i)].size()},
                                           {"target_id", 1},
                                           {"target_type", 1}},
                                          keyHeader(key));
                if (opened.status != 200)
                    continue;
                putAll(opened.data(), contents[static_cast<std::size_t>(i)]);
                if (finalize(opened.data().at("upload_id"), key).status == 200)
                    return;
            } catch (const std::exception&) { // the server was killed: once more
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    };
    std::atomic<int> next{0};
    std::vector<std::future<void>> clients;
    std::atomic<int> done{0};
    for (int c = 0; c < 3; ++c)
        clients.push_back(std::async(std::launch::async, [&] {
            for (int i = next++; i < files; i = next++) {
                store(i);
                ++done;
            }
        }));
    for (const int mark : {5, 12, 20}) {
        waitUntil([&] { return done >= mark || !isServing(); });
        if (isServing()) {
            kill();
            start();
        }
    }
    waitUntil([&] { return done >= files || !isServing(); });
    givenUp = true; // a server that is gone fails the test; nobody waits for it for ever
    for (auto& client : clients)
        client.get();
    ASSERT_TRUE(isServing()) << log();
    const json listed = get("/folders/1/files").data().at("files");
    ASSERT_EQ(listed.size(), static_cast<std::size_t>(files));
    for (const json& file : listed) {
        const int i = std::stoi(file.at("name").get<std::string>().substr(4));
        EXPECT_EQ(contentOf(file.at("id")), contents[static_cast<std::size_t>(i)]);
        EXPECT_EQ(file.at("last_version"), 1);
    }
}

TEST_F(Restart, SigtermFinishesTheRequestThatRuns) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    HttpClient slow(port());
    slow.sendRaw("PUT /api/v1/uploads/" + std::to_string(id) +
                 "/chunks/0 HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nAuthorization: Bearer " + token() +
                 "\r\nContent-Length: 100000\r\nHalvane-Chunk-Xxh3: " + xxh3Text(content) + "\r\n\r\n");
    EXPECT_EQ(slow.readReply().status, 100); // the request runs
    HttpClient idle(port());
    EXPECT_EQ(idle.request("GET", "/api/v1/health").status, 200);
    ::kill(pid(), SIGTERM);
    EXPECT_TRUE(idle.readToEnd());
    slow.sendRaw(content);
    EXPECT_EQ(slow.readReply().status, 200);
    EXPECT_EQ(waitForEnd(), 0);
    start();
    EXPECT_EQ(get("/uploads/" + std::to_string(id)).data().at("received").size(), 1U);
}

TEST_F(Restart, WhoeverTellsItTwiceToStopGetsTheSameCleanEnd) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    ASSERT_EQ(putChunk(id, 0, content).status, 200);
    while (isServing())
        for (const int signal : {SIGTERM, SIGINT})
            ::kill(pid(), signal);
    EXPECT_EQ(waitForEnd(), 0);
    start();
    EXPECT_EQ(get("/uploads/" + std::to_string(id)).data().at("received").size(), 1U);
}

TEST_F(Restart, ThePortOfAServerThatIsGoneIsRefusedAndGivenToNobodyElse) {
    kill();
    EXPECT_THROW(HttpClient client(port()), std::runtime_error);
    start();
    EXPECT_EQ(get("/health").status, 200);
}

TEST_F(Restart, SigtermDoesNotWaitForEver) {
    EXPECT_EQ(stop(), 0);
    start({"--shutdown-seconds", "0"});
    HttpClient hanging(port());
    hanging.sendRaw(
        "POST /api/v1/login HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 10\r\n\r\n");
    EXPECT_EQ(hanging.readReply().status, 100);
    EXPECT_EQ(stop(), 0);
}

// A limit on the size of files stands for a full disk: both fail the write.
TEST_F(Restart, AFullDiskIsToldAndTheServerGoesOn) {
    const rlimit small{400'000, RLIM_INFINITY};
    const json kept = storeFile("kept", sampleBytes(150'000));
    const std::string content = sampleBytes(1'000'000);
    const json upload = openUpload("big", content.size());
    ASSERT_EQ(::prlimit(pid(), RLIMIT_FSIZE, &small, nullptr), 0);
    const Reply full = putChunk(upload.at("upload_id"), 0, content.substr(0, 100'000));
    EXPECT_EQ(full.status, 507) << full.body;
    EXPECT_EQ(full.errorCode(), 10);
    EXPECT_EQ(contentOf(kept.at("id")), sampleBytes(150'000));
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(pid(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    putAll(upload, content);
    EXPECT_EQ(contentOf(finalize(upload.at("upload_id")).data().at("file").at("id")), content);
}

} // namespace halvane::server
