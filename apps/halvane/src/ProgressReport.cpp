#include "ProgressReport.h"

#include <HalvaneTransferMonitor.h>

#include <algorithm>
#include <cstdio>

#include <sys/ioctl.h>
#include <unistd.h>

namespace halvane::cli {

using orx::HalvaneTransferMonitor;
using orx::HalvaneTransferSnapshot;
using std::chrono::seconds;

namespace {

constexpr std::chrono::milliseconds terminalInterval(200);
constexpr std::chrono::milliseconds logInterval(30'000);
const char* eraseLine = "\r\x1b[K";

int terminalWidth() {
    winsize size = {};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

} // namespace

ProgressReport::ProgressReport(const QString& name, bool quiet, QObject* parent)
    : QObject(parent), m_name(name), m_terminal(::isatty(STDERR_FILENO)) {
    HalvaneTransferMonitor::reset();
    m_elapsed.start();
    if (quiet)
        return;
    connect(&m_timer, &QTimer::timeout, this, &ProgressReport::show);
    m_timer.start(m_terminal ? terminalInterval : logInterval);
}

ProgressReport::~ProgressReport() {
    hide();
}

void ProgressReport::hide() {
    if (std::exchange(m_shown, false) && m_terminal) {
        std::fputs(eraseLine, stderr);
        std::fflush(stderr);
    }
}

void ProgressReport::setPaused(bool paused) {
    m_paused = paused;
    hide();
}

// Empty while there is nothing to be told.
QString ProgressReport::line() {
    if (m_line)
        return m_line();
    const HalvaneTransferSnapshot now = HalvaneTransferMonitor::snapshot();
    if (const auto tree = m_tree ? m_tree() : std::nullopt) {
        m_done.sample(std::chrono::steady_clock::now(), tree->bytesDone);
        return treeProgressText(m_name, *tree, now.bytesPerSecond, m_done.rate());
    }
    // Nothing runs while the server makes the last chunk durable; the line stays up to date all the same.
    if (now.running == 0 && now.bytesTotal == 0)
        return {};
    return progressText(m_name, now.bytesDone, now.bytesTotal, now.bytesPerSecond,
                        now.remaining.value_or(seconds(-1)));
}

void ProgressReport::show() {
    const QString text = line();
    if (text.isEmpty() || m_paused)
        return;
    m_shown = true;
    if (m_terminal)
        std::fprintf(stderr, "%s%s", eraseLine,
                     text.left(std::max(10, terminalWidth() - 1)).toUtf8().constData());
    else
        std::fprintf(stderr, "%s\n", text.toUtf8().constData());
    std::fflush(stderr);
}

QString ProgressReport::summary() const {
    const HalvaneTransferSnapshot end = HalvaneTransferMonitor::snapshot();
    const auto elapsed = std::chrono::milliseconds(m_elapsed.elapsed());
    if (end.bytesMoved <= 0)
        return {};
    QString text =
        QStringLiteral("%1 in %2")
            .arg(bytesText(end.bytesMoved), durationText(std::chrono::duration_cast<seconds>(elapsed)));
    if (elapsed.count() > 0)
        text += QStringLiteral(" (%1/s)").arg(bytesText(end.bytesMoved * 1000 / elapsed.count()));
    if (end.bytesResumed > 0)
        text += QStringLiteral(", %1 were there from an earlier run").arg(bytesText(end.bytesResumed));
    return text;
}

} // namespace halvane::cli
