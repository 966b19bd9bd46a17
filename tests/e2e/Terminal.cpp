#include "Terminal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace orx::testing {

namespace {

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Terminal::Terminal(const Client& client, const QStringList& arguments) {
    std::vector<std::string> words{programPath(QStringLiteral("halvane")).toStdString()};
    for (const QString& argument : arguments)
        words.push_back(argument.toStdString());
    std::vector<std::string> variables;
    for (const QString& variable : client.environment().toStringList())
        variables.push_back(variable.toStdString());
    const std::vector<char*> argv = pointersTo(words);
    const std::vector<char*> envp = pointersTo(variables);
    const std::string directory = client.path({}).toStdString();
    const winsize size{24, 120, 0, 0};
    m_child = ::forkpty(&m_master, nullptr, nullptr, &size);
    if (m_child == 0) {
        if (::chdir(directory.c_str()) == 0)
            ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    EXPECT_GT(m_child, 0);
}

Terminal::~Terminal() {
    if (m_child > 0) {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }
    ::close(m_master);
}

bool Terminal::waitFor(const std::string& text) {
    for (;;) {
        const size_t found = m_seen.find(text, m_waitedFor);
        if (found != std::string::npos) {
            m_waitedFor = found + text.size();
            return true;
        }
        if (!readMore())
            return false;
    }
}

void Terminal::type(const std::string& text) const {
    EXPECT_EQ(::write(m_master, text.data(), text.size()), ssize_t(text.size()));
}

bool Terminal::echoes() const {
    termios state = {};
    EXPECT_EQ(::tcgetattr(m_master, &state), 0);
    return state.c_lflag & tcflag_t(ECHO);
}

int Terminal::finish() {
    while (readMore()) {
    }
    int status = 0;
    EXPECT_GT(::waitpid(std::exchange(m_child, -1), &status, 0), 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Terminal::readMore() {
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

} // namespace orx::testing
