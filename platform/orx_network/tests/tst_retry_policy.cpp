#include <NetworkError.h>
#include <RetryPolicy.h>

#include <gtest/gtest.h>

#include <QDateTime>
#include <QLocale>

using namespace orx;
using namespace std::chrono_literals;

namespace {

using Method = NetworkRequest::Method;

NetworkRequest requestOf(Method method, bool idempotent = false) {
    NetworkRequest request;
    request.method = method;
    request.idempotent = idempotent;
    return request;
}

NetworkReply replyOf(int status, const QList<HttpHeader>& headers = {}) {
    NetworkReply reply;
    reply.status = status;
    reply.headers = headers;
    return reply;
}

NetworkReply failureOf(const Error& error) {
    NetworkReply reply;
    reply.error = error;
    return reply;
}

NetworkReply failureOf(NetworkErrorCode code) {
    return failureOf(Error(ErrorDomain::Network, int(code), QStringLiteral("failed")));
}

TEST(RetryPolicy, RepeatsTheStatusesThatPassByThemselves) {
    const RetryPolicy policy;
    for (const int status : {408, 429, 502, 503, 504})
        EXPECT_TRUE(policy.delayAfter(requestOf(Method::Get), replyOf(status), 1, 0)) << status;
    for (const int status :
         {200, 204, 206, 301, 304, 400, 401, 403, 404, 409, 410, 412, 416, 422, 500, 501, 505, 507})
        EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get), replyOf(status), 1, 0)) << status;
}

TEST(RetryPolicy, RepeatsWhatNeverGotAReplyAndNothingThatWillFailAgain) {
    const RetryPolicy policy;
    for (const auto code :
         {NetworkErrorCode::ConnectionFailed, NetworkErrorCode::ConnectionLost, NetworkErrorCode::TimedOut})
        EXPECT_TRUE(policy.delayAfter(requestOf(Method::Get), failureOf(code), 1, 0)) << int(code);
    for (const auto code : {NetworkErrorCode::TlsFailed, NetworkErrorCode::InvalidReply,
                            NetworkErrorCode::InvalidRequest, NetworkErrorCode::HttpStatus})
        EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get), failureOf(code), 1, 0)) << int(code);
    EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get),
                                   failureOf(Error(ErrorCode::Canceled, QStringLiteral("stopped"))), 1, 0));
    EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get),
                                   failureOf(Error(ErrorDomain::Server, 2, QStringLiteral("no"))), 1, 0));
}

TEST(RetryPolicy, RepeatsOnlySafeAndIdempotentRequests) {
    const RetryPolicy policy;
    const NetworkReply reply = replyOf(503);
    EXPECT_TRUE(policy.delayAfter(requestOf(Method::Get), reply, 1, 0));
    EXPECT_TRUE(policy.delayAfter(requestOf(Method::Head), reply, 1, 0));
    for (const Method method : {Method::Post, Method::Put, Method::Delete}) {
        EXPECT_FALSE(policy.delayAfter(requestOf(method), reply, 1, 0)) << int(method);
        EXPECT_TRUE(policy.delayAfter(requestOf(method, true), reply, 1, 0)) << int(method);
    }
}

TEST(RetryPolicy, StopsAfterTheLastAttempt) {
    RetryPolicy policy;
    policy.maxAttempts = 3;
    EXPECT_TRUE(policy.delayAfter(requestOf(Method::Get), replyOf(503), 2, 0));
    EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get), replyOf(503), 3, 0));
    EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get), replyOf(503, {{"Retry-After", "1"}}), 3, 0));
    policy.maxAttempts = 1;
    EXPECT_FALSE(policy.delayAfter(requestOf(Method::Get), replyOf(503), 1, 0));
}

TEST(RetryPolicy, DoublesTheWaitUpToTheLimitAndSpreadsItByTheJitter) {
    RetryPolicy policy;
    policy.maxAttempts = 1000;
    policy.baseDelay = 100ms;
    policy.maxDelay = 1000ms;
    struct Row {
        int attempt;
        double jitter;
        std::chrono::milliseconds wait;
    };
    for (const Row& row : {Row{1, 1, 100ms}, Row{2, 1, 200ms}, Row{3, 1, 400ms}, Row{4, 1, 800ms},
                           Row{5, 1, 1000ms}, Row{900, 1, 1000ms}, Row{1, 0, 50ms}, Row{2, 0.5, 150ms},
                           Row{5, 0, 500ms}, Row{1, 7, 100ms}, Row{1, -7, 50ms}})
        EXPECT_EQ(policy.delayAfter(requestOf(Method::Get), replyOf(503), row.attempt, row.jitter), row.wait)
            << row.attempt << " " << row.jitter;
}

TEST(RetryPolicy, WaitsNotAtAllWithoutDelays) {
    RetryPolicy policy;
    policy.baseDelay = 0ms;
    EXPECT_EQ(policy.delayAfter(requestOf(Method::Get), replyOf(503), 4, 1), 0ms);
}

TEST(RetryPolicy, LetsTheServerAskForALongerWaitInSeconds) {
    RetryPolicy policy;
    policy.baseDelay = 4000ms;
    policy.maxRetryAfter = 30'000ms;
    const auto wait = [&](const QByteArray& value) {
        return policy.delayAfter(requestOf(Method::Get), replyOf(429, {{"retry-after", value}}), 1, 1);
    };
    EXPECT_EQ(wait("7"), 7000ms);
    EXPECT_EQ(wait(" 7 "), 7000ms);
    EXPECT_EQ(wait("30"), 30'000ms);
    EXPECT_EQ(wait("31"), 30'000ms);
    EXPECT_EQ(wait("18446744073709551615"), 30'000ms);
    for (const char* value : {"", "0", "3", "-5", "soon", "1.5.7x"})
        EXPECT_EQ(wait(value), 4000ms) << value;
}

TEST(RetryPolicy, LetsTheServerAskForALongerWaitByADateOfItsOwnClock) {
    RetryPolicy policy;
    policy.baseDelay = 4000ms;
    const auto wait = [&](const QByteArray& until) {
        const QList<HttpHeader> headers{{"Date", "Sun, 06 Nov 1994 08:49:37 GMT"}, {"Retry-After", until}};
        return policy.delayAfter(requestOf(Method::Get), replyOf(503, headers), 1, 1);
    };
    EXPECT_EQ(wait("Sun, 06 Nov 1994 08:49:57 GMT"), 20'000ms);
    EXPECT_EQ(wait("Sunday, 06-Nov-94 08:49:57 GMT"), 20'000ms);
    EXPECT_EQ(wait("Sun Nov  6 08:49:57 1994"), 20'000ms);
    EXPECT_EQ(wait("Sun, 06 Nov 1994 09:49:57 GMT"), 60'000ms);
    EXPECT_EQ(wait("Sun, 06 Nov 1994 08:49:30 GMT"), 4000ms);
}

TEST(RetryPolicy, MeasuresADateByTheOwnClockWhenTheServerDoesNotTellTheTime) {
    RetryPolicy policy;
    const auto wait = [&](const QDateTime& until) {
        const QString text =
            QLocale::c().toString(until.toUTC(), QStringLiteral("ddd, dd MMM yyyy hh:mm:ss")) +
            QStringLiteral(" GMT");
        return policy.delayAfter(requestOf(Method::Get), replyOf(503, {{"Retry-After", text.toLatin1()}}), 1,
                                 1);
    };
    EXPECT_EQ(wait(QDateTime::currentDateTimeUtc().addDays(1)), policy.maxRetryAfter);
    EXPECT_EQ(wait(QDateTime::currentDateTimeUtc().addDays(-1)), policy.baseDelay);
}

TEST(NetworkRequest, FindsAndReplacesHeadersWithoutRegardToCase) {
    NetworkRequest request;
    request.headers = {{"A", "1"}, {"b", "2"}, {"a", "3"}};
    EXPECT_EQ(NetworkRequest::header(request.headers, "a"), "1");
    EXPECT_EQ(NetworkRequest::header(request.headers, "B"), "2");
    EXPECT_EQ(NetworkRequest::header(request.headers, "c"), QByteArray());
    request.setHeader("a", "4");
    EXPECT_EQ(request.headers, (QList<HttpHeader>{{"b", "2"}, {"a", "4"}}));
}

} // namespace
