// Running the service.
#pragma once

#include "http/http_server.h"

#include <cstdint>
#include <string>

namespace halvane::server {

struct ServeOptions {
    std::string dataDirectory;
    std::string portFile; // empty: none
    std::string logFile;  // empty: stderr
    std::chrono::seconds tokenLifetime{std::chrono::hours(24 * 30)};
    std::int64_t chunkSize = 8 * 1024 * 1024;
    std::size_t workers = 16;
    std::chrono::milliseconds sweepInterval{60'000};
    HttpOptions http;
    std::string version;
};

// Serves until SIGTERM or SIGINT. Throws ApiError when it cannot begin.
void serve(const ServeOptions& options);

} // namespace halvane::server
