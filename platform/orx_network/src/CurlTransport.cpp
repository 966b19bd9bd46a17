#include "CurlTransport.h"

#include "CurlMulti.h"

#include <QAbstractEventDispatcher>
#include <QEventLoop>
#include <QPointer>

#include <mutex>

namespace orx {

namespace {

struct Defaults {
    std::mutex mutex;
    CurlTransport::Options options;
};

Defaults& defaults() {
    static Defaults instance;
    return instance;
}

CurlTransport::Options defaultOptions() {
    const std::lock_guard lock(defaults().mutex);
    return defaults().options;
}

//! Socket notifiers and timers need a dispatcher; an event loop, even one that never runs, gives the thread
//! one.
void ensureEventDispatcher() {
    if (!QAbstractEventDispatcher::instance())
        const QEventLoop loop;
}

class CurlCall : public TransportCall {
public:
    CurlCall(CurlMulti* multi, CurlMulti::ExchangePtr exchange)
        : m_multi(multi), m_exchange(std::move(exchange)) {}

    ~CurlCall() override {
        m_exchange->abandoned = true;
        if (m_multi)
            m_multi->abandon(m_exchange);
    }

    void resume() override {
        if (m_multi)
            m_multi->resume(m_exchange);
    }

private:
    QPointer<CurlMulti> m_multi;
    CurlMulti::ExchangePtr m_exchange;
};

} // namespace

class CurlTransport::Private {
public:
    explicit Private(const Options& options) : multi(options) {}

    CurlMulti multi;
};

CurlTransport::CurlTransport() : CurlTransport(defaultOptions()) {}

CurlTransport::CurlTransport(const Options& options) {
    ensureEventDispatcher();
    d = std::make_unique<Private>(options);
}

CurlTransport::~CurlTransport() = default;

std::unique_ptr<TransportCall> CurlTransport::send(const NetworkRequest& request, ReplyHandler handler) {
    auto exchange = std::make_shared<CurlExchange>(request, std::move(handler));
    auto call = std::make_unique<CurlCall>(&d->multi, exchange);
    d->multi.enqueue(exchange);
    return call;
}

void CurlTransport::setDefaultOptions(const Options& options) {
    const std::lock_guard lock(defaults().mutex);
    defaults().options = options;
}

} // namespace orx
