#include "Transport.h"

#include "CurlTransport.h"

namespace orx {

namespace {

thread_local Transport* overriding = nullptr;
thread_local std::unique_ptr<CurlTransport> ownTransport;

} // namespace

TransportCall::~TransportCall() = default;
Transport::~Transport() = default;

Transport& Transport::ofThisThread() {
    if (overriding)
        return *overriding;
    if (!ownTransport)
        ownTransport = std::make_unique<CurlTransport>();
    return *ownTransport;
}

void Transport::setOverride(Transport* transport) {
    overriding = transport;
}

} // namespace orx
