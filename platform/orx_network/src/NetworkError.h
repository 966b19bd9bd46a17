#pragma once

namespace orx {

//! Codes of ErrorDomain::Network: there was no reply that could be used.
enum class NetworkErrorCode : int {
    ConnectionFailed = 1, //!< nobody answers at the address (refused, unreachable, unknown host)
    ConnectionLost = 2,   //!< the connection ended before the reply was complete
    TimedOut = 3,         //!< nothing came in time
    TlsFailed = 4,        //!< the server's certificate or the encryption is not acceptable
    InvalidReply =
        5, //!< what came is not a reply of this protocol (HTML, truncated or wrong JSON, a wrong envelope)
    InvalidRequest = 6, //!< the request could not be made (a bad URL)
    HttpStatus = 7      //!< a failure status without a usable body
};

} // namespace orx
