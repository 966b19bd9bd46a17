#include "Interruption.h"

#include <atomic>
#include <csignal>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace halvane::cli {

namespace {

std::atomic<bool> requested{false};
int pipeEnds[2] = {-1, -1};

// Only what is allowed in a signal handler: a flag and one byte into the pipe that the event loop watches.
extern "C" void onSignal(int) {
    const int kept = errno;
    requested.store(true);
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(pipeEnds[1], &byte, 1);
    errno = kept;
}

void install(int signal) {
    // What the caller chose to ignore (nohup, a job in the background) stays ignored.
    struct sigaction before = {};
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN)
        return;
    // One time only: a second signal has its usual effect.
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = int(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

} // namespace

Interruption::Interruption(QObject* parent) : QObject(parent) {
    if (::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    m_notifier = std::make_unique<QSocketNotifier>(pipeEnds[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &Interruption::onReadable);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        install(signal);
}

Interruption::~Interruption() = default;

bool Interruption::wasRequested() {
    return requested.load();
}

bool Interruption::waitForInput(int descriptor) {
    // The pipe wakes the wait even when the signal comes just before it begins.
    pollfd entries[2] = {{descriptor, POLLIN, 0}, {pipeEnds[0], POLLIN, 0}};
    while (!wasRequested() && ::poll(entries, 2, -1) < 0 && errno == EINTR) {
    }
    return !wasRequested();
}

void Interruption::watch(orx::BaseTask* task) {
    m_task = task;
    if (wasRequested() && m_task)
        m_task->cancel();
}

void Interruption::watch(std::function<void()> onRequest) {
    m_onRequest = std::move(onRequest);
    if (wasRequested() && m_onRequest)
        m_onRequest();
}

void Interruption::onReadable() {
    char byte = 0;
    while (::read(pipeEnds[0], &byte, 1) == 1) {
    }
    if (m_task)
        m_task->cancel();
    if (m_onRequest)
        m_onRequest();
}

} // namespace halvane::cli
