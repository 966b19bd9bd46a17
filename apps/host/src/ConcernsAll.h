#pragma once

#include <HalvaneError.h>
#include <NetworkError.h>

namespace halvane::host {

//! Whether a failure of one of several transfers is one that no other would do better with: nobody is logged
//! in, nobody answers.
inline bool concernsAll(const orx::Error& error) {
    using orx::NetworkErrorCode;
    return error.is(orx::ErrorCode::NotAuthenticated) ||
           isHalvaneError(error, orx::HalvaneServerErrorCode::NotAuthenticated) ||
           error.is(orx::ErrorDomain::Network, int(NetworkErrorCode::ConnectionFailed)) ||
           error.is(orx::ErrorDomain::Network, int(NetworkErrorCode::TlsFailed));
}

} // namespace halvane::host
