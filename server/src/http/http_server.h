// The HTTP/1.1 side of the service: accepts connections, bounds what they may cost, and lets a router's
// handlers answer. All sockets are served by the one thread that calls run(); handlers run on a pool of
// workers.
#pragma once

#include "core/logging.h"
#include "core/metrics.h"
#include "core/worker_pool.h"
#include "http/router.h"

#include <chrono>
#include <memory>

namespace halvane::server {

struct HttpOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 0;      // 0: a free one
    std::string certificateFile; // PEM; empty: no TLS
    std::string keyFile;
    std::size_t maximumConnections = 1024;
    std::size_t maximumHeaderBytes = 16 * 1024;
    // The bodies that are collected in memory, all together.
    std::uint64_t maximumCollectedBytes = 48 * 1024 * 1024;
    std::chrono::milliseconds headerTimeout{30'000};  // from the first byte of a head to its last
    std::chrono::milliseconds idleTimeout{75'000};    // between two requests
    std::chrono::milliseconds silenceTimeout{60'000}; // without a byte of a body, either way
    std::chrono::milliseconds shutdownGrace{20'000}; // for requests that run when the service is told to stop
};

class HttpServer {
public:
    // Binds and listens. Throws ApiError with a message for the operator (address in use, unreadable
    // certificate).
    HttpServer(HttpOptions options, const Router& router, WorkerPool& workers, Log& log, Metrics& metrics);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    std::uint16_t port() const;
    // Serves until SIGTERM or SIGINT, then finishes what runs, within the grace. However often it is told to
    // stop, it stops once: from here on to its end the process does nothing at further signals.
    void run();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace halvane::server
