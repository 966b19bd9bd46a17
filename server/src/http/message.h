// A request and its reply as the handlers see them; nothing of sockets.
#pragma once

#include "blobs/descriptor.h"
#include "core/errors.h"
#include "core/hashes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace halvane::server {

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Request {
    std::string method;
    std::string path; // without the query
    Headers headers;
    std::uint64_t contentLength = 0;
    std::string body;
    std::string id; // X-Request-Id
    std::string peer;
    bool peerIsLoopback = false;
    std::string user;            // for the log, once it is known
    std::function<void()> abort; // closes the connection; from any thread, at any time

    // The value of a header whatever its case; empty when missing.
    std::string_view header(std::string_view name) const;
};

// A part of an open file, sent without copying it through the process.
struct FileSlice {
    std::shared_ptr<Descriptor> file;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

struct Response {
    int status = 200;
    Headers headers; // besides Content-Length, Connection and X-Request-Id
    std::string body;
    std::optional<FileSlice> file;           // instead of the body
    std::optional<std::uint64_t> bodyLength; // Content-Length of a reply to HEAD

    Response& with(std::string name, std::string value) {
        headers.emplace_back(std::move(name), std::move(value));
        return *this;
    }
};

// {"status": "success", "data": ...}; `data` is JSON.
Response success(std::string_view data);
// The error envelope of an error.
Response failure(const ApiError& error);

// Takes the body of a request piece by piece, each call on a worker thread, one at a time.
class BodySink {
public:
    virtual ~BodySink() = default;
    // Where the next bytes may be put before they are given to write(), which spares a copy; empty: anywhere.
    virtual std::span<std::byte> room() { return {}; }
    virtual void write(Bytes data) = 0;
    virtual Response finish() = 0;
};

using Respond = std::function<void(Response)>;
// The segments of the path that stand where the pattern has {}.
using PathValues = std::vector<std::string>;

// Runs on a worker thread and answers once, there or later on any thread. What it throws before that becomes
// the error reply.
using Handler = std::function<void(Request&, const PathValues&, Respond)>;
// Begins a body that is not collected first.
using StreamHandler = std::function<std::unique_ptr<BodySink>(Request&, const PathValues&)>;

// A reply with the user's name for the log; without a response the ordinary handler has to answer the
// request, which must be as it was then.
struct QuickReply {
    std::optional<Response> response;
    std::string user;
};
// Answers a request with a small body at the I/O thread's own expense: must not block there, and answers
// once, at once or later on any thread. It must not throw.
using QuickHandler = std::function<void(const Request&, const PathValues&, std::function<void(QuickReply)>)>;

const char* reasonPhrase(int status);

} // namespace halvane::server
