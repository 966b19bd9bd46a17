#include "http/header_parser.h"

#include <limits>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/parser.hpp>

namespace halvane::server {

namespace http = boost::beast::http;

struct HeaderParser::Private {
    http::request_parser<http::empty_body> parser;
};

HeaderParser::HeaderParser(std::size_t maximumBytes) : d(std::make_unique<Private>()) {
    d->parser.header_limit(static_cast<std::uint32_t>(maximumBytes));
    d->parser.body_limit(std::numeric_limits<std::uint64_t>::max());
}

HeaderParser::~HeaderParser() = default;

std::size_t HeaderParser::feed(std::string_view data) {
    boost::system::error_code error;
    const std::size_t used = d->parser.put(boost::asio::buffer(data.data(), data.size()), error);
    if (!error || error == http::error::need_more)
        return used;
    if (error == http::error::header_limit)
        throw ApiError(ErrorCode::BadRequest, "The request's header is too large.", 431);
    throw ApiError(ErrorCode::BadRequest, "This is not an HTTP request: " + error.message() + ".");
}

bool HeaderParser::isDone() const {
    return d->parser.is_header_done();
}

RequestHead HeaderParser::head() const {
    const auto& message = d->parser.get();
    RequestHead head;
    head.method = std::string(message.method_string());
    head.target = std::string(message.target());
    for (const auto& field : message)
        head.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
    if (const auto length = d->parser.content_length())
        head.contentLength = *length;
    head.isChunked = d->parser.chunked();
    head.keepAlive = message.keep_alive();
    head.expectsContinue = boost::beast::iequals(message[http::field::expect], "100-continue");
    return head;
}

} // namespace halvane::server
