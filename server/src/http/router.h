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
    QuickHandler quick; // where there is one: asked before the others when the body is small
    std::function<bool(const PathValues&)> mayBeQuick; // nothing: always
    bool isQuick(const PathValues& values) const { return quick && (!mayBeQuick || mayBeQuick(values)); }
};

struct Match {
    const Route* route = nullptr;
    PathValues values;
};

class Router {
public:
    // `pattern` such as "/folders/{}/files", below the base path.
    void add(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
             Handler handler, QuickHandler quick = {});
    void addStream(const std::string& method, const std::string& pattern, std::uint64_t maximumBody,
                   StreamHandler handler, QuickHandler quick = {},
                   std::function<bool(const PathValues&)> mayBeQuick = {});

    // What the I/O thread calls when it has asked the quick handlers of all requests that were there: they
    // may leave their work until then, and share it.
    void setQuickWork(std::function<void()> begin) { m_beginQuickWork = std::move(begin); }
    void beginQuickWork() const { m_beginQuickWork(); }

    // Throws NotFound for an unknown path, BadRequest with status 405 for a known path with another method.
    Match match(std::string_view method, std::string_view path) const;

private:
    std::vector<Route> m_routes;
    std::function<void()> m_beginQuickWork = [] {};
};

inline constexpr std::string_view basePath = "/api/v1";

} // namespace halvane::server
