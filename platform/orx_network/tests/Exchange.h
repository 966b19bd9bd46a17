#pragma once

#include <CurlTransport.h>
#include <NetworkError.h>

#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <QEventLoop>

#include <optional>

namespace orx::testing {

inline NetworkRequest requestTo(const LoopbackServer& server, const std::string& path = "/",
                                NetworkRequest::Method method = NetworkRequest::Method::Get) {
    NetworkRequest request;
    request.url = QUrl(QString::fromStdString(server.url(path)));
    request.method = method;
    return request;
}

//! Runs the event loop of this thread until \a condition, which only events of this thread may make true.
inline void runUntil(const std::function<bool()>& condition) {
    QEventLoop loop;
    while (!condition())
        loop.processEvents(QEventLoop::WaitForMoreEvents);
}

//! A request on its way, and its reply once it came.
struct Exchange {
    Exchange(Transport& transport, const NetworkRequest& request)
        : call(transport.send(request, [this](const NetworkReply& came) {
            reply = came;
            ++calls;
        })) {}
    const NetworkReply& wait() {
        runUntil([this] { return reply.has_value(); });
        return *reply;
    }

    std::optional<NetworkReply> reply;
    int calls = 0;
    std::unique_ptr<TransportCall> call;
};

inline NetworkReply exchange(Transport& transport, const NetworkRequest& request) {
    return Exchange(transport, request).wait();
}

//! Takes away the proxies that the environment of a test run may name: they are none of what is tested. To be
//! given to ::testing::AddGlobalTestEnvironment().
class WithoutProxies : public ::testing::Environment {
public:
    void SetUp() override {
        for (const char* name :
             {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"})
            qunsetenv(name);
    }
};

//! The code of a network error, 0 for anything else.
inline int networkCode(const Error& error) {
    return error.domain() == ErrorDomain::Network ? error.code() : 0;
}

} // namespace orx::testing
