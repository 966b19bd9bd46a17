#pragma once

#include "Transport.h"

namespace orx {

//! libcurl's multi interface on the event loop of its thread: socket notifiers and one timer. Keep-alive,
//! TCP_NODELAY, no "Expect:", bounded requests in flight.
class ORX_NETWORK_EXPORT CurlTransport final : public Transport {
public:
    struct Options {
        int maxRequestsInFlight = 16;
        //! Added to the system's certificates; for servers with a certificate of their own.
        QString caFile = {};
    };

    CurlTransport();
    explicit CurlTransport(const Options& options);
    ~CurlTransport() override;

    std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) override;

    //! Options of the transports that Transport::ofThisThread() makes from now on.
    static void setDefaultOptions(const Options& options);

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
