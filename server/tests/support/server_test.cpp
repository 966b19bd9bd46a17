#include "support/server_test.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace halvane::server {

namespace {

pid_t spawn(const std::vector<std::string>& arguments, int in, int out, int err) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    const pid_t process = ::fork();
    if (process != 0)
        return process;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // no server outlives a test that crashed
    // Where only ancestors may trace a process: strace is a sibling. Elsewhere the call fails and is not
    // needed.
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    ::dup2(in, 0);
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::execvp(pointers[0], pointers.data());
    ::_exit(127);
}

int exitCodeOf(pid_t process) {
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void waitUntil(const std::function<bool()>& condition) {
    while (!condition())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

ProgramResult runProgram(const std::vector<std::string>& arguments, const std::string& input) {
    const TemporaryDirectory directory;
    std::ofstream(directory.file("in"), std::ios::binary) << input;
    const int in = ::open(directory.file("in").c_str(), O_RDONLY | O_CLOEXEC);
    const int out = ::open(directory.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = ::open(directory.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int code = exitCodeOf(spawn(arguments, in, out, err));
    for (const int descriptor : {in, out, err})
        ::close(descriptor);
    return {code, readFile(directory.file("out")), readFile(directory.file("err"))};
}

std::string sha256Text(const std::string& content) {
    return hexText(Sha256::of(content));
}

std::string xxh3Text(const std::string& content) {
    return hexText(Xxh3::of(content));
}

std::string sampleBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

void ServerTest::SetUp() {
    prepare();
    start();
    actAs(login());
}

void ServerTest::TearDown() {
    if (m_process > 0) {
        EXPECT_EQ(stop(), 0) << log();
    }
}

void ServerTest::prepare() {
    const ProgramResult result = command({"init", "--admin", "root", "--password-stdin",
                                          "--password-memory-kib", "64", "--password-passes", "1"},
                                         "secret\n");
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

void ServerTest::start(const std::vector<std::string>& moreOptions) {
    const std::string portFile = temporaryFile("port");
    std::filesystem::remove(portFile);
    std::vector<std::string> arguments{HALVANE_SERVER_BINARY,
                                       "--data",
                                       dataDirectory(),
                                       "--listen",
                                       "127.0.0.1:" + std::to_string(m_port),
                                       "--port-file",
                                       portFile,
                                       "--log-file",
                                       temporaryFile("log"),
                                       "--chunk-size",
                                       "100000"};
    if (std::find(moreOptions.begin(), moreOptions.end(), "--chunk-size") != moreOptions.end())
        arguments.resize(arguments.size() - 2);
    arguments.insert(arguments.end(), moreOptions.begin(), moreOptions.end());
    m_process = spawn(arguments, 0, 1, 2);
    waitUntil([&] { return std::filesystem::exists(portFile) || !isServing(); });
    if (!isServing())
        FAIL() << "the server ended with " << waitForEnd() << ": " << log();
}

int ServerTest::stop() {
    ::kill(m_process, SIGTERM);
    return waitForEnd();
}

int ServerTest::waitForEnd() {
    return exitCodeOf(std::exchange(m_process, -1));
}

void ServerTest::kill() {
    ::kill(m_process, SIGKILL);
    exitCodeOf(std::exchange(m_process, -1));
}

bool ServerTest::isServing() const {
    if (m_process <= 0)
        return false;
    siginfo_t ended{};
    return ::waitid(P_PID, static_cast<id_t>(m_process), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

ProgramResult ServerTest::command(std::vector<std::string> arguments, const std::string& input) const {
    arguments.insert(arguments.begin(), HALVANE_SERVER_BINARY);
    arguments.insert(arguments.end(), {"--data", dataDirectory()});
    return runProgram(arguments, input);
}

std::vector<std::string> ServerTest::filesBelow(const std::string& name) const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dataDirectory() + '/' + name))
        if (entry.is_regular_file())
            files.push_back(entry.path().string());
    return files;
}

std::string ServerTest::login(const std::string& user, const std::string& password) const {
    const Reply reply =
        rawCall("POST", "/login", nlohmann::json{{"user", user}, {"password", password}}.dump());
    return reply.data().at("token").get<std::string>();
}

Reply ServerTest::rawCall(const std::string& method, const std::string& path, const std::string& body,
                          ClientHeaders headers) const {
    if (!m_token.empty())
        headers.emplace_back("Authorization", "Bearer " + m_token);
    return HttpClient(m_port).request(method, "/api/v1" + path, body, headers);
}

Reply ServerTest::call(const std::string& method, const std::string& path, const nlohmann::json& body,
                       ClientHeaders headers) const {
    return rawCall(method, path, body.is_null() ? std::string() : body.dump(), std::move(headers));
}

Reply ServerTest::get(const std::string& path, ClientHeaders headers) const {
    return rawCall("GET", path, {}, std::move(headers));
}

void ServerTest::addUser(const std::string& name, const std::vector<std::string>& groups) const {
    std::vector<std::string> arguments{"user", "add", "--name", name, "--password-stdin"};
    for (const std::string& group : groups)
        arguments.insert(arguments.end(), {"--group", group});
    const ProgramResult result = command(arguments, "secret\n");
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

int ServerTest::addGroup(const std::string& name) const {
    const ProgramResult result = command({"group", "add", "--name", name});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return std::stoi(result.out.substr(result.out.rfind(' ')));
}

void ServerTest::grant(int folder, const std::string& group, const std::string& privileges) const {
    const ProgramResult result =
        command({"grant", "--folder", std::to_string(folder), "--group", group, "--privileges", privileges});
    ASSERT_EQ(result.exitCode, 0) << result.err;
}

int ServerTest::makeFolder(const std::string& name, int parent, const nlohmann::json& groups) const {
    const Reply reply =
        call("POST", "/folders", {{"name", name}, {"parent_id", parent}, {"usergroup_ids", groups}});
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.data().at("id").get<int>();
}

nlohmann::json ServerTest::openUpload(const std::string& name, std::size_t size, int target, int targetType,
                                      const std::string& key) const {
    const Reply reply = call(
        "POST", "/uploads",
        {{"name", name}, {"size", size}, {"target_id", target}, {"target_type", targetType}}, keyHeader(key));
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.data();
}

Reply ServerTest::putChunk(int upload, int index, const std::string& chunk, ClientHeaders headers) const {
    headers.emplace_back("Halvane-Chunk-Xxh3", xxh3Text(chunk));
    return rawCall("PUT", "/uploads/" + std::to_string(upload) + "/chunks/" + std::to_string(index), chunk,
                   headers);
}

Reply ServerTest::declareSha256(int upload, const std::string& content) const {
    return rawCall("PUT", "/uploads/" + std::to_string(upload) + "/content-sha256", {},
                   {{"Halvane-Content-Sha256", sha256Text(content)}});
}

void ServerTest::putAll(const nlohmann::json& upload, const std::string& content) const {
    const int id = upload.at("upload_id").get<int>();
    const auto size = upload.at("chunk_size").get<std::size_t>();
    for (std::size_t at = 0; at < content.size(); at += size) {
        const Reply reply = putChunk(id, static_cast<int>(at / size), content.substr(at, size));
        ASSERT_EQ(reply.status, 200) << reply.body;
    }
    ASSERT_EQ(declareSha256(id, content).status, 200);
}

Reply ServerTest::finalize(int upload, const std::string& key, const nlohmann::json& more) const {
    nlohmann::json body = more;
    body["upload_id"] = upload;
    return call("POST", "/uploads/finalize", body, keyHeader(key));
}

nlohmann::json ServerTest::storeFile(const std::string& name, const std::string& content, int target,
                                     int targetType) const {
    const nlohmann::json upload = openUpload(name, content.size(), target, targetType);
    putAll(upload, content);
    const Reply reply = finalize(upload.at("upload_id").get<int>());
    EXPECT_EQ(reply.status, 200) << reply.body;
    return reply.data().at("file");
}

std::string ServerTest::contentOf(int file, const std::string& version) const {
    const Reply reply = get("/files/" + std::to_string(file) + "/versions/" + version + "/content");
    EXPECT_EQ(reply.status, 200) << reply.body.substr(0, 200);
    return reply.body;
}

ClientHeaders ServerTest::keyHeader(const std::string& key) {
    return key.empty() ? ClientHeaders() : ClientHeaders{{"Idempotency-Key", key}};
}

} // namespace halvane::server
