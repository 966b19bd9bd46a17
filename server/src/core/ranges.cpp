#include "core/ranges.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace halvane::server {

namespace {

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

std::optional<std::uint64_t> digits(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

RangeDecision suffixRange(std::uint64_t last, std::uint64_t size) {
    if (last == 0 || size == 0)
        return {RangeDecision::Kind::NotSatisfiable, {}};
    const std::uint64_t length = std::min(last, size);
    return {RangeDecision::Kind::Partial, {size - length, length}};
}

} // namespace

RangeDecision decideRange(std::string_view rangeHeader, std::uint64_t size) {
    constexpr std::string_view unit = "bytes=";
    if (!rangeHeader.starts_with(unit))
        return {};
    const std::string_view spec = trimmed(rangeHeader.substr(unit.size()));
    const std::size_t dash = spec.find('-');
    if (dash == std::string_view::npos)
        return {};
    const auto first = digits(spec.substr(0, dash));
    const auto last = digits(spec.substr(dash + 1));
    if (dash == 0)
        return last ? suffixRange(*last, size) : RangeDecision{};
    if (!first || (!last && dash + 1 != spec.size()) || (last && *last < *first))
        return {};
    if (*first >= size)
        return {RangeDecision::Kind::NotSatisfiable, {}};
    const std::uint64_t end = last ? std::min(*last, size - 1) : size - 1;
    return {RangeDecision::Kind::Partial, {*first, end - *first + 1}};
}

bool ifRangeHolds(std::string_view ifRange, std::string_view etag, std::string_view lastModified) {
    return ifRange.empty() || ifRange == etag || ifRange == lastModified;
}

bool ifNoneMatchNames(std::string_view ifNoneMatch, std::string_view etag) {
    while (!ifNoneMatch.empty()) {
        const std::size_t comma = std::min(ifNoneMatch.find(','), ifNoneMatch.size());
        std::string_view one = trimmed(ifNoneMatch.substr(0, comma));
        if (one.starts_with("W/"))
            one.remove_prefix(2);
        if (one == "*" || one == etag)
            return true;
        ifNoneMatch.remove_prefix(std::min(comma + 1, ifNoneMatch.size()));
    }
    return false;
}

std::string contentRange(ByteRange range, std::uint64_t size) {
    return "bytes " + std::to_string(range.offset) + '-' + std::to_string(range.offset + range.length - 1) +
           '/' + std::to_string(size);
}

std::string unsatisfiedRange(std::uint64_t size) {
    return "bytes */" + std::to_string(size);
}

} // namespace halvane::server
