#pragma once

#include <HalvaneError.h>
#include <NetworkError.h>

#include <cerrno>

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

//! Whether it is hardly to blame on the transfer: the network, a full disk.
inline bool concernsMany(const orx::Error& error) {
    return error.domain() == orx::ErrorDomain::Network || error.is(orx::ErrorCode::StorageFull) ||
           error.is(orx::ErrorDomain::OperatingSystem, ENOSPC) ||
           error.is(orx::ErrorDomain::OperatingSystem, EDQUOT);
}

} // namespace halvane::host
