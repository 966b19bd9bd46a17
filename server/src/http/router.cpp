#include "http/router.h"

#include <algorithm>

namespace halvane::server {

namespace {

std::vector<std::string> segmentsOf(std::string_view path) {
    std::vector<std::string> segments;
    while (!path.empty() && path.front() == '/') {
        path.remove_prefix(1);
        const std::size_t end = std::min(path.find('/'), path.size());
        segments.emplace_back(path.substr(0, end));
        path.remove_prefix(end);
    }
    return segments;
}

bool fits(const std::vector<std::string>& pattern, const std::vector<std::string>& segments,
          PathValues& values) {
    values.clear();
    if (pattern.size() != segments.size())
        return false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == "{}" && !segments[i].empty())
            values.push_back(segments[i]);
        else if (pattern[i] != segments[i])
            return false;
    }
    return true;
}

} // namespace

void Router::add(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
                 Handler handler, QuickHandler quick) {
    m_routes.push_back(
        {method, segmentsOf(pattern), maximumBody, std::move(handler), {}, std::move(quick), {}});
}

void Router::addStream(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
                       StreamHandler handler, QuickHandler quick,
                       std::function<bool(const PathValues&)> mayBeQuick) {
    m_routes.push_back({method,
                        segmentsOf(pattern),
                        maximumBody,
                        {},
                        std::move(handler),
                        std::move(quick),
                        std::move(mayBeQuick)});
}

Match Router::match(std::string_view method, std::string_view path) const {
    if (!path.starts_with(basePath) || (path.size() > basePath.size() && path[basePath.size()] != '/'))
        throw ApiError(ErrorCode::NotFound, "There is nothing here; the calls are below /api/v1.");
    const std::vector<std::string> segments = segmentsOf(path.substr(basePath.size()));
    Match match;
    std::string allowed;
    for (const Route& route : m_routes) {
        if (!fits(route.pattern, segments, match.values))
            continue;
        match.route = &route;
        if (route.method == method)
            return match;
        allowed += (allowed.empty() ? "" : ", ") + route.method;
    }
    if (match.route != nullptr)
        throw ApiError(ErrorCode::BadRequest, "This path takes " + allowed + " only.", 405);
    throw ApiError(ErrorCode::NotFound, "There is no such call.");
}

} // namespace halvane::server
