#include "http/message.h"

#include "core/json_text.h"

#include <algorithm>

namespace halvane::server {

namespace {

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [&](char x, char y) { return lower(x) == lower(y); });
}

} // namespace

std::string_view Request::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (equalIgnoringCase(key, name))
            return value;
    return {};
}

Response success(std::string_view data) {
    Response response;
    response.with("Content-Type", "application/json");
    response.body.reserve(data.size() + 40);
    response.body.append(R"({"status":"success","data":)").append(data).append("}");
    return response;
}

Response failure(const ApiError& error) {
    Response response;
    response.status = error.status();
    response.with("Content-Type", "application/json");
    if (error.retryAfterSeconds() > 0)
        response.with("Retry-After", std::to_string(error.retryAfterSeconds()));
    JsonObject envelope(response.body);
    envelope.field("status", "error");
    JsonObject(envelope.open("error"))
        .field("code", static_cast<std::int64_t>(error.code()))
        .field("message", error.what());
    return response;
}

const char* reasonPhrase(int status) {
    switch (status) {
    case 200:
        return "OK";
    case 206:
        return "Partial Content";
    case 226:
        return "IM Used";
    case 304:
        return "Not Modified";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 405:
        return "Method Not Allowed";
    case 409:
        return "Conflict";
    case 410:
        return "Gone";
    case 411:
        return "Length Required";
    case 413:
        return "Content Too Large";
    case 416:
        return "Range Not Satisfiable";
    case 422:
        return "Unprocessable Content";
    case 429:
        return "Too Many Requests";
    case 431:
        return "Request Header Fields Too Large";
    case 500:
        return "Internal Server Error";
    case 503:
        return "Service Unavailable";
    case 507:
        return "Insufficient Storage";
    default:
        return "Unknown";
    }
}

} // namespace halvane::server
