// What people see on a terminal: questions without echo, progress on one line, names that cannot drive it.
#include "Client.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

//! The program on a pseudo terminal of its own.
class Terminal {
public:
    Terminal(const Client& client, const QStringList& arguments) {
        std::vector<std::string> words{programPath("halvane").toStdString()};
        for (const QString& argument : arguments)
            words.push_back(argument.toStdString());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        std::vector<std::string> variables;
        for (const QString& variable : client.environment().toStringList())
            variables.push_back(variable.toStdString());
        std::vector<char*> envp;
        for (std::string& variable : variables)
            envp.push_back(variable.data());
        envp.push_back(nullptr);
        const winsize size{24, 120, 0, 0};
        m_child = ::forkpty(&m_master, nullptr, nullptr, &size);
        if (m_child == 0) {
            ::execve(argv[0], argv.data(), envp.data());
            ::_exit(127);
        }
        EXPECT_GT(m_child, 0);
    }
    ~Terminal() {
        if (m_child > 0) {
            ::kill(m_child, SIGKILL);
            ::waitpid(m_child, nullptr, 0);
        }
        ::close(m_master);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    //! Reads until \a text has come; false when the program ended before.
    bool waitFor(const std::string& text) {
        while (m_seen.find(text) == std::string::npos) {
            if (!readMore())
                return false;
        }
        return true;
    }
    void type(const std::string& text) const {
        EXPECT_EQ(::write(m_master, text.data(), text.size()), ssize_t(text.size()));
    }
    bool echoes() const {
        termios state = {};
        EXPECT_EQ(::tcgetattr(m_master, &state), 0);
        return state.c_lflag & tcflag_t(ECHO);
    }
    //! Reads to the end; the exit code.
    int finish() {
        while (readMore()) {
        }
        int status = 0;
        EXPECT_EQ(::waitpid(std::exchange(m_child, -1), &status, 0) > 0, true);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    const std::string& seen() const { return m_seen; }

private:
    bool readMore() {
        pollfd entry{m_master, POLLIN, 0};
        if (::poll(&entry, 1, 120'000) <= 0)
            return false;
        char buffer[4096];
        const ssize_t count = ::read(m_master, buffer, sizeof buffer);
        if (count <= 0)
            return false;
        m_seen.append(buffer, size_t(count));
        return true;
    }

    int m_master = -1;
    pid_t m_child = -1;
    std::string m_seen;
};

class OnATerminal : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    RealServer server;
    Client client;
};

TEST_F(OnATerminal, PasswordsAreNotEchoed) {
    Terminal terminal(client, {"login", server.url().toString(), "--user", "admin"});
    ASSERT_TRUE(terminal.waitFor("Password of admin at "));
    EXPECT_FALSE(terminal.echoes());
    terminal.type(std::string(RealServer::AdminPassword) + "\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("admin at http://127.0.0.1:"));
    EXPECT_THAT(terminal.seen(), Not(HasSubstr(RealServer::AdminPassword)));
}

TEST_F(OnATerminal, CtrlCAtTheQuestionRestoresTheTerminal) {
    Terminal terminal(client, {"login", server.url().toString(), "--user", "admin"});
    ASSERT_TRUE(terminal.waitFor("Password of admin at "));
    terminal.type("half a pass\x03");
    EXPECT_EQ(terminal.finish(), 130) << terminal.seen();
    EXPECT_TRUE(server.requests().isEmpty());
}

TEST_F(OnATerminal, ProgressIsOneLineThatIsRewritten) {
    constexpr qint64 chunkSize = 256 * 1024;
    ASSERT_TRUE(server.stop());
    server.setArguments({"--chunk-size", QString::number(chunkSize)});
    ASSERT_TRUE(server.start());
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    const QString file = client.makeLargeFile("run.mzML", 8 * chunkSize);
    const auto hold = proxy.holdReply({"POST", ".*/uploads/finalize"});
    Terminal terminal(client, {"put", file, "--to", "/"});
    EXPECT_TRUE(terminal.waitFor("run.mzML  100 %  2.0 MiB of 2.0 MiB")) << terminal.seen();
    hold->release();
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("\r\x1b[K"));
    EXPECT_THAT(terminal.seen(), HasSubstr("-> file:1@1 as run.mzML, 2.0 MiB in "));
    EXPECT_EQ(std::count(terminal.seen().begin(), terminal.seen().end(), '\n'), 1);
}

TEST_F(OnATerminal, NamesCannotTurnTheWritingDirection) {
    ASSERT_TRUE(client.login(server.url()));
    const QString name = QStringLiteral("run\u202Elmzm.exe");
    client.mustRun({"put", client.makeFile("x", "x"), "--to", "/", "--as", name});
    Terminal terminal(client, {"ls"});
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_THAT(terminal.seen(), HasSubstr("run\\u{202E}lmzm.exe"));
    EXPECT_EQ(client.mustRun({"ls"}).out, name.toUtf8() + '\n');
}

} // namespace
} // namespace orx::testing
