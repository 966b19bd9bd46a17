#include "TerminalLine.h"

#include <errno.h>
#include <termios.h>
#include <unistd.h>

#include <utility>

namespace halvane::cli {

TerminalLine::TerminalLine() = default;

TerminalLine::~TerminalLine() = default;

bool TerminalLine::isPossible() {
    return ::isatty(STDIN_FILENO) && ::isatty(STDERR_FILENO);
}

void TerminalLine::start() {
    stop();
    ::tcflush(STDIN_FILENO, TCIFLUSH);
    m_line.clear();
    m_input = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
    connect(m_input.get(), &QSocketNotifier::activated, this, &TerminalLine::onReadable);
}

// The notifier is perhaps the one that is being served.
void TerminalLine::stop() {
    if (!m_input)
        return;
    m_input->setEnabled(false);
    m_input.release()->deleteLater();
}

void TerminalLine::onReadable() {
    char byte = 0;
    const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
    if (count < 0 && errno == EINTR)
        return;
    if (count <= 0) {
        Q_EMIT ended();
        return;
    }
    if (byte == '\n')
        Q_EMIT read(std::exchange(m_line, {}));
    else
        m_line.append(byte);
}

} // namespace halvane::cli
