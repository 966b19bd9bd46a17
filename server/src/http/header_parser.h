// Reads the head of an HTTP/1 request. Keeps Beast out of the other sources.
#pragma once

#include "http/message.h"

#include <memory>

namespace halvane::server {

struct RequestHead {
    std::string method;
    std::string target;
    Headers headers;
    std::optional<std::uint64_t> contentLength;
    bool isChunked = false;
    bool keepAlive = true;
    bool expectsContinue = false;
};

class HeaderParser {
public:
    // Heads of more bytes are refused with status 431.
    explicit HeaderParser(std::size_t maximumBytes);
    ~HeaderParser();

    // Takes the bytes received and not consumed so far; returns how many of them it consumed. Throws
    // ApiError(BadRequest).
    std::size_t feed(std::string_view data);
    bool isDone() const;
    // Once it is done.
    RequestHead head() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace halvane::server
