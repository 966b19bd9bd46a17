#include "http/http_server.h"

#include "http/session.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace halvane::server {

using asio::ip::tcp;
using boost::system::error_code;

namespace {

// Never a flood of failures when descriptors run out, and never the end of the service.
constexpr auto acceptPause = std::chrono::milliseconds(100);

void requireOperator(const error_code& error, const std::string& action) {
    if (error)
        throw ApiError(ErrorCode::Internal, "Cannot " + action + ": " + error.message() + ".");
}

// OpenSSL's own messages do not say that a file is missing.
void requireReadable(const std::string& path, const char* what) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        throw systemError("read the " + std::string(what) + " '" + path + "'", errno);
    ::close(file);
}

tcp::endpoint endpointOf(const HttpOptions& options) {
    error_code error;
    const auto address = asio::ip::make_address(options.address, error);
    if (error)
        throw ApiError(ErrorCode::Internal,
                       "Cannot listen on '" + options.address +
                           "': it is no numerical address, such as 127.0.0.1, 0.0.0.0 (all "
                           "interfaces) or [::1].");
    return {address, options.port};
}

std::string busyReply() {
    const Response response =
        failure({ErrorCode::TooManyRequests, "The server has too many connections.", 429, 1});
    return "HTTP/1.1 429 Too Many Requests\r\nContent-Type: application/json\r\nRetry-After: "
           "1\r\nConnection: close\r\nContent-Length: " +
           std::to_string(response.body.size()) + "\r\n\r\n" + response.body;
}

// asio gives the signals their default action back with its last set of them, and the process still has to
// make its data tidy after the service. So one set is left for good.
void keepStopSignalsFromEndingTheProcess() {
    struct Kept {
        asio::io_context io;
        asio::signal_set signals{io, SIGTERM, SIGINT};
    };
    [[maybe_unused]] static const Kept* const kept = new Kept;
}

} // namespace

struct HttpServer::Private {
    Private(HttpOptions httpOptions, const Router& router, WorkerPool& workers, Log& theLog,
            Metrics& theMetrics)
        : options(std::move(httpOptions))
        , log(theLog)
        , metrics(theMetrics)
        , context{io, options, router, workers, theLog, theMetrics} {}

    void listen();
    void prepareTls();
    asio::awaitable<void> acceptAll();
    void admit(tcp::socket socket);
    void stop();
    void finishWhenQuiet();

    HttpOptions options;
    Log& log;
    Metrics& metrics;
    asio::io_context io{1};
    SessionContext context;
    std::optional<asio::ssl::context> tls;
    tcp::acceptor acceptor{io};
    asio::steady_timer pause{io};
    asio::steady_timer grace{io};
    asio::signal_set signals{io, SIGTERM, SIGINT};
    std::set<std::shared_ptr<Session>> sessions;
};

HttpServer::HttpServer(HttpOptions options, const Router& router, WorkerPool& workers, Log& log,
                       Metrics& metrics)
    : d(std::make_unique<Private>(std::move(options), router, workers, log, metrics)) {
    d->prepareTls();
    d->listen();
}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port() const {
    return d->acceptor.local_endpoint().port();
}

void HttpServer::run() {
    keepStopSignalsFromEndingTheProcess();
    d->signals.async_wait([this](error_code error, int) {
        if (!error)
            d->stop();
    });
    asio::co_spawn(d->io, d->acceptAll(), asio::detached);
    d->io.run();
}

void HttpServer::Private::prepareTls() {
    if (options.certificateFile.empty())
        return;
    requireReadable(options.certificateFile, "certificate");
    requireReadable(options.keyFile, "key");
    tls.emplace(asio::ssl::context::tls_server);
    tls->set_options(asio::ssl::context::no_tlsv1 | asio::ssl::context::no_tlsv1_1);
    error_code error;
    tls->use_certificate_chain_file(options.certificateFile, error);
    requireOperator(error,
                    "use the certificate '" + options.certificateFile + "', which must be a chain in PEM");
    tls->use_private_key_file(options.keyFile, asio::ssl::context::pem, error);
    requireOperator(error, "use the key '" + options.keyFile + "', which must be the certificate's, in PEM");
}

void HttpServer::Private::listen() {
    const tcp::endpoint endpoint = endpointOf(options);
    const std::string action = "listen on " + options.address + ":" + std::to_string(options.port);
    error_code error;
    acceptor.open(endpoint.protocol(), error);
    requireOperator(error, action);
    acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    requireOperator(error, action);
    acceptor.bind(endpoint, error);
    requireOperator(error, action);
    acceptor.listen(tcp::acceptor::max_listen_connections, error);
    requireOperator(error, action);
}

asio::awaitable<void> HttpServer::Private::acceptAll() {
    while (!context.stopping) {
        error_code error;
        tcp::socket socket = co_await acceptor.async_accept(asio::redirect_error(asio::use_awaitable, error));
        if (context.stopping)
            break;
        if (!error) {
            admit(std::move(socket));
            continue;
        }
        log.warning("accept", error.message());
        pause.expires_after(acceptPause);
        co_await pause.async_wait(asio::redirect_error(asio::use_awaitable, error));
    }
}

void HttpServer::Private::admit(tcp::socket socket) {
    error_code ignored; // a socket that is gone already ends its session at the first read
    socket.set_option(tcp::no_delay(true), ignored);
    ++metrics.connectionsAccepted;
    if (sessions.size() >= options.maximumConnections) {
        ++metrics.connectionsRefused;
        const std::string reply = tls ? std::string() : busyReply();
        ::send(socket.native_handle(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return;
    }
    auto connection =
        tls ? makeTlsConnection(std::move(socket), *tls) : makePlainConnection(std::move(socket));
    auto session = std::make_shared<Session>(context, std::move(connection));
    sessions.insert(session);
    asio::co_spawn(io, session->run(), [this, session](const std::exception_ptr&) { // run() never throws
        sessions.erase(session);
        finishWhenQuiet();
    });
}

void HttpServer::Private::stop() {
    log.info("stopping", "finishing " + std::to_string(sessions.size()) + " connections");
    context.stopping = true;
    error_code ignored;
    acceptor.close(ignored);
    pause.cancel();
    for (const auto& session : std::set(sessions))
        session->stopWhenIdle();
    grace.expires_after(options.shutdownGrace);
    grace.async_wait([this](error_code error) {
        if (error)
            return;
        log.warning("stopping", "ending " + std::to_string(sessions.size()) +
                                    " connections that have not finished in time");
        for (const auto& session : std::set(sessions))
            session->close();
    });
    finishWhenQuiet();
}

void HttpServer::Private::finishWhenQuiet() {
    if (!context.stopping || !sessions.empty())
        return;
    grace.cancel();
    signals.cancel();
}

} // namespace halvane::server
