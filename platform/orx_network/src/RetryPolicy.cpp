#include "RetryPolicy.h"

#include "NetworkError.h"

#include <curl/curl.h>

#include <QDateTime>

#include <algorithm>

namespace orx {

using std::chrono::milliseconds;

namespace {

bool isWorthAnother(const NetworkReply& reply) {
    if (reply.error.hasError()) {
        return reply.error.domain() == ErrorDomain::Network &&
               reply.error.code() <= int(NetworkErrorCode::TimedOut);
    }
    switch (reply.status) {
    case 408:
    case 429:
    case 502:
    case 503:
    case 504:
        return true;
    default:
        return false;
    }
}

//! What the server asks for, at most \a limit; zero when it asks for nothing that can be understood.
milliseconds retryAfter(const NetworkReply& reply, milliseconds limit) {
    const QByteArray value = reply.header("Retry-After").trimmed();
    bool isNumber = false;
    const qulonglong seconds = value.toULongLong(&isNumber);
    if (isNumber)
        return seconds > qulonglong(limit.count() / 1000) ? limit : milliseconds(qint64(seconds) * 1000);
    const time_t until = curl_getdate(value.constData(), nullptr);
    if (until < 0)
        return milliseconds::zero();
    // The server's own clock when it tells the time: the two clocks may differ.
    const time_t serverNow = curl_getdate(reply.header("Date").constData(), nullptr);
    const qint64 now = serverNow >= 0 ? qint64(serverNow) : QDateTime::currentSecsSinceEpoch();
    return std::clamp(milliseconds((qint64(until) - now) * 1000), milliseconds::zero(), limit);
}

//! Between half of the step and the whole of it, so that clients that failed together come back apart.
milliseconds backoff(milliseconds base, milliseconds limit, int attempt, double jitter) {
    milliseconds step = std::min(base, limit);
    for (int i = 1; i < attempt && step < limit; ++i)
        step = std::min(step * 2, limit);
    const double share = 0.5 + 0.5 * std::clamp(jitter, 0.0, 1.0);
    return milliseconds(qint64(double(step.count()) * share));
}

} // namespace

std::optional<milliseconds> RetryPolicy::delayAfter(const NetworkRequest& request, const NetworkReply& reply,
                                                    int attempt, double jitter) const {
    const bool mayRepeat = request.isSafe() || request.idempotent;
    if (!mayRepeat || attempt >= maxAttempts || !isWorthAnother(reply))
        return std::nullopt;
    return std::max(backoff(baseDelay, maxDelay, attempt, jitter), retryAfter(reply, maxRetryAfter));
}

} // namespace orx
