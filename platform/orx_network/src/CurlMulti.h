#pragma once

#include "CurlExchange.h"
#include "CurlTransport.h"
#include "ExtraTrust.h"

#include <QSocketNotifier>
#include <QTimer>

#include <deque>
#include <unordered_map>

namespace orx {

//! The multi handle of a transport on the event loop of its thread, and the requests that wait, run and have
//! ended.
//!
//! libcurl must not be called from within its own callbacks. Whatever a callback (a sink, onBytesSent) wants
//! is noted in the exchange, and settle() does it once libcurl has returned; handlers are called last, from
//! the event loop only, when nothing of libcurl is on the stack.
class CurlMulti : public QObject {
    Q_OBJECT
public:
    using ExchangePtr = std::shared_ptr<CurlExchange>;

    explicit CurlMulti(const CurlTransport::Options& options);
    ~CurlMulti() override;

    void enqueue(const ExchangePtr& exchange);
    //! Ends \a exchange without calling anybody.
    void abandon(const ExchangePtr& exchange);
    void resume(const ExchangePtr& exchange);

private:
    struct Notifiers {
        std::unique_ptr<QSocketNotifier> read;
        std::unique_ptr<QSocketNotifier> write;
    };

    static int socketCallback(CURL*, curl_socket_t socket, int what, void* self, void*);
    static int timerCallback(CURLM*, long timeoutMs, void* self);
    void watch(curl_socket_t socket, int what);
    std::unique_ptr<QSocketNotifier> makeNotifier(curl_socket_t socket, QSocketNotifier::Type type, int mask);

    //! Lets libcurl work on \a socket (or its time-outs), then settles and calls the handlers.
    void act(curl_socket_t socket, int mask);
    //! Everything that was noted meanwhile; calls no handler.
    void settle();
    void resumePaused();
    void removeStopped();
    void collectFinished();
    void startQueued();
    void start(const ExchangePtr& exchange);
    void remove(const ExchangePtr& exchange, CURLcode code);
    void finish(const ExchangePtr& exchange, CURL* handle, CURLcode code);
    void settleLater();
    void deliver();
    void onSilenceTimer();
    void watchSilence(const CurlExchange& exchange);

    CURL* takeHandle();

    CurlTransport::Options m_options;
    ExtraTrust m_trust;
    CURLM* m_multi;
    bool m_insideCurl = false;
    std::deque<ExchangePtr> m_queued;
    std::unordered_map<CURL*, ExchangePtr> m_running;
    std::deque<ExchangePtr> m_finished;
    std::vector<CURL*> m_idleHandles;
    std::unordered_map<curl_socket_t, Notifiers> m_notifiers;
    QTimer m_curlTimer;
    QTimer m_settleTimer;
    QTimer m_silenceTimer;
};

} // namespace orx
