#pragma once

#include "orx_network_export.h"

#include <Error.h>

#include <QByteArray>
#include <QList>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>

namespace orx {

using HttpHeader = std::pair<QByteArray, QByteArray>;

//! Takes the body of a reply piece by piece, on the thread of the transport. A consumer that cannot take more
//! at the moment says Pause and later calls TransportCall::resume(); the piece it refused is offered again.
class ORX_NETWORK_EXPORT BodySink {
public:
    enum class Verdict { Taken, Pause, Abort };
    virtual ~BodySink();
    //! Called before the first piece, once per attempt, with the status and the headers. Only bodies of 2xx
    //! replies go to the sink.
    virtual Verdict begin(int status, const QList<HttpHeader>& headers) = 0;
    virtual Verdict take(const char* data, qint64 size) = 0;
};

//! One HTTP request as a value.
struct ORX_NETWORK_EXPORT NetworkRequest {
    //! The values are fixed.
    enum class Method : int { Head = 0, Get = 1, Post = 2, Put = 3, Delete = 4 };

    QUrl url;
    Method method = Method::Get;
    QList<HttpHeader> headers;
    //! The body; shared, so that a retry sends it again and a pooled buffer goes back when the last holder
    //! lets go.
    std::shared_ptr<const QByteArray> body;
    //! Where the body of a successful reply goes; null: into NetworkReply::body, at most maxReplySize.
    std::shared_ptr<BodySink> sink;
    //! Whether sending it twice is the same as sending it once (safe methods are; a PUT or POST when it says
    //! so or carries a key).
    bool idempotent = false;
    //! Calls with the running sum of body bytes sent, on the transport's thread; may be empty. Starts again
    //! at 0 with a retry.
    std::function<void(qint64)> onBytesSent;
    std::chrono::milliseconds connectTimeout{10'000};
    //! Without a byte in either direction for this long the request fails: the server's thinking time counts,
    //! a pause of the sink does not. Zero: no limit.
    std::chrono::milliseconds silenceTimeout{60'000};
    //! For the whole request; zero: none (contents of files).
    std::chrono::milliseconds totalTimeout{120'000};
    qint64 maxReplySize = 256LL * 1024 * 1024;

    //! Case-insensitive; empty when there is none.
    static QByteArray header(const QList<HttpHeader>& headers, const QByteArray& name);
    void setHeader(const QByteArray& name, const QByteArray& value);
    bool isSafe() const { return method == Method::Get || method == Method::Head; }
};

//! What came back of one attempt.
struct ORX_NETWORK_EXPORT NetworkReply {
    //! 0 when there was no reply.
    int status = 0;
    QList<HttpHeader> headers;
    QByteArray body;
    //! Of ErrorDomain::Network when no complete reply came; ErrorCode::Canceled when it was aborted. A reply
    //! with a failure status is no error here.
    Error error;

    QByteArray header(const QByteArray& name) const { return NetworkRequest::header(headers, name); }
};

} // namespace orx
