#include "CurlMulti.h"

#include "CurlError.h"

#include <WorkerPool.h>

#include <QPointer>

#include <algorithm>
#include <cstdlib>
#include <mutex>

namespace orx {

using std::chrono::milliseconds;

namespace {

void initializeOnce() {
    const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (code != CURLE_OK)
        qFatal("libcurl cannot be initialised: %s", curl_easy_strerror(code));
    // The TLS library cleans up at exit. Transports of workers, which use it to their end, must be gone by
    // then.
    WorkerPool::instance();
    std::atexit([] { WorkerPool::instance().end(); });
}

void initializeLibrary() {
    static std::once_flag once;
    std::call_once(once, initializeOnce);
}

void setUpTimer(QTimer& timer) {
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
}

//! Marks that libcurl is on the stack.
class InsideCurl {
public:
    explicit InsideCurl(bool& flag) : m_flag(flag) { m_flag = true; }
    ~InsideCurl() { m_flag = false; }
    Q_DISABLE_COPY_MOVE(InsideCurl)

private:
    bool& m_flag;
};

} // namespace

CurlMulti::CurlMulti(const CurlTransport::Options& options) : m_options(options), m_trust(options.caFile) {
    initializeLibrary();
    m_options.maxRequestsInFlight = std::max(1, options.maxRequestsInFlight);
    m_multi = curl_multi_init();
    if (!m_multi)
        qFatal("libcurl cannot make a multi handle.");
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &CurlMulti::socketCallback);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &CurlMulti::timerCallback);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, long(m_options.maxRequestsInFlight));
    for (QTimer* timer : {&m_curlTimer, &m_settleTimer, &m_silenceTimer})
        setUpTimer(*timer);
    connect(&m_curlTimer, &QTimer::timeout, this, [this] { act(CURL_SOCKET_TIMEOUT, 0); });
    connect(&m_settleTimer, &QTimer::timeout, this, [this] {
        if (m_insideCurl)
            return;
        settle();
        deliver();
    });
    connect(&m_silenceTimer, &QTimer::timeout, this, &CurlMulti::onSilenceTimer);
}

CurlMulti::~CurlMulti() {
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, nullptr);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, nullptr);
    for (const auto& [handle, exchange] : m_running) {
        exchange->abandoned = true;
        exchange->easy = nullptr;
        curl_multi_remove_handle(m_multi, handle);
        curl_easy_cleanup(handle);
    }
    for (CURL* handle : m_idleHandles)
        curl_easy_cleanup(handle);
    curl_multi_cleanup(m_multi);
}

void CurlMulti::enqueue(const ExchangePtr& exchange) {
    m_queued.push_back(exchange);
    if (!m_insideCurl)
        startQueued();
    settleLater();
}

void CurlMulti::abandon(const ExchangePtr& exchange) {
    exchange->abandoned = true;
    std::erase(m_queued, exchange);
    if (!exchange->easy)
        return;
    if (!m_insideCurl)
        settle();
    settleLater();
}

//! What cannot be done at once is done by the event loop.
void CurlMulti::settleLater() {
    if (m_insideCurl || !m_finished.empty())
        m_settleTimer.start(0);
}

void CurlMulti::resume(const ExchangePtr& exchange) {
    exchange->resumeWanted = true;
    m_settleTimer.start(0);
}

int CurlMulti::socketCallback(CURL*, curl_socket_t socket, int what, void* self, void*) {
    static_cast<CurlMulti*>(self)->watch(socket, what);
    return 0;
}

int CurlMulti::timerCallback(CURLM*, long timeoutMs, void* self) {
    QTimer& timer = static_cast<CurlMulti*>(self)->m_curlTimer;
    if (timeoutMs < 0)
        timer.stop();
    else
        timer.start(milliseconds(timeoutMs));
    return 0;
}

// libcurl drops and takes up a socket on almost every transfer: notifiers are only disabled, and serve the
// next socket of that number.
void CurlMulti::watch(curl_socket_t socket, int what) {
    Notifiers& notifiers = m_notifiers[socket];
    const bool wantsRead = what == CURL_POLL_IN || what == CURL_POLL_INOUT;
    const bool wantsWrite = what == CURL_POLL_OUT || what == CURL_POLL_INOUT;
    if (wantsRead && !notifiers.read)
        notifiers.read = makeNotifier(socket, QSocketNotifier::Read, CURL_CSELECT_IN);
    if (wantsWrite && !notifiers.write)
        notifiers.write = makeNotifier(socket, QSocketNotifier::Write, CURL_CSELECT_OUT);
    if (notifiers.read)
        notifiers.read->setEnabled(wantsRead);
    if (notifiers.write)
        notifiers.write->setEnabled(wantsWrite);
}

std::unique_ptr<QSocketNotifier> CurlMulti::makeNotifier(curl_socket_t socket, QSocketNotifier::Type type,
                                                         int mask) {
    auto notifier = std::make_unique<QSocketNotifier>(qintptr(socket), type);
    notifier->setEnabled(false);
    connect(notifier.get(), &QSocketNotifier::activated, this, [this, socket, mask] { act(socket, mask); });
    return notifier;
}

void CurlMulti::act(curl_socket_t socket, int mask) {
    // A sink that runs an event loop of its own gets here with libcurl on the stack.
    if (m_insideCurl) {
        if (socket == CURL_SOCKET_TIMEOUT)
            m_settleTimer.start(0);
        return;
    }
    {
        const InsideCurl guard(m_insideCurl);
        int running = 0;
        curl_multi_socket_action(m_multi, socket, mask, &running);
    }
    settle();
    deliver();
}

void CurlMulti::settle() {
    resumePaused();
    removeStopped();
    collectFinished();
    startQueued();
}

void CurlMulti::resumePaused() {
    for (const auto& [handle, exchange] : m_running) {
        if (!std::exchange(exchange->resumeWanted, false) || !exchange->paused || exchange->abandoned)
            continue;
        exchange->paused = false;
        exchange->touch();
        const InsideCurl guard(m_insideCurl);
        curl_easy_pause(handle, CURLPAUSE_CONT);
        watchSilence(*exchange);
    }
}

void CurlMulti::removeStopped() {
    std::vector<ExchangePtr> stopped;
    for (const auto& [handle, exchange] : m_running) {
        if (exchange->abandoned || exchange->stopError.hasError())
            stopped.push_back(exchange);
    }
    for (const ExchangePtr& exchange : stopped)
        remove(exchange, CURLE_ABORTED_BY_CALLBACK);
}

void CurlMulti::collectFinished() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        // The message is void once its handle is removed.
        const CURLcode code = message->data.result;
        const ExchangePtr exchange = m_running.at(message->easy_handle);
        remove(exchange, code);
    }
}

void CurlMulti::startQueued() {
    while (!m_queued.empty() && int(m_running.size()) < m_options.maxRequestsInFlight) {
        const ExchangePtr exchange = m_queued.front();
        m_queued.pop_front();
        start(exchange);
    }
}

void CurlMulti::start(const ExchangePtr& exchange) {
    CURL* handle = takeHandle();
    Error error = m_trust.error();
    if (!error.hasError())
        error = exchange->prepare(handle, m_trust);
    if (!error.hasError() && curl_multi_add_handle(m_multi, handle) != CURLM_OK)
        error = Error(
            ErrorCode::General,
            QStringLiteral("libcurl does not take the request to %1.").arg(peerName(exchange->request())));
    if (error.hasError()) {
        exchange->stopError = error;
        finish(exchange, handle, CURLE_FAILED_INIT);
        return;
    }
    m_running.emplace(handle, exchange);
    watchSilence(*exchange);
}

void CurlMulti::remove(const ExchangePtr& exchange, CURLcode code) {
    CURL* handle = exchange->easy;
    curl_multi_remove_handle(m_multi, handle);
    m_running.erase(handle);
    finish(exchange, handle, code);
}

void CurlMulti::finish(const ExchangePtr& exchange, CURL* handle, CURLcode code) {
    {
        // The sink of an empty body is told here, and may abandon the request as well as in a callback.
        const InsideCurl guard(m_insideCurl);
        exchange->complete(code);
    }
    m_idleHandles.push_back(handle);
    m_finished.push_back(exchange);
}

//! Handlers may do anything: send, abandon, run an event loop, delete the transport.
void CurlMulti::deliver() {
    const QPointer<CurlMulti> alive(this);
    while (alive && !m_finished.empty()) {
        const ExchangePtr exchange = m_finished.front();
        m_finished.pop_front();
        // A handler that runs an event loop may wait for one of the others.
        settleLater();
        exchange->deliver();
    }
}

void CurlMulti::watchSilence(const CurlExchange& exchange) {
    const auto due = exchange.silentAt();
    if (!due)
        return;
    const auto wait = std::chrono::ceil<milliseconds>(*due - CurlExchange::Clock::now());
    const milliseconds bounded = std::max(wait, milliseconds::zero());
    if (!m_silenceTimer.isActive() || bounded < m_silenceTimer.remainingTimeAsDuration())
        m_silenceTimer.start(bounded);
}

void CurlMulti::onSilenceTimer() {
    const auto now = CurlExchange::Clock::now();
    for (const auto& [handle, exchange] : m_running) {
        const auto due = exchange->silentAt();
        if (due && *due <= now)
            exchange->stopError = silenceError(exchange->request());
        else
            watchSilence(*exchange);
    }
    if (m_insideCurl)
        return;
    settle();
    deliver();
}

CURL* CurlMulti::takeHandle() {
    if (m_idleHandles.empty()) {
        CURL* handle = curl_easy_init();
        if (!handle)
            qFatal("libcurl cannot make a handle.");
        return handle;
    }
    CURL* handle = m_idleHandles.back();
    m_idleHandles.pop_back();
    curl_easy_reset(handle);
    return handle;
}

} // namespace orx
