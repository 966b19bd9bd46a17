// The order in which a finalisation reaches the disk, seen in the system calls of the server.
#include "support/server_test.h"

#include <csignal>
#include <fstream>
#include <regex>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace halvane::server {

namespace {

// strace attached to a process for the life of this object.
class SystemCallRecord {
public:
    SystemCallRecord(pid_t process, std::string file) : m_file(std::move(file)) {
        const std::string target = std::to_string(process);
        const std::string messages = m_file + ".messages";
        m_strace = ::fork();
        if (m_strace == 0) {
            if (std::freopen(messages.c_str(), "w", stderr) == nullptr)
                ::_exit(126);
            ::execlp("strace", "strace", "-f", "-y", "-s", "200", "-e",
                     "trace=fsync,fdatasync,rename,renameat,renameat2,sendmsg,sendto,write", "-o",
                     m_file.c_str(), "-p", target.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        while (readFile(messages).find("attached") == std::string::npos)
            if (::waitpid(m_strace, nullptr, WNOHANG) != 0)
                throw std::runtime_error("strace did not attach: " + readFile(messages));
    }
    ~SystemCallRecord() { end(); }

    std::vector<std::string> end() {
        if (m_strace > 0) {
            ::kill(m_strace, SIGINT);
            ::waitpid(std::exchange(m_strace, -1), nullptr, 0);
        }
        std::ifstream file(m_file);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

private:
    std::string m_file;
    pid_t m_strace = -1;
};

// The line at which a call that fits the pattern has come back, from `after` on; npos when there is none. A
// call that was interrupted by the output of another thread counts where it is resumed.
std::size_t completed(const std::vector<std::string>& lines, const std::string& pattern, std::size_t after) {
    const std::regex wanted(pattern);
    for (std::size_t i = after; i < lines.size(); ++i) {
        if (!std::regex_search(lines[i], wanted))
            continue;
        if (lines[i].find("<unfinished ...>") == std::string::npos)
            return i;
        const std::string thread = lines[i].substr(0, lines[i].find(' '));
        for (std::size_t j = i + 1; j < lines.size(); ++j)
            if (lines[j].starts_with(thread + " ") && lines[j].find("resumed>") != std::string::npos)
                return j;
    }
    return std::string::npos;
}

} // namespace

class FlushOrder : public ServerTest {
protected:
    void expectContentThenNameThenCatalogueThenReply(const std::string& content);
};

void FlushOrder::expectContentThenNameThenCatalogueThenReply(const std::string& content) {
    storeFile("the day's directory is there from here on", content);
    const nlohmann::json upload = openUpload("a", content.size());
    putAll(upload, content);
    SystemCallRecord record(pid(), temporaryFile("trace"));
    ASSERT_EQ(finalize(upload.at("upload_id")).status, 200);
    const std::vector<std::string> lines = record.end();
    std::string all;
    for (const std::string& line : lines)
        all += line + '\n';
    std::size_t at = 0;
    for (const char* step :
         {R"(fsync\(\d+<[^>]*/staging/)", R"(rename(at2?)?\(.*/staging/.*/blobs/)",
          R"(fsync\(\d+<[^>]*/blobs/\d{8}>)", R"((fsync|fdatasync)\(\d+<[^>]*catalog\.sqlite3-wal>)",
          R"(send(msg|to)\(.*HTTP/1\.1 200 OK)"}) {
        at = completed(lines, step, at);
        ASSERT_NE(at, std::string::npos) << "not found in this order: " << step << "\n" << all;
    }
}

TEST_F(FlushOrder, ALargeContentIsDurableBeforeItIsAcknowledged) {
    expectContentThenNameThenCatalogueThenReply(sampleBytes(250'000));
}

TEST_F(FlushOrder, AContentThatWasWrittenDirectlyIsDurableBeforeItIsAcknowledged) {
    ASSERT_EQ(stop(), 0);
    start({"--chunk-size", "2097152"});
    expectContentThenNameThenCatalogueThenReply(sampleBytes(5'000'000));
}

TEST_F(FlushOrder, ASmallContentIsDurableBeforeItIsAcknowledged) {
    const nlohmann::json upload = openUpload("a", 1000);
    putAll(upload, sampleBytes(1000));
    SystemCallRecord record(pid(), temporaryFile("trace"));
    ASSERT_EQ(finalize(upload.at("upload_id")).status, 200);
    const std::vector<std::string> lines = record.end();
    const std::size_t flushed = completed(lines, R"((fsync|fdatasync)\(\d+<[^>]*catalog\.sqlite3-wal>)", 0);
    ASSERT_NE(flushed, std::string::npos);
    EXPECT_NE(completed(lines, R"(send(msg|to)\(.*HTTP/1\.1 200 OK)", flushed), std::string::npos);
}

} // namespace halvane::server
