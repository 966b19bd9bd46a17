// Uploads: opening, chunks, resuming, finalisation.
#include "support/server_test.h"

#include <future>
#include <set>
#include <thread>

namespace halvane::server {

using nlohmann::json;

class UploadCalls : public ServerTest {
protected:
    std::string listed(int folder = 1) const {
        std::string names;
        const json data = get("/folders/" + std::to_string(folder) + "/files").data();
        for (const json& file : data.at("files"))
            names += file.at("name").get<std::string>() + ";";
        return names;
    }
    json uploadState(int id) const { return get("/uploads/" + std::to_string(id)).data(); }
    //! Until the content of the only upload begins with this, so that the request which sends it has begun.
    void waitForStaged(const std::string& beginning) const {
        waitUntil([&] {
            const std::vector<std::string> staged = filesBelow("staging");
            return !staged.empty() && readFile(staged.at(0)).starts_with(beginning);
        });
    }
};

TEST_F(UploadCalls, AnOpenUploadTellsWhatItWants) {
    const json upload = openUpload("run.mzML", 250'000);
    EXPECT_EQ(upload.at("chunk_size"), 100'000);
    EXPECT_EQ(upload.at("received"), json::array());
    EXPECT_EQ(upload.at("content_sha256"), nullptr);
    EXPECT_EQ(upload.at("target_type"), 1);
    EXPECT_EQ(get("/uploads").data().at("uploads"), json::array({upload}));
    EXPECT_EQ(listed(), "");
}

TEST_F(UploadCalls, WrongRequestsForAnUploadAreTold) {
    const json good{{"name", "a"}, {"size", 1}, {"target_id", 1}, {"target_type", 1}};
    const auto with = [&](const char* field, const json& value) {
        json body = good;
        body[field] = value;
        return call("POST", "/uploads", body).errorCode();
    };
    EXPECT_EQ(with("name", "a/b"), 6);
    EXPECT_EQ(with("name", 7), 1);
    EXPECT_EQ(with("size", -1), 1);
    EXPECT_EQ(with("size", 1e30), 1);
    EXPECT_EQ(with("target_type", 2), 1);
    EXPECT_EQ(with("target_id", 99), 3);
    EXPECT_EQ(with("source_modified_at", "yesterday"), 1);
    json toFile = good;
    toFile["target_type"] = 0;
    EXPECT_EQ(call("POST", "/uploads", toFile).errorMessage(), "There is no file with the id 1.");
    EXPECT_EQ(get("/uploads").data().at("uploads"), json::array());
}

TEST_F(UploadCalls, ChunksComeInAnyOrderAndAreListed) {
    const std::string content = sampleBytes(250'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    EXPECT_EQ(putChunk(id, 2, content.substr(200'000)).data(), (json{{"index", 2}}));
    EXPECT_EQ(putChunk(id, 0, content.substr(0, 100'000)).status, 200);
    EXPECT_EQ(uploadState(id).at("received"),
              (json{{{"index", 0}, {"xxh3", xxh3Text(content.substr(0, 100'000))}},
                    {{"index", 2}, {"xxh3", xxh3Text(content.substr(200'000))}}}));
    EXPECT_EQ(finalize(id).errorCode(), 8);
    EXPECT_EQ(putChunk(id, 1, content.substr(100'000, 100'000)).status, 200);
    EXPECT_EQ(finalize(id).errorCode(), 8); // the SHA-256 is missing
    EXPECT_EQ(
        putChunk(id, 1, content.substr(100'000, 100'000), {{"Halvane-Content-Sha256", sha256Text(content)}})
            .status,
        200);
    const Reply done = finalize(
        id, {}, {{"file_alias", "nick"}, {"force_data_type", "MS"}, {"vonk_trace", {{"steps", {1, 2}}}}});
    EXPECT_EQ(done.data().at("file"), (json{{"id", 1},
                                            {"version", 1},
                                            {"folder_id", 1},
                                            {"name", "a"},
                                            {"size", 250'000},
                                            {"sha256", sha256Text(content)}}));
    EXPECT_EQ(contentOf(1), content);
    const json file = get("/files/1").data();
    EXPECT_EQ(file.at("alias"), "nick");
    EXPECT_EQ(file.at("data_type"), "MS");
    EXPECT_EQ(get("/files/1/versions/1/trace").data(), (json{{"trace", {{"steps", {1, 2}}}}}));
    EXPECT_EQ(get("/uploads").data().at("uploads"), json::array());
}

TEST_F(UploadCalls, AWrongChunkDoesNotCount) {
    for (const std::size_t size : {std::size_t{10}, std::size_t{150'000}}) {
        const std::string content = sampleBytes(size);
        const std::string first = content.substr(0, 100'000);
        const int id = openUpload("a", size).at("upload_id");
        const std::string path = "/uploads/" + std::to_string(id) + "/chunks/";
        const Reply wrong = rawCall("PUT", path + "0", first, {{"Halvane-Chunk-Xxh3", xxh3Text("else")}});
        EXPECT_EQ(wrong.status, 422);
        EXPECT_EQ(wrong.errorCode(), 7);
        EXPECT_EQ(putChunk(id, 0, first.substr(1)).errorCode(), 7);
        EXPECT_EQ(putChunk(id, 0, first + "x").errorCode(), 7);
        EXPECT_EQ(putChunk(id, 2, first).errorCode(), 1);
        EXPECT_EQ(rawCall("PUT", path + "-1", first, {{"Halvane-Chunk-Xxh3", xxh3Text(first)}}).errorCode(),
                  1);
        EXPECT_EQ(rawCall("PUT", path + "0", first).errorCode(), 1);
        EXPECT_EQ(rawCall("PUT", path + "0", first, {{"Halvane-Chunk-Xxh3", "xyz"}}).errorCode(), 1);
        EXPECT_EQ(putChunk(id, 0, first, {{"Halvane-Content-Sha256", "abc"}}).errorCode(), 1);
        EXPECT_EQ(uploadState(id).at("received"), json::array());
        EXPECT_EQ(putChunk(id, 0, first).status, 200);
    }
}

TEST_F(UploadCalls, AChunkThatBreaksOffDoesNotCount) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    HttpClient broken(port());
    broken.sendRaw("PUT /api/v1/uploads/" + std::to_string(id) +
                   "/chunks/0 HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token() +
                   "\r\nContent-Length: 100000\r\nHalvane-Chunk-Xxh3: " + xxh3Text(content) + "\r\n\r\n" +
                   content.substr(0, 60'000));
    waitForStaged(content.substr(0, 100)); // so that it is the earlier one
    broken.abort();
    EXPECT_EQ(uploadState(id).at("received"), json::array());
    EXPECT_EQ(putChunk(id, 0, content).status, 200);
}

TEST_F(UploadCalls, ALaterRequestForTheSameChunkTakesOver) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    HttpClient hanging(port());
    hanging.sendRaw("PUT /api/v1/uploads/" + std::to_string(id) +
                    "/chunks/0 HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token() +
                    "\r\nContent-Length: 100000\r\nHalvane-Chunk-Xxh3: " + xxh3Text(content) + "\r\n\r\n" +
                    std::string(60'000, 'x'));
    waitForStaged("xxx"); // so that it is the earlier one
    EXPECT_EQ(putChunk(id, 0, content).status, 200);
    EXPECT_TRUE(hanging.readToEnd());
    ASSERT_EQ(declareSha256(id, content).status, 200);
    EXPECT_EQ(finalize(id).status, 200);
}

TEST_F(UploadCalls, AWrongSha256MakesNoVersionAndCanBeCorrected) {
    for (const std::size_t size : {std::size_t{10}, std::size_t{150'000}}) {
        const std::string content = sampleBytes(size);
        const json upload = openUpload("a", size);
        const int id = upload.at("upload_id");
        putAll(upload, content);
        declareSha256(id, "something else");
        const Reply wrong = finalize(id, "key");
        EXPECT_EQ(wrong.status, 422);
        EXPECT_EQ(wrong.errorCode(), 7);
        EXPECT_EQ(finalize(id, "key").errorCode(), 8); // nothing of it counts: the SHA-256 must be told again
        declareSha256(id, content);
        const Reply right = finalize(id, "key" + std::to_string(size));
        EXPECT_EQ(right.status, 200) << right.body;
        EXPECT_EQ(contentOf(right.data().at("file").at("id")), content);
    }
    EXPECT_EQ(listed(), "a;a;");
}

TEST_F(UploadCalls, OpeningTwiceWithOneKeyIsOneUpload) {
    const json first = openUpload("a", 250'000, 1, 1, "k");
    putChunk(first.at("upload_id"), 1, sampleBytes(100'000));
    const json second = openUpload("a", 250'000, 1, 1, "k");
    EXPECT_EQ(second.at("upload_id"), first.at("upload_id"));
    EXPECT_EQ(second.at("received").size(), 1U);
    const Reply other =
        call("POST", "/uploads", {{"name", "b"}, {"size", 250'000}, {"target_id", 1}, {"target_type", 1}},
             keyHeader("k"));
    EXPECT_EQ(other.status, 422);
    EXPECT_EQ(other.errorCode(), 13);
    EXPECT_NE(openUpload("a", 250'000, 1, 1, "k2").at("upload_id"), first.at("upload_id"));
}

TEST_F(UploadCalls, FinalisingTwiceWithOneKeyIsOneVersion) {
    for (const std::size_t size : {std::size_t{10}, std::size_t{150'000}}) {
        const std::string key = "k" + std::to_string(size);
        const json upload = openUpload("a", size, 1, 1, key);
        const int id = upload.at("upload_id");
        putAll(upload, sampleBytes(size));
        const Reply first = finalize(id, key);
        EXPECT_EQ(finalize(id, key).body, first.body);
        EXPECT_EQ(finalize(id, key, {{"file_alias", "other"}}).errorCode(), 13);
        EXPECT_EQ(finalize(id, "another").errorCode(), 9);
        EXPECT_EQ(finalize(id).status, 410);
        EXPECT_EQ(get("/uploads/by-key/" + key).data(),
                  (json{{"state", "finalized"}, {"file", first.data().at("file")}}));
        EXPECT_EQ(get("/uploads/" + std::to_string(id)).errorCode(), 9);
        EXPECT_EQ(putChunk(id, 0, sampleBytes(std::min<std::size_t>(size, 100'000))).errorCode(), 9);
        EXPECT_EQ(call("POST", "/uploads",
                       {{"name", "a"}, {"size", size}, {"target_id", 1}, {"target_type", 1}}, keyHeader(key))
                      .errorCode(),
                  9);
    }
    EXPECT_EQ(listed(), "a;a;");
}

class UploadCallsOfSize : public UploadCalls, public ::testing::WithParamInterface<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(SmallAndLarge, UploadCallsOfSize, ::testing::Values(20U, 2'000'000U),
                         ::testing::PrintToStringParamName());

TEST_P(UploadCallsOfSize, ConcurrentFinalisationsWithOneKeyGetOneResult) {
    const std::string content = sampleBytes(GetParam());
    const json upload = openUpload("a", content.size());
    putAll(upload, content);
    std::vector<std::future<std::string>> replies;
    for (int i = 0; i < 8; ++i)
        replies.push_back(
            std::async(std::launch::async, [&] { return finalize(upload.at("upload_id"), "k").body; }));
    std::set<std::string> different;
    for (auto& reply : replies)
        different.insert(reply.get());
    EXPECT_EQ(different.size(), 1U) << *different.begin();
    EXPECT_EQ(listed(), "a;");
}

TEST_F(UploadCalls, ConcurrentVersionsOfOneFileAreConsecutive) {
    const json file = storeFile("a", "first");
    std::vector<std::future<int>> versions;
    for (int i = 0; i < 12; ++i)
        versions.push_back(std::async(std::launch::async, [&, i] {
            return storeFile("x", sampleBytes(i % 2 == 0 ? 20 : 120'000, static_cast<unsigned>(i)),
                             file.at("id"), 0)
                .at("version")
                .get<int>();
        }));
    std::set<int> numbers;
    for (auto& version : versions)
        numbers.insert(version.get());
    EXPECT_EQ(numbers, (std::set<int>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));
    EXPECT_EQ(get("/files/1").data().at("last_version"), 13);
}

TEST_F(UploadCalls, AnExpectedVersionThatIsOldIsAConflict) {
    const json file = storeFile("a", "one");
    const auto open = [&](int expected) {
        return call("POST", "/uploads",
                    {{"name", "a"},
                     {"size", 150'000},
                     {"target_id", file.at("id")},
                     {"target_type", 0},
                     {"expected_version", expected}})
            .data();
    };
    const std::string content = sampleBytes(150'000);
    const json stale = open(1);
    const json winner = open(1);
    putAll(stale, content);
    putAll(winner, content);
    EXPECT_EQ(finalize(winner.at("upload_id")).data().at("file").at("version"), 2);
    const Reply conflict = finalize(stale.at("upload_id"), "k");
    EXPECT_EQ(conflict.status, 409);
    EXPECT_EQ(conflict.errorCode(), 4);
    EXPECT_EQ(finalize(stale.at("upload_id"), "k").errorCode(), 4); // it stays open, with its bytes
    EXPECT_EQ(uploadState(stale.at("upload_id")).at("received").size(), 2U);
    EXPECT_EQ(get("/files/1").data().at("last_version"), 2);
}

TEST_F(UploadCalls, APrivilegeLostMeanwhileStopsTheFinalisation) {
    addGroup("lab");
    const int folder = makeFolder("a");
    grant(folder, "lab", "1,2");
    addUser("anna", {"lab"});
    const std::string admin = token();
    actAs(login("anna"));
    const json upload = openUpload("f", 10, folder);
    putAll(upload, sampleBytes(10));
    grant(folder, "lab", "1");
    EXPECT_EQ(finalize(upload.at("upload_id")).errorCode(), 5);
    grant(folder, "lab", "2");
    EXPECT_EQ(finalize(upload.at("upload_id")).errorCode(), 3);
    actAs(admin);
    EXPECT_EQ(listed(folder), "");
}

TEST_F(UploadCalls, UploadsBelongToTheirUser) {
    addUser("anna");
    const int id = openUpload("f", 10, 1, 1, "k").at("upload_id");
    actAs(login("anna"));
    const std::string path = "/uploads/" + std::to_string(id);
    EXPECT_EQ(get(path).errorCode(), 3);
    EXPECT_EQ(putChunk(id, 0, sampleBytes(10)).errorCode(), 3);
    EXPECT_EQ(declareSha256(id, "x").errorCode(), 3);
    EXPECT_EQ(finalize(id).errorCode(), 3);
    EXPECT_EQ(rawCall("DELETE", path, {}).errorCode(), 3);
    EXPECT_EQ(get("/uploads/by-key/k").errorCode(), 3);
    EXPECT_EQ(get("/uploads").data().at("uploads"), json::array());
}

TEST_F(UploadCalls, AnAbandonedUploadIsGoneWithItsBytesAndItsKey) {
    const int id = openUpload("f", 150'000, 1, 1, "k").at("upload_id");
    putChunk(id, 0, sampleBytes(100'000));
    EXPECT_EQ(filesBelow("staging").size(), 1U);
    const std::string path = "/uploads/" + std::to_string(id);
    EXPECT_EQ(rawCall("DELETE", path, {}).status, 200);
    EXPECT_EQ(filesBelow("staging").size(), 0U);
    EXPECT_EQ(get(path).errorCode(), 3);
    EXPECT_EQ(rawCall("DELETE", path, {}).errorCode(), 3);
    EXPECT_EQ(get("/uploads/by-key/k").errorCode(), 3);
    EXPECT_NE(openUpload("f", 150'000, 1, 1, "k").at("upload_id"), id);
}

TEST_F(UploadCalls, AKeyTellsWhatBecameOfItsUpload) {
    EXPECT_EQ(get("/uploads/by-key/unknown").errorCode(), 3);
    EXPECT_EQ(get("/uploads/by-key/not%20a%20key").errorCode(), 1);
    const json upload = openUpload("f", 10, 1, 1, "k");
    EXPECT_EQ(get("/uploads/by-key/k").data(), (json{{"state", "open"}, {"upload", upload}}));
    putAll(upload, sampleBytes(10));
    const json file = finalize(upload.at("upload_id"), "other").data().at("file");
    EXPECT_EQ(get("/uploads/by-key/k").data(), (json{{"state", "finalized"}, {"file", file}}));
    EXPECT_EQ(get("/uploads/by-key/other").data(), (json{{"state", "finalized"}, {"file", file}}));
}

TEST_F(UploadCalls, WrongFinalisationsAreTold) {
    EXPECT_EQ(finalize(99).errorCode(), 3);
    EXPECT_EQ(call("POST", "/uploads/finalize", json::object()).errorMessage(),
              "The field \"upload_id\" is missing.");
    const json upload = openUpload("f", 0);
    const int id = upload.at("upload_id");
    EXPECT_EQ(finalize(id).errorCode(), 8);
    declareSha256(id, "");
    EXPECT_EQ(finalize(id, {}, {{"force_data_type", "mzML"}}).errorCode(), 1);
    EXPECT_EQ(finalize(id, {}, {{"vonk_trace", json::array({1})}}).errorCode(), 1);
    EXPECT_EQ(finalize(id, {}, {{"file_alias", 3}}).errorCode(), 1);
    EXPECT_EQ(rawCall("PUT", "/uploads/" + std::to_string(id) + "/content-sha256", {}).errorCode(), 1);
    EXPECT_EQ(finalize(id).status, 200);
}

TEST_F(UploadCalls, ALargeTraceIsTakenAndALargerOneIsNot) {
    const json upload = openUpload("f", 0);
    declareSha256(upload.at("upload_id"), "");
    EXPECT_EQ(
        finalize(upload.at("upload_id"), {}, {{"vonk_trace", {{"t", std::string(16'777'300, 'x')}}}}).status,
        413);
    EXPECT_EQ(
        finalize(upload.at("upload_id"), {}, {{"vonk_trace", {{"t", std::string(16'000'000, 'x')}}}}).status,
        200);
}

TEST_F(UploadCalls, TheSourcesTimeIsKept) {
    const Reply reply = call("POST", "/uploads",
                             {{"name", "a"},
                              {"size", 0},
                              {"target_id", 1},
                              {"target_type", 1},
                              {"source_modified_at", "2026-03-01T12:00:00.123Z"}});
    declareSha256(reply.data().at("upload_id"), "");
    ASSERT_EQ(finalize(reply.data().at("upload_id")).status, 200);
    EXPECT_EQ(get("/files/1").data().at("source_modified_at"), "2026-03-01T12:00:00.123Z");
}

} // namespace halvane::server
