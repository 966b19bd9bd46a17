// What the handlers of all subjects share.
#pragma once

#include "api/api.h"

namespace halvane::server {

inline constexpr std::uint64_t noBody = 4 * 1024;
inline constexpr std::uint64_t jsonBody = 1024 * 1024;
inline constexpr std::uint64_t finalizeBody = 17 * 1024 * 1024;

// The caller of a request; NotAuthenticated. Names the user for the log.
Caller authenticated(Request& request, Services& services);

// A handler that answers with what `call` returns.
Handler authenticatedCall(Services& services,
                          std::function<Response(Request&, const PathValues&, const Caller&)> call);

// An id in a path: what is no id cannot exist, so NotFound, with "There is no <kind> ...".
Id pathId(const std::string& text, const char* kind);
// A whole number from 0 in a path; nothing when it is none.
std::optional<std::int64_t> pathNumber(const std::string& text);

// The Idempotency-Key of a request, empty when missing; BadRequest when malformed. `identity` is what must be
// equal when it is used again.
CallKey callKey(const Request& request, const std::string& identity);
void requireKeySyntax(std::string_view key);

std::string userJson(const Caller& caller);
std::string finalizedJson(const FinalizedFile& file);
void appendPath(std::string& out, const std::vector<PathStep>& path);
std::optional<std::string> isoOrNull(const std::optional<TimeMs>& time);

// The instance manipulation (RFC 3229) of a listing that holds only what is new or changed.
inline constexpr const char* listingChanges = "changes";

// Answers a listing: 304 for a known tag, 226 for what is new or changed since one.
Response listingResponse(const ListingState& state, std::string body);

} // namespace halvane::server
