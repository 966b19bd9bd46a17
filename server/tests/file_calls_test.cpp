// Files, versions, contents and extended metadata.
#include "support/server_test.h"

namespace halvane::server {

using nlohmann::json;

class FileCalls : public ServerTest {
protected:
    static std::string contentPath(const json& file, const std::string& version = "1") {
        return "/files/" + std::to_string(file.at("id").get<int>()) + "/versions/" + version + "/content";
    }
    static std::string pathOf(const json& file, const std::string& more = {}) {
        return "/files/" + std::to_string(file.at("id").get<int>()) + more;
    }
};

TEST_F(FileCalls, ContentsOfEverySizeComeBack) {
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{65535}, std::size_t{65536}, std::size_t{99'999},
          std::size_t{100'000}, std::size_t{100'001}, std::size_t{3'000'000}}) {
        const std::string content = sampleBytes(size);
        const json file = storeFile("f", content);
        EXPECT_EQ(file.at("sha256"), sha256Text(content));
        EXPECT_EQ(contentOf(file.at("id")), content) << size;
    }
}

TEST_F(FileCalls, AFileShowsItsLastVersionAndAllOfThem) {
    const int folder = makeFolder("raw");
    const json file = storeFile("a.mzML", "one", folder);
    const json second = storeFile("another name", "three", file.at("id"), 0);
    EXPECT_EQ(second.at("id"), file.at("id"));
    EXPECT_EQ(second.at("version"), 2);
    EXPECT_EQ(second.at("name"), "a.mzML");
    const json shown = get(pathOf(file)).data();
    EXPECT_EQ(shown.at("last_version"), 2);
    EXPECT_EQ(shown.at("size"), 5);
    EXPECT_EQ(shown.at("sha256"), sha256Text("three"));
    EXPECT_EQ(shown.at("created_by"), "root");
    EXPECT_EQ(shown.at("source_modified_at"), nullptr);
    EXPECT_EQ(get("/folders/" + std::to_string(folder) + "/files").data().at("files"), json::array({shown}));
    const json versions = get(pathOf(file, "/versions")).data().at("versions");
    ASSERT_EQ(versions.size(), 2U);
    EXPECT_EQ(versions.at(0).at("sha256"), sha256Text("one"));
    EXPECT_EQ(versions.at(0).at("verified"), true);
    EXPECT_EQ(contentOf(file.at("id"), "1"), "one");
    EXPECT_EQ(contentOf(file.at("id"), "2"), "three");
    EXPECT_EQ(get(contentPath(file, "3")).errorCode(), 3);
    EXPECT_EQ(get(contentPath(file, "0")).errorCode(), 3);
    EXPECT_EQ(get(pathOf(file, "/path")).data().at("path"),
              (json{{{"folder_id", folder}, {"folder_name", "raw"}}}));
}

TEST_F(FileCalls, EachVersionHasItsTrace) {
    const json file = storeFile("a", "one");
    EXPECT_EQ(get(pathOf(file, "/versions/1/trace")).data(), (json{{"trace", json::object()}}));
    const json opened = openUpload("a", 3, file.at("id"), 0);
    ASSERT_EQ(
        putChunk(opened.at("upload_id"), 0, "two", {{"Halvane-Content-Sha256", sha256Text("two")}}).status,
        200);
    ASSERT_EQ(finalize(opened.at("upload_id"), {}, {{"vonk_trace", {{"name", "a \u00e9 \"b\""}}}}).status,
              200);
    EXPECT_EQ(get(pathOf(file, "/versions/1/trace")).data(), (json{{"trace", json::object()}}));
    for (const char* version : {"2", "latest"})
        EXPECT_EQ(get(pathOf(file, std::string("/versions/") + version + "/trace")).data(),
                  (json{{"trace", {{"name", "a \u00e9 \"b\""}}}}));
    EXPECT_EQ(get(pathOf(file, "/versions/3/trace")).errorCode(), 3);
    EXPECT_EQ(get(pathOf(file, "/versions/x/trace")).errorCode(), 3);
    EXPECT_EQ(get("/files/99/versions/1/trace").errorCode(), 3);
}

TEST_F(FileCalls, AFileInTheRootHasAnEmptyPath) {
    EXPECT_EQ(get(pathOf(storeFile("f", "x"), "/path")).data(), (json{{"path", json::array()}}));
}

TEST_F(FileCalls, TheContentHasItsHeaders) {
    const std::string content = sampleBytes(100'000);
    const json file = storeFile("f", content);
    const Reply reply = get(contentPath(file, "latest"));
    EXPECT_EQ(reply.headers.at("etag"),
              "\"" + std::to_string(file.at("id").get<int>()) + "-1-" + sha256Text(content) + "\"");
    EXPECT_EQ(reply.headers.at("accept-ranges"), "bytes");
    EXPECT_EQ(reply.headers.at("content-length"), "100000");
    EXPECT_EQ(reply.headers.at("halvane-content-sha256"), sha256Text(content));
    EXPECT_EQ(reply.headers.at("halvane-file-version"), "1");
    const Reply head = rawCall("HEAD", contentPath(file), {});
    EXPECT_EQ(head.status, 200);
    for (const char* name : {"etag", "content-length", "last-modified", "halvane-content-sha256"})
        EXPECT_EQ(head.headers.at(name), reply.headers.at(name)) << name;
}

TEST_F(FileCalls, RangesOfSmallAndLargeContents) {
    for (const std::size_t size : {std::size_t{1000}, std::size_t{200'000}}) {
        const std::string content = sampleBytes(size);
        const json file = storeFile("f", content);
        const std::string path = contentPath(file);
        const Reply part = get(path, {{"Range", "bytes=10-19"}});
        EXPECT_EQ(part.status, 206);
        EXPECT_EQ(part.body, content.substr(10, 10));
        EXPECT_EQ(part.headers.at("content-range"), "bytes 10-19/" + std::to_string(size));
        EXPECT_EQ(get(path, {{"Range", "bytes=-5"}}).body, content.substr(size - 5));
        EXPECT_EQ(get(path, {{"Range", "bytes=500-"}}).body, content.substr(500));
        const Reply outside = get(path, {{"Range", "bytes=" + std::to_string(size) + "-"}});
        EXPECT_EQ(outside.status, 416);
        EXPECT_EQ(outside.errorCode(), 14);
        EXPECT_EQ(outside.headers.at("content-range"), "bytes */" + std::to_string(size));
        const std::string tag = part.headers.at("etag");
        EXPECT_EQ(get(path, {{"Range", "bytes=0-0"}, {"If-Range", tag}}).status, 206);
        EXPECT_EQ(get(path, {{"Range", "bytes=0-0"}, {"If-Range", "\"other\""}}).body, content);
        EXPECT_EQ(get(path, {{"If-None-Match", tag}}).status, 304);
    }
}

TEST_F(FileCalls, ExtendedMetadataIsReplacedAsAWhole) {
    const json file = storeFile("f", "x");
    const std::string path = pathOf(file, "/extended-metadata");
    EXPECT_EQ(get(path).data().at("values"), json::array());
    const json first{{{"key", "operator"}, {"value", "anna"}}, {{"key", "note"}, {"value", ""}}};
    EXPECT_EQ(call("PUT", path, {{"values", first}}).status, 200);
    EXPECT_EQ(get(path).data().at("values"), first);
    const json second{{{"key", "operator"}, {"value", "bert"}}};
    EXPECT_EQ(call("PUT", path, {{"values", second}}).status, 200);
    EXPECT_EQ(get(path).data().at("values"), second);
}

TEST_F(FileCalls, ExtendedMetadataHasBounds) {
    const std::string path = pathOf(storeFile("f", "x"), "/extended-metadata");
    json many = json::array();
    for (int i = 0; i < 1001; ++i)
        many.push_back({{"key", "k"}, {"value", "v"}});
    EXPECT_EQ(call("PUT", path, {{"values", many}}).errorCode(), 1);
    many.erase(1000);
    EXPECT_EQ(call("PUT", path, {{"values", many}}).status, 200);
    EXPECT_EQ(call("PUT", path, {{"values", {{{"key", ""}, {"value", "v"}}}}}).errorCode(), 1);
    EXPECT_EQ(call("PUT", path, {{"values", {{{"key", std::string(256, 'k')}, {"value", "v"}}}}}).errorCode(),
              1);
    EXPECT_EQ(
        call("PUT", path, {{"values", {{{"key", "k"}, {"value", std::string(65537, 'v')}}}}}).errorCode(), 1);
    EXPECT_EQ(call("PUT", path, {{"values", {{{"key", "k"}}}}}).errorCode(), 1);
    EXPECT_EQ(call("PUT", path, {{"values", "x"}}).errorCode(), 1);
    EXPECT_EQ(call("PUT", path, json::object()).errorMessage(), "The field \"values\" is missing.");
    EXPECT_EQ(call("PUT", "/files/99/extended-metadata", {{"values", json::array()}}).errorCode(), 3);
    EXPECT_EQ(get(path).data().at("values").size(), 1000U);
}

TEST_F(FileCalls, ADownloadThatBreaksOffHarmsNothing) {
    const std::string content = sampleBytes(20'000'000);
    const json file = storeFile("f", content);
    HttpClient impatient(port());
    impatient.sendRaw("GET /api/v1" + contentPath(file) + " HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " +
                      token() + "\r\n\r\n");
    EXPECT_EQ(impatient.readReply(false).status, 200);
    impatient.abort();
    EXPECT_EQ(contentOf(file.at("id")), content);
}

} // namespace halvane::server
