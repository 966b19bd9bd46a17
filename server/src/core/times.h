// Times as the catalogue and the protocol have them: milliseconds since 1970 in UTC, and their texts.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace halvane::server {

using TimeMs = std::int64_t;

TimeMs currentTime();

// "2026-03-01T12:00:00.000Z"
std::string isoText(TimeMs time);

// Reads "2026-03-01T12:00:00Z" with an optional fraction (digits past the milliseconds are cut); nothing when
// malformed.
std::optional<TimeMs> parseIso(std::string_view text);

// "Sun, 01 Mar 2026 12:00:00 GMT", as HTTP headers have it.
std::string httpDate(TimeMs time);

} // namespace halvane::server
