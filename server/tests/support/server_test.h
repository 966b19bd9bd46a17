// A real halvane-server in a process of its own, with a data directory of its own, for one test.
#pragma once

#include "Sockets.h"
#include "core/hashes.h"
#include "support/http_client.h"
#include "support/temporary_directory.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <sys/types.h>

namespace halvane::server {

struct ProgramResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end.
ProgramResult runProgram(const std::vector<std::string>& arguments, const std::string& input = {});

std::string sha256Text(const std::string& content);
std::string xxh3Text(const std::string& content);
// Bytes that do not repeat, different for each seed.
std::string sampleBytes(std::size_t size, unsigned seed = 1);
std::string readFile(const std::string& path);
// Looks every millisecond, without end: the time limit of the whole test ends it.
void waitUntil(const std::function<bool()>& condition);

class ServerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // --- the process ---
    // Prepares the data directory with the administrator "root", password "secret".
    void prepare();
    void start(const std::vector<std::string>& moreOptions = {});
    // SIGTERM; returns the exit code.
    int stop();
    // Waits for the end of a process that was told to stop; returns the exit code.
    int waitForEnd();
    void kill();
    // False when the process has ended, or did not come up.
    bool isServing() const;
    pid_t pid() const { return m_process; }
    // The same for all servers of a test. While none runs, who connects is refused.
    std::uint16_t port() const { return m_port; }
    std::string dataDirectory() const { return m_directory.file("data"); }
    std::string temporaryFile(const std::string& name) const { return m_directory.file(name); }
    std::string log() const { return readFile(temporaryFile("log")); }
    // A command such as {"group", "add", "--name", "lab"}; --data is added.
    ProgramResult command(std::vector<std::string> arguments, const std::string& input = {}) const;
    // The files below a directory of the data directory.
    std::vector<std::string> filesBelow(const std::string& name) const;

    // --- calls; paths are below /api/v1 ---
    std::string login(const std::string& user = "root", const std::string& password = "secret") const;
    Reply call(const std::string& method, const std::string& path, const nlohmann::json& body = nullptr,
               ClientHeaders headers = {}) const;
    Reply rawCall(const std::string& method, const std::string& path, const std::string& body,
                  ClientHeaders headers = {}) const;
    Reply get(const std::string& path, ClientHeaders headers = {}) const;
    // Whose token the calls carry; none when empty.
    void actAs(const std::string& token) { m_token = token; }
    std::string token() const { return m_token; }

    // --- whole steps, which must succeed ---
    void addUser(const std::string& name,
                 const std::vector<std::string>& groups = {}) const; // password "secret"
    int addGroup(const std::string& name) const;
    void grant(int folder, const std::string& group, const std::string& privileges) const;
    int makeFolder(const std::string& name, int parent = 1, const nlohmann::json& groups = nullptr) const;
    nlohmann::json openUpload(const std::string& name, std::size_t size, int target = 1, int targetType = 1,
                              const std::string& key = {}) const;
    Reply putChunk(int upload, int index, const std::string& chunk, ClientHeaders headers = {}) const;
    Reply declareSha256(int upload, const std::string& content) const;
    // All chunks and the content's SHA-256.
    void putAll(const nlohmann::json& upload, const std::string& content) const;
    Reply finalize(int upload, const std::string& key = {},
                   const nlohmann::json& more = nlohmann::json::object()) const;
    // The "file" object of the finalisation.
    nlohmann::json storeFile(const std::string& name, const std::string& content, int target = 1,
                             int targetType = 1) const;
    std::string contentOf(int file, const std::string& version = "latest") const;

    static ClientHeaders keyHeader(const std::string& key);

    TemporaryDirectory m_directory;

private:
    pid_t m_process = -1;
    const orx::testing::Socket m_reserved = orx::testing::Socket::reserved();
    const std::uint16_t m_port = m_reserved.port();
    std::string m_token;
};

} // namespace halvane::server
