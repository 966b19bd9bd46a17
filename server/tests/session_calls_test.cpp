// Login, tokens, health and metrics.
#include "support/server_test.h"

#include <sstream>

namespace halvane::server {

class SessionCalls : public ServerTest {};

TEST_F(SessionCalls, LoginGivesATokenThatTheOtherCallsTake) {
    const Reply whoami = get("/whoami");
    EXPECT_EQ(whoami.status, 200);
    EXPECT_EQ(whoami.data().at("user"),
              (nlohmann::json{
                  {"id", 1}, {"name", "root"}, {"is_admin", true}, {"groups", nlohmann::json::array()}}));
    EXPECT_EQ(whoami.data().at("server").at("name"), "halvane-server");
    EXPECT_TRUE(whoami.headers.contains("x-request-id"));
}

TEST_F(SessionCalls, WrongNameAndWrongPasswordLookAlike) {
    const Reply wrongName = call("POST", "/login", {{"user", "nobody"}, {"password", "secret"}});
    const Reply wrongPassword = call("POST", "/login", {{"user", "root"}, {"password", "wrong"}});
    EXPECT_EQ(wrongName.status, 401);
    EXPECT_EQ(wrongName.errorCode(), 2);
    EXPECT_EQ(wrongName.body, wrongPassword.body);
}

TEST_F(SessionCalls, TenFailuresMakeTheNameWaitAndNoOther) {
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(call("POST", "/login", {{"user", "nobody"}, {"password", "x"}}).status, 401);
    const Reply refused = call("POST", "/login", {{"user", "nobody"}, {"password", "x"}});
    EXPECT_EQ(refused.status, 429);
    EXPECT_EQ(refused.errorCode(), 11);
    EXPECT_GT(std::stoi(refused.headers.at("retry-after")), 0);
    EXPECT_EQ(call("POST", "/login", {{"user", "root"}, {"password", "secret"}}).status, 200);
}

TEST_F(SessionCalls, EveryCallNeedsAToken) {
    actAs({});
    const std::pair<const char*, const char*> calls[] = {{"GET", "/whoami"},
                                                         {"POST", "/logout"},
                                                         {"GET", "/groups"},
                                                         {"GET", "/folders/1"},
                                                         {"GET", "/folders/1/folders"},
                                                         {"GET", "/folders/1/files"},
                                                         {"POST", "/folders"},
                                                         {"GET", "/files/1"},
                                                         {"GET", "/files/1/path"},
                                                         {"GET", "/files/1/versions"},
                                                         {"GET", "/files/1/versions/1/content"},
                                                         {"PUT", "/files/1/extended-metadata"},
                                                         {"GET", "/files/1/extended-metadata"},
                                                         {"POST", "/uploads"},
                                                         {"GET", "/uploads"},
                                                         {"GET", "/uploads/1"},
                                                         {"PUT", "/uploads/1/chunks/0"},
                                                         {"PUT", "/uploads/1/content-sha256"},
                                                         {"POST", "/uploads/finalize"},
                                                         {"GET", "/uploads/by-key/k"},
                                                         {"DELETE", "/uploads/1"}};
    for (const char* token : {"", "unknown"})
        for (const auto& [method, path] : calls) {
            actAs(token);
            const Reply reply = call(method, path);
            EXPECT_EQ(reply.status, 401) << method << path;
            EXPECT_EQ(reply.errorCode(), 2) << method << path;
        }
    EXPECT_EQ(get("/health", {{"Authorization", "Basic cm9vdDpzZWNyZXQ="}}).status, 200);
    EXPECT_EQ(get("/whoami", {{"Authorization", "Basic cm9vdDpzZWNyZXQ="}}).status, 401);
}

TEST_F(SessionCalls, LogoutVoidsThisTokenOnly) {
    const std::string other = login();
    EXPECT_EQ(call("POST", "/logout").status, 200);
    EXPECT_EQ(get("/whoami").status, 401);
    actAs(other);
    EXPECT_EQ(get("/whoami").status, 200);
}

TEST_F(SessionCalls, TokensOfNoLifetimeHaveExpired) {
    EXPECT_EQ(stop(), 0);
    start({"--token-lifetime", "0"});
    EXPECT_EQ(get("/whoami").status, 200); // made before, with its own lifetime
    actAs(login());
    EXPECT_EQ(get("/whoami").status, 401);
}

TEST_F(SessionCalls, HealthNeedsNoTokenAndMetricsCount) {
    actAs({});
    EXPECT_EQ(get("/health").data(), (nlohmann::json{{"healthy", true}}));
    const Reply metrics = get("/metrics"); // from the loopback interface
    EXPECT_EQ(metrics.status, 200);
    EXPECT_NE(metrics.body.find("halvane_requests_total{status=\"2xx\"}"), std::string::npos);
}

TEST_F(SessionCalls, WhenNoOtherRequestRunsAllOthersAreInTheLog) {
    const std::string alone = "\nhalvane_requests_running 1\n";
    HttpClient unfinished(port());
    unfinished.sendRaw(
        "POST /api/v1/login HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 10\r\n\r\n");
    EXPECT_EQ(unfinished.readReply().status, 100); // the request runs
    EXPECT_EQ(get("/metrics").body.find(alone), std::string::npos);
    unfinished.abort();
    for (int i = 1; i <= 50; ++i) {
        ASSERT_EQ(get("/health").status, 200);
        waitUntil([&] { return get("/metrics").body.find(alone) != std::string::npos; });
        const std::string lines = log();
        int found = 0;
        for (std::size_t at = lines.find("/health"); at != std::string::npos;
             at = lines.find("/health", at + 1))
            ++found;
        ASSERT_EQ(found, i);
    }
}

TEST_F(SessionCalls, TheLogHasOneLineARequestAndNoSecret) {
    const Reply reply = get("/whoami");
    call("POST", "/login", {{"user", "root"}, {"password", "wrong-and-private"}});
    get("/no\xFFthing\xC3\xA9"); // any bytes in a path, and the line is still JSON
    EXPECT_EQ(stop(), 0);
    std::istringstream lines(log());
    int found = 0;
    for (std::string line; std::getline(lines, line);) {
        const auto entry = nlohmann::json::parse(line);
        if (entry.value("id", "") != reply.headers.at("x-request-id"))
            continue;
        ++found;
        EXPECT_EQ(entry.at("method"), "GET");
        EXPECT_EQ(entry.at("path"), "/api/v1/whoami");
        EXPECT_EQ(entry.at("status"), 200);
        EXPECT_EQ(entry.at("user"), "root");
        EXPECT_EQ(entry.at("bytes_out"), reply.body.size());
    }
    EXPECT_EQ(found, 1);
    EXPECT_EQ(log().find(token()), std::string::npos);
    EXPECT_EQ(log().find("wrong-and-private"), std::string::npos);
    start();
}

} // namespace halvane::server
