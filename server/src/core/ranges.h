// Byte ranges and conditional headers of a download. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace halvane::server {

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

struct RangeDecision {
    enum class Kind { Whole, Partial, NotSatisfiable };
    Kind kind = Kind::Whole;
    ByteRange range; // of a partial reply
};

// Decides what a Range header asks of a content of that size. An empty, malformed or multiple range counts as
// none (RFC 9110 lets a server ignore Range), so the whole content is sent.
RangeDecision decideRange(std::string_view rangeHeader, std::uint64_t size);

// True when a Range header may be honoured: If-Range is absent, or is exactly the strong entity tag or the
// Last-Modified text.
bool ifRangeHolds(std::string_view ifRange, std::string_view etag, std::string_view lastModified);

// True when an If-None-Match header (a list of entity tags, or *) names the tag; weak tags compare equal to
// strong ones.
bool ifNoneMatchNames(std::string_view ifNoneMatch, std::string_view etag);

// "bytes 0-9/100" and, for a range that cannot be satisfied, "bytes */100".
std::string contentRange(ByteRange range, std::uint64_t size);
std::string unsatisfiedRange(std::uint64_t size);

} // namespace halvane::server
