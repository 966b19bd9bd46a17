#pragma once

#include "Authenticable.h"
#include "NetworkRequest.h"
#include "Transport.h"

#include <Result.h>
#include <Task.h>

namespace orx {

struct RetryPolicy;

//! One request with its retries. run: initialize(), prepareRequest(baseUrl()), credentials added, sent by the
//! transport of the thread; a failed attempt is repeated as RetryPolicy says; then handleReply(). cancel()
//! aborts the request. Thread: that of the object, which needs an event loop (or waitForFinished()).
class ORX_NETWORK_EXPORT NetworkTask : public Task, public Retriable, public Authenticable {
    Q_OBJECT
public:
    explicit NetworkTask(const QString& name, QObject* parent = nullptr);
    ~NetworkTask() override;

    //! Replaces the waits between attempts and, with them, maxAttempts(); for the attempts from now on.
    void setRetryPolicy(const RetryPolicy& policy);

    //! How many attempts of requests that may change something at a server have ended in this process, in
    //! whatever way: what was read by a request sent while the number was another one may be out of date.
    //! Thread: any.
    static quint64 unsafeRequestsEnded();

protected:
    //! Called once per run; the request that all attempts send.
    virtual Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const = 0;
    //! \a path (beginning with "/", its segments percent-encoded where needed) appended to the path of \a
    //! baseUrl; fails with NetworkErrorCode::InvalidRequest for an invalid URL.
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl, const QString& path,
                                          NetworkRequest::Method method) const;
    //! The URL that requests are relative to.
    virtual QUrl baseUrl() const = 0;
    //! The reply that ends the task: any status, no transport error. Its error ends the task.
    virtual Error handleReply(const NetworkReply& reply) = 0;
    //! The last reply is there: calls handleReply() and finishes the task with what it returns. Who overrides
    //! this may finish the task later, and must do so unless it was cancelled meanwhile.
    virtual void replyArrived(const NetworkReply& reply);
    //! Called right before an attempt after the first, with what the one before came to; may finish the task.
    //! The base does nothing.
    virtual void aboutToRetry(const NetworkReply& failed);

    //! Goes on with the body of the reply after its sink said BodySink::Verdict::Pause; nothing when no
    //! attempt runs.
    void resumeBody();

    void start() override;
    void doCancel() override;

private:
    void attempt();
    void retry();
    void onReply(const NetworkReply& reply);

    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
