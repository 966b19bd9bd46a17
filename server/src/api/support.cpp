#include "api/support.h"

#include "core/json_text.h"

#include <algorithm>
#include <charconv>

namespace halvane::server {

Caller authenticated(Request& request, Services& services) {
    Caller caller = services.accounts.authenticate(request.header("Authorization"));
    request.user = caller.name;
    return caller;
}

Handler authenticatedCall(Services& services,
                          std::function<Response(Request&, const PathValues&, const Caller&)> call) {
    return [&services, call = std::move(call)](Request& request, const PathValues& values,
                                               const Respond& respond) {
        const Caller caller = authenticated(request, services);
        respond(call(request, values, caller));
    };
}

std::optional<std::int64_t> pathNumber(const std::string& text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < 0)
        return std::nullopt;
    return value;
}

Id pathId(const std::string& text, const char* kind) {
    const auto id = pathNumber(text);
    if (!id || *id < 1 || *id > maximumId)
        throw ApiError(ErrorCode::NotFound,
                       std::string("There is no such ") + kind + ": ids are whole numbers from 1.");
    return *id;
}

void requireKeySyntax(std::string_view key) {
    const auto allowed = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '_';
    };
    if (key.size() > 128 || !std::all_of(key.begin(), key.end(), allowed))
        throw ApiError(ErrorCode::BadRequest,
                       "The Idempotency-Key must be 1 to 128 characters of A-Z a-z 0-9 - _.");
}

CallKey callKey(const Request& request, const std::string& identity) {
    const std::string_view key = request.header("Idempotency-Key");
    requireKeySyntax(key);
    return {std::string(key), Sha256::of(identity)};
}

namespace {

void appendGroups(std::string& out, const std::vector<Group>& groups) {
    JsonList list(out);
    for (const Group& group : groups)
        JsonObject(list.next()).field("id", group.id).field("name", group.name);
}

} // namespace

std::string userJson(const Caller& caller) {
    std::string out;
    {
        JsonObject object(out);
        object.field("id", caller.userId).field("name", caller.name).field("is_admin", caller.isAdmin);
        appendGroups(object.open("groups"), caller.groups);
    }
    return out;
}

std::string finalizedJson(const FinalizedFile& file) {
    std::string out;
    JsonObject(out)
        .field("id", file.fileId)
        .field("version", file.version)
        .field("folder_id", file.folderId)
        .field("name", file.name)
        .field("size", file.size)
        .field("sha256", hexText(file.sha256));
    return out;
}

void appendPath(std::string& out, const std::vector<PathStep>& path) {
    JsonList list(out);
    for (const PathStep& step : path)
        JsonObject(list.next()).field("folder_id", step.folderId).field("folder_name", step.name);
}

std::optional<std::string> isoOrNull(const std::optional<TimeMs>& time) {
    if (!time)
        return std::nullopt;
    return isoText(*time);
}

Response listingResponse(const ListingState& state, std::string body) {
    Response response;
    response.with("ETag", state.etag).with("Cache-Control", "no-cache");
    if (state.notModified) {
        response.status = 304;
        return response;
    }
    if (!state.base.empty()) {
        response.status = 226;
        response.with("IM", listingChanges).with("Delta-Base", state.base);
    }
    response.with("Content-Type", "application/json");
    response.body = std::move(body);
    return response;
}

} // namespace halvane::server
