// What the server does with requests that are too much, too slow or no requests.
#include "support/server_test.h"

#include <thread>

namespace halvane::server {

using nlohmann::json;

class Limits : public ServerTest {
protected:
    std::string authorization() const { return "Authorization: Bearer " + token() + "\r\n"; }
    void expectServing() { EXPECT_EQ(get("/health").status, 200); }
};

TEST_F(Limits, GarbageGetsAnEnvelopeAndTheEndOfTheConnection) {
    for (const std::string& garbage :
         {std::string("<html><body>hello</body></html>\r\n\r\n"),
          std::string("\x16\x03\x01\x02\x00\x01\x00\r\n\r\n", 11), std::string("GET\r\n\r\n"),
          std::string("GET / HTTP/9.9\r\n\r\n"),
          std::string("GET /api/v1/health HTTP/1.1\r\nno colon here\r\n\r\n"),
          std::string("POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n"),
          std::string("POST / HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n"),
          std::string("POST / HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n")}) {
        HttpClient client(port());
        client.sendRaw(garbage);
        const Reply reply = client.readReply();
        EXPECT_EQ(reply.status, 400) << garbage;
        EXPECT_EQ(reply.errorCode(), 1) << garbage;
        EXPECT_EQ(reply.headers.at("connection"), "close");
    }
    expectServing();
}

TEST_F(Limits, AHeaderThatIsTooLargeIsRefused) {
    HttpClient client(port());
    client.sendRaw("GET /api/v1/health HTTP/1.1\r\nHost: x\r\nX-Long: " + std::string(20'000, 'x') +
                   "\r\n\r\n");
    const Reply reply = client.readReply();
    EXPECT_EQ(reply.status, 431);
    EXPECT_EQ(reply.errorCode(), 1);
    HttpClient endless(port());
    endless.sendRaw("GET /" + std::string(30'000, 'x'));
    EXPECT_EQ(endless.readReply().status, 431);
    HttpClient fits(port());
    EXPECT_EQ(fits.request("GET", "/api/v1/health", {}, {{"X-Long", std::string(15'000, 'x')}}).status, 200);
}

TEST_F(Limits, ABodyThatIsTooLargeIsRefusedBeforeItIsSent) {
    HttpClient client(port());
    client.sendRaw("POST /api/v1/folders HTTP/1.1\r\nHost: x\r\n" + authorization() +
                   "Content-Length: 1000000000000\r\n\r\n");
    const Reply reply = client.readReply();
    EXPECT_EQ(reply.status, 413);
    EXPECT_EQ(reply.errorCode(), 1);
    EXPECT_EQ(rawCall("POST", "/folders", std::string(1'048'577, ' ')).status, 413);
    expectServing();
}

TEST_F(Limits, ARefusedBodyLeavesTheConnectionInOrder) {
    HttpClient client(port());
    EXPECT_EQ(client.request("POST", "/api/v1/folders", std::string(2'000'000, 'x')).status, 413);
    EXPECT_EQ(client.request("PUT", "/api/v1/uploads/99/chunks/0", std::string(2'000'000, 'x')).status, 401);
    EXPECT_EQ(client.request("GET", "/api/v1/health").status, 200);
}

TEST_F(Limits, ABodyWithoutALengthIsRefused) {
    HttpClient client(port());
    client.sendRaw("POST /api/v1/login HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
    const Reply reply = client.readReply();
    EXPECT_EQ(reply.status, 411);
    EXPECT_EQ(reply.errorCode(), 1);
}

TEST_F(Limits, JsonThatIsMalformedOrTooDeepIsRefused) {
    for (const std::string& body :
         {std::string(), std::string("{"), std::string("<html>"), std::string("[1]"),
          std::string("{\"a\": \"\xFF\"}"),
          "{\"a\":" + std::string(100'000, '[') + std::string(100'000, ']') + "}"}) {
        const Reply reply = rawCall("POST", "/folders", body);
        EXPECT_EQ(reply.status, 400) << body.substr(0, 20);
        EXPECT_EQ(reply.errorCode(), 1) << body.substr(0, 20);
    }
}

TEST_F(Limits, UnknownCallsAndMethodsAreTold) {
    EXPECT_EQ(get("/nothing").errorCode(), 3);
    EXPECT_EQ(HttpClient(port()).request("GET", "/").status, 404);
    const Reply reply = rawCall("DELETE", "/folders/1", {});
    EXPECT_EQ(reply.status, 405);
    EXPECT_EQ(reply.errorCode(), 1);
}

TEST_F(Limits, RequestsOfOneConnectionFollowOneAnother) {
    HttpClient client(port());
    const std::string request = "GET /api/v1/health HTTP/1.1\r\nHost: x\r\n\r\n";
    client.sendRaw(request + request + request);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(client.readReply().status, 200);
}

TEST_F(Limits, AClientThatAsksForItHearsThatItMayGoOn) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    HttpClient client(port());
    client.sendRaw("PUT /api/v1/uploads/" + std::to_string(id) +
                   "/chunks/0 HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n" + authorization() +
                   "Content-Length: 100000\r\nHalvane-Chunk-Xxh3: " + xxh3Text(content) + "\r\n\r\n");
    EXPECT_EQ(client.readReply().status, 100);
    client.sendRaw(content);
    EXPECT_EQ(client.readReply().status, 200);
}

TEST_F(Limits, TooManyConnectionsAreTurnedAway) {
    EXPECT_EQ(stop(), 0);
    start({"--max-connections", "3"});
    std::vector<std::unique_ptr<HttpClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<HttpClient>(port()));
        EXPECT_EQ(clients.back()->request("GET", "/api/v1/health").status, 200);
    }
    const Reply refused = HttpClient(port()).readReply();
    EXPECT_EQ(refused.status, 429);
    EXPECT_EQ(refused.errorCode(), 11);
    EXPECT_EQ(refused.headers.at("retry-after"), "1");
    EXPECT_EQ(clients.front()->request("GET", "/api/v1/health").status, 200);
    clients.clear();
}

// Each limit by itself: who keeps to it is nobody's question here, however busy the machine is.
TEST_F(Limits, ClientsThatSayNothingAreCutOff) {
    EXPECT_EQ(stop(), 0);
    start({"--idle-timeout-ms", "200"});
    HttpClient silent(port());
    EXPECT_TRUE(silent.readToEnd());
    EXPECT_TRUE(isServing());
}

TEST_F(Limits, ClientsThatDoNotEndTheirHeaderAreCutOff) {
    EXPECT_EQ(stop(), 0);
    start({"--header-timeout-ms", "200"});
    HttpClient slow(port());
    slow.sendRaw("GET /api/v1/health HTTP/1.1\r\nX-Slow: ");
    EXPECT_TRUE(slow.readToEnd());
    EXPECT_TRUE(isServing());
}

TEST_F(Limits, ClientsThatDoNotEndTheirBodyAreCutOff) {
    const std::string content = sampleBytes(100'000);
    const int id = openUpload("a", content.size()).at("upload_id");
    EXPECT_EQ(stop(), 0);
    start({"--silence-timeout-ms", "200"});
    HttpClient slowBody(port());
    slowBody.sendRaw("POST /api/v1/login HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n{");
    EXPECT_TRUE(slowBody.readToEnd());
    HttpClient slowChunk(port());
    slowChunk.sendRaw("PUT /api/v1/uploads/" + std::to_string(id) + "/chunks/0 HTTP/1.1\r\nHost: x\r\n" +
                      authorization() + "Content-Length: 100000\r\nHalvane-Chunk-Xxh3: " + xxh3Text(content) +
                      "\r\n\r\nx");
    EXPECT_TRUE(slowChunk.readToEnd());
    EXPECT_TRUE(isServing());
}

TEST_F(Limits, LargeRequestsTogetherAreBounded) {
    EXPECT_EQ(stop(), 0);
    start({"--max-collected-bytes", "300000"});
    HttpClient first(port());
    first.sendRaw("POST /api/v1/folders HTTP/1.1\r\nHost: x\r\n" + authorization() +
                  "Content-Length: 200000\r\n\r\n{");
    Reply second;
    do
        second = rawCall("POST", "/folders", std::string(200'000, ' '));
    while (second.status == 400); // until the first one's head has been read
    EXPECT_EQ(second.status, 429);
    EXPECT_EQ(second.errorCode(), 11);
}

} // namespace halvane::server
