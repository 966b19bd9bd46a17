#include "PasswordInput.h"

#include "Interruption.h"

#include <QByteArray>

#include <cstdio>

#include <errno.h>
#include <termios.h>
#include <unistd.h>

namespace halvane::cli {

using orx::Error;
using orx::ErrorCode;
using orx::Result;

namespace {

constexpr qsizetype longestPassword = 64 * 1024;

// Switches the echo of the terminal off for its life.
class SilentTerminal {
public:
    SilentTerminal() {
        m_changed = ::tcgetattr(STDIN_FILENO, &m_before) == 0;
        termios silent = m_before;
        silent.c_lflag &= ~tcflag_t(ECHO);
        m_changed = m_changed && ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    ~SilentTerminal() {
        if (m_changed)
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
    }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    bool isSilent() const { return m_changed; }

private:
    termios m_before = {};
    bool m_changed = false;
};

enum class Until { EndOfLine, EndOfInput };

Result<QString> readPassword(Until until) {
    QByteArray text;
    for (;;) {
        if (!Interruption::waitForInput(STDIN_FILENO))
            return Error(ErrorCode::Canceled, QStringLiteral("Interrupted."));
        char byte = 0;
        const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
        if (count < 0 && errno != EINTR)
            return Error::fromErrno(errno,
                                    QStringLiteral("The password cannot be read from standard input."));
        if (count == 0 || (count == 1 && byte == '\n' && until == Until::EndOfLine))
            break;
        if (count == 1)
            text.append(byte);
        if (text.size() > longestPassword)
            return Error(ErrorCode::InvalidArgument, QStringLiteral("The password is too long."));
    }
    if (until == Until::EndOfInput && text.endsWith('\n'))
        text.chop(text.endsWith("\r\n") ? 2 : 1);
    if (text.isEmpty())
        return Error(ErrorCode::InvalidArgument, QStringLiteral("The password is empty."));
    return QString::fromUtf8(text);
}

} // namespace

Result<QString> passwordFromStandardInput() {
    return readPassword(Until::EndOfInput);
}

Result<QString> promptForPassword(const QString& question) {
    if (!::isatty(STDIN_FILENO))
        return Error(
            ErrorCode::InvalidArgument,
            QStringLiteral("There is no terminal to ask for the password; give it on standard input with "
                           "--password-stdin."));
    const SilentTerminal terminal;
    if (!terminal.isSilent())
        return Error(ErrorCode::General,
                     QStringLiteral("The terminal's echo cannot be switched off; use --password-stdin."));
    std::fputs(question.toUtf8().constData(), stderr);
    std::fflush(stderr);
    Result<QString> password = readPassword(Until::EndOfLine);
    std::fputc('\n', stderr);
    return password;
}

} // namespace halvane::cli
