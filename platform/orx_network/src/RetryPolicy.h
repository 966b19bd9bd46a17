#pragma once

#include "NetworkRequest.h"

#include <optional>

namespace orx {

//! When a failed attempt is worth another, and after which wait. Pure.
//!
//! Retried: no reply (connection failed or lost, timed out), 408, 429, 502, 503, 504; and only safe or
//! idempotent requests. The wait doubles from baseDelay up to maxDelay, with jitter; a Retry-After (seconds
//! or date) of the server that is longer counts instead, up to maxRetryAfter.
struct ORX_NETWORK_EXPORT RetryPolicy {
    int maxAttempts = 5;
    std::chrono::milliseconds baseDelay{250};
    std::chrono::milliseconds maxDelay{8'000};
    std::chrono::milliseconds maxRetryAfter{60'000};

    //! The wait before the next attempt; nothing when there shall be none. \a attempt: attempts made (from
    //! 1). \a jitter: 0..1.
    std::optional<std::chrono::milliseconds>
    delayAfter(const NetworkRequest& request, const NetworkReply& reply, int attempt, double jitter) const;
};

} // namespace orx
