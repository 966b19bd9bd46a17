// Login, logout and what the service says about itself.
#include "api/support.h"

#include "core/json_input.h"
#include "core/json_text.h"

namespace halvane::server {

namespace {

Response login(const Request& request, Services& services) {
    const JsonInput input(request.body);
    const std::string name = input.text("user");
    const std::string password = input.text("password");
    if (name.size() > 1024 || password.size() > 1024)
        throw ApiError(ErrorCode::BadRequest, "User names and passwords have at most 1024 bytes.");
    const LoginResult result = services.accounts.login(name, password);
    std::string data;
    JsonObject(data)
        .field("token", result.token)
        .field("expires_at", isoText(result.expires))
        .rawField("user", userJson(result.caller));
    return success(data);
}

Response whoami(const Caller& caller, const Services& services) {
    std::string server;
    JsonObject(server).field("name", "halvane-server").field("version", services.version);
    std::string data;
    JsonObject(data)
        .rawField("user", userJson(caller))
        .field("token_expires_at", isoText(caller.tokenExpires))
        .rawField("server", server);
    return success(data);
}

Response metricsText(Request& request, Services& services) {
    if (!request.peerIsLoopback && !authenticated(request, services).isAdmin)
        throw ApiError(ErrorCode::NoPrivilege, "Only administrators may read the metrics.");
    Response response;
    response.with("Content-Type", "text/plain; version=0.0.4");
    response.body = services.metrics.prometheusText();
    return response;
}

Response groups(const Caller& caller, Services& services) {
    std::string data;
    {
        JsonObject object(data);
        JsonList list(object.open("groups"));
        for (const Group& group : services.catalog.groups(caller))
            JsonObject(list.next()).field("id", group.id).field("name", group.name);
    }
    return success(data);
}

} // namespace

void addSessionCalls(Router& router, Services& services) {
    router.add("POST", "/login", jsonBody,
               [&services](Request& request, const PathValues&, const Respond& respond) {
                   respond(login(request, services));
               });
    router.add("POST", "/logout", noBody,
               [&services](Request& request, const PathValues&, const Respond& respond) {
                   services.accounts.logout(request.header("Authorization"));
                   respond(success("{}"));
               });
    router.add("GET", "/whoami", noBody,
               authenticatedCall(services, [&services](Request&, const PathValues&, const Caller& caller) {
                   return whoami(caller, services);
               }));
    router.add("GET", "/health", noBody, [&services](Request&, const PathValues&, const Respond& respond) {
        services.catalog.check();
        respond(success(R"({"healthy":true})"));
    });
    router.add("GET", "/metrics", noBody,
               [&services](Request& request, const PathValues&, const Respond& respond) {
                   respond(metricsText(request, services));
               });
    router.add("GET", "/groups", noBody,
               authenticatedCall(services, [&services](Request&, const PathValues&, const Caller& caller) {
                   return groups(caller, services);
               }));
}

} // namespace halvane::server
