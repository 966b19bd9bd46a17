// Which handler answers which method and path. Pure.
#pragma once

#include "http/message.h"

namespace halvane::server {

struct Route {
    std::string method;
    std::vector<std::string> pattern; // segments; "{}" takes any one
    std::uint64_t maximumBody = 0;
    Handler handler; // or
    StreamHandler stream;
};

struct Match {
    const Route* route = nullptr;
    PathValues values;
};

class Router {
public:
    // `pattern` such as "/folders/{}/files", below the base path.
    void add(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
             Handler handler);
    void addStream(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
                   StreamHandler handler);

    // Throws NotFound for an unknown path, BadRequest with status 405 for a known path with another method.
    Match match(std::string_view method, std::string_view path) const;

private:
    std::vector<Route> m_routes;
};

inline constexpr std::string_view basePath = "/api/v1";

} // namespace halvane::server
