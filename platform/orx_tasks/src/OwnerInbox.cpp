#include "OwnerInbox.h"
#include "OwnerInbox_p.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QPointer>
#include <QSocketNotifier>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace orx {

namespace {

thread_local int depthOfWaits = 0;

struct WaitScope {
    WaitScope() { ++depthOfWaits; }
    ~WaitScope() { --depthOfWaits; }
};

} // namespace

int waitDepth() {
    return depthOfWaits;
}

struct OwnerInbox::Private {
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex mutex;
    std::deque<Call> calls;
    bool signalled = false;
    bool closed = false;
    // Of the owner's thread only:
    QPointer<QAbstractEventDispatcher> dispatcher;
    std::unique_ptr<QSocketNotifier> notifier;

    void watch(OwnerInbox* inbox);
    void close();
    //! Takes note of the wake-up and returns how many calls there are.
    size_t beginDrain();
    bool takeCall(Call& call);
    void sleep(const QDeadlineTimer& deadline);
};

//! A thread may get its event dispatcher, and another one, after its inbox was made.
void OwnerInbox::Private::watch(OwnerInbox* inbox) {
    QAbstractEventDispatcher* const current = QAbstractEventDispatcher::instance();
    if (notifier && dispatcher == current)
        return;
    notifier.reset();
    dispatcher = current;
    if (!current)
        return;
    notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, notifier.get(),
                     [inbox] { inbox->drain(); });
}

void OwnerInbox::Private::close() {
    std::deque<Call> dropped;
    {
        const std::lock_guard lock(mutex);
        closed = true;
        dropped.swap(calls);
    }
    notifier.reset();
}

size_t OwnerInbox::Private::beginDrain() {
    const std::lock_guard lock(mutex);
    if (std::exchange(signalled, false)) {
        uint64_t count = 0;
        while (::read(fd, &count, sizeof count) < 0 && errno == EINTR) {
        }
    }
    return calls.size();
}

bool OwnerInbox::Private::takeCall(Call& call) {
    const std::lock_guard lock(mutex);
    if (calls.empty())
        return false;
    call = std::move(calls.front());
    calls.pop_front();
    return true;
}

void OwnerInbox::Private::sleep(const QDeadlineTimer& deadline) {
    const qint64 left = deadline.isForever() ? -1 : deadline.remainingTime();
    const int milliseconds = int(std::min<qint64>(left, std::numeric_limits<int>::max()));
    if (!dispatcher) {
        pollfd watched{fd, POLLIN, 0};
        (void)::poll(&watched, 1, milliseconds); // an interruption only makes the caller look once more
        return;
    }
    QTimer alarm; // wakes the dispatcher
    if (milliseconds >= 0)
        alarm.start(milliseconds);
    dispatcher->processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
}

OwnerInbox::OwnerInbox() : d(std::make_unique<Private>()) {
    if (d->fd < 0)
        qFatal("Cannot create an event descriptor: %s. Raise the limit of open files.", std::strerror(errno));
}

OwnerInbox::~OwnerInbox() {
    ::close(d->fd);
}

std::shared_ptr<OwnerInbox> OwnerInbox::ofThisThread() {
    struct Holder {
        std::shared_ptr<OwnerInbox> inbox{new OwnerInbox};
        ~Holder() { inbox->d->close(); }
    };
    thread_local Holder holder;
    holder.inbox->d->watch(holder.inbox.get());
    return holder.inbox;
}

void OwnerInbox::post(Call call) {
    const std::lock_guard lock(d->mutex);
    if (d->closed)
        return;
    d->calls.push_back(std::move(call));
    if (std::exchange(d->signalled, true))
        return;
    const uint64_t one = 1;
    while (::write(d->fd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

bool OwnerInbox::drain() {
    // Only what is there now: calls that cause further ones must not keep the event loop from its other work.
    const size_t count = d->beginDrain();
    for (size_t i = 0; i < count; ++i) {
        Call call;
        if (!d->takeCall(call))
            break; // a call waited, and its wait ran the rest
        call();
    }
    return count > 0;
}

bool OwnerInbox::waitUntil(const std::function<bool()>& done,
                           std::optional<std::chrono::milliseconds> timeout) {
    d->watch(this);
    const WaitScope scope;
    const QDeadlineTimer deadline =
        timeout ? QDeadlineTimer(*timeout) : QDeadlineTimer(QDeadlineTimer::Forever);
    for (;;) {
        drain();
        if (d->dispatcher)
            d->dispatcher->processEvents(QEventLoop::AllEvents);
        else
            QCoreApplication::sendPostedEvents();
        if (done())
            return true;
        if (deadline.hasExpired())
            return false;
        d->sleep(deadline);
    }
}

} // namespace orx
