// The life of one connection: requests one after another, each bounded in size and time.
#pragma once

#include "http/connection.h"
#include "http/header_parser.h"
#include "http/http_server.h"

#include <boost/asio/steady_timer.hpp>

namespace halvane::server {

// What all sessions share; outlives them.
struct SessionContext {
    asio::io_context& io;
    const HttpOptions& options;
    const Router& router;
    WorkerPool& workers;
    Log& log;
    Metrics& metrics;
    std::uint64_t collectedBytes = 0; // of bodies in memory; I/O thread only
    bool stopping = false;
    bool quickWorkWaits = false; // I/O thread only

    // After the requests that have arrived by now.
    void beginQuickWorkSoon();
};

class Session : public std::enable_shared_from_this<Session> {
public:
    Session(SessionContext& context, std::shared_ptr<Connection> connection);
    ~Session();

    // Runs until the connection ends; never throws.
    asio::awaitable<void> run();
    // Ends the connection now when it waits for a request; else after the reply, since the context is
    // stopping.
    void stopWhenIdle();
    void close();

private:
    struct Exchange; // one request and how far it got

    asio::awaitable<void> serveRequests();
    asio::awaitable<bool> readHead(RequestHead& head);
    asio::awaitable<bool> serveOne(RequestHead head);
    asio::awaitable<void> answer(Exchange& exchange);
    asio::awaitable<bool> answerQuickly(Exchange& exchange, const Match& match);
    asio::awaitable<void> answerCollected(Exchange& exchange, const Match& match);
    asio::awaitable<void> answerStreamed(Exchange& exchange, const Match& match);
    asio::awaitable<bool> collectBody(Exchange& exchange);
    asio::awaitable<void> skipBody(Exchange& exchange);
    asio::awaitable<bool> send(Exchange& exchange);
    asio::awaitable<bool> sendFile(const FileSlice& file);
    asio::awaitable<bool> copyFile(FileSlice file);
    asio::awaitable<void> onWorker(std::function<void()> job);
    void logRequest(Exchange& exchange) const;
    std::string headText(const Exchange& exchange) const;

    // The connection is closed when the time passes without another call.
    void allow(std::chrono::milliseconds time);
    void allowForever();
    void armDeadline();

    SessionContext& m_context;
    std::shared_ptr<Connection> m_connection;
    std::string m_input; // received and not consumed
    asio::steady_timer m_timer;
    std::chrono::steady_clock::time_point m_deadline = std::chrono::steady_clock::time_point::max();
    bool m_timerArmed = false;
    bool m_idle = false;
    bool m_closed = false;
};

} // namespace halvane::server
