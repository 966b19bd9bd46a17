#include "NetworkTask.h"

#include "NetworkError.h"
#include "RetryPolicy.h"

#include <QPointer>
#include <QRandomGenerator>
#include <QTimer>

#include <atomic>

namespace orx {

namespace {

std::atomic<quint64> endedUnsafeRequests = 0;

//! One attempt on its way, counted when it ends or is aborted.
class Attempt {
public:
    Attempt(std::unique_ptr<TransportCall> call, bool isSafe) : m_call(std::move(call)), m_isSafe(isSafe) {}
    ~Attempt() {
        m_call.reset();
        if (!m_isSafe)
            ++endedUnsafeRequests;
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;
    void resume() { m_call->resume(); }

private:
    std::unique_ptr<TransportCall> m_call;
    const bool m_isSafe;
};

} // namespace

struct NetworkTask::Private {
    RetryPolicy policy;
    NetworkRequest request;
    std::unique_ptr<Attempt> call;
    //! What the attempt that is to be repeated came to.
    NetworkReply failed;
    QTimer retryTimer;
    int attempts = 0;

    void stop() {
        retryTimer.stop();
        call.reset();
        request = {};
        failed = {};
    }
};

NetworkTask::NetworkTask(const QString& name, QObject* parent)
    : Task(name, parent), d(std::make_unique<Private>()) {
    d->retryTimer.setSingleShot(true);
    connect(&d->retryTimer, &QTimer::timeout, this, &NetworkTask::retry);
}

NetworkTask::~NetworkTask() = default;

void NetworkTask::setRetryPolicy(const RetryPolicy& policy) {
    d->policy = policy;
    setMaxAttempts(policy.maxAttempts);
}

Result<NetworkRequest> NetworkTask::prepareRequest(const QUrl& baseUrl, const QString& path,
                                                   NetworkRequest::Method method) const {
    const bool isHttp =
        baseUrl.scheme() == QLatin1String("http") || baseUrl.scheme() == QLatin1String("https");
    if (!baseUrl.isValid() || !isHttp || baseUrl.host().isEmpty())
        return Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidRequest),
                     tr("\"%1\" is not the address of a server. It must look like https://host:port.")
                         .arg(baseUrl.toDisplayString(QUrl::RemoveUserInfo)));
    QString basePath = baseUrl.path(QUrl::FullyEncoded);
    while (basePath.endsWith(QLatin1Char('/')))
        basePath.chop(1);
    NetworkRequest request;
    request.method = method;
    request.url = baseUrl.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment);
    request.url.setPath(basePath + path, QUrl::TolerantMode);
    return request;
}

quint64 NetworkTask::unsafeRequestsEnded() {
    return endedUnsafeRequests;
}

void NetworkTask::aboutToRetry(const NetworkReply&) {}

void NetworkTask::start() {
    Result<NetworkRequest> request = prepareRequest(baseUrl());
    if (request.hasError()) {
        finish(ORX_ECATCH(request).error());
        return;
    }
    d->request = std::move(request).value();
    if (const QByteArray token = authenticationToken(); !token.isEmpty())
        d->request.setHeader("Authorization", "Bearer " + token);
    d->attempts = 0;
    attempt();
}

void NetworkTask::attempt() {
    ++d->attempts;
    d->call = std::make_unique<Attempt>(
        Transport::ofThisThread().send(d->request, [this](const NetworkReply& reply) { onReply(reply); }),
        d->request.isSafe());
}

void NetworkTask::retry() {
    const QPointer<NetworkTask> guard(this);
    aboutToRetry(std::exchange(d->failed, {}));
    if (guard && isRunning())
        attempt();
}

void NetworkTask::onReply(const NetworkReply& reply) {
    d->call.reset();
    RetryPolicy policy = d->policy;
    policy.maxAttempts = maxAttempts();
    const double jitter = QRandomGenerator::global()->generateDouble();
    if (const auto delay = policy.delayAfter(d->request, reply, d->attempts, jitter)) {
        d->failed = reply;
        d->retryTimer.start(*delay);
        return;
    }
    d->stop();
    if (Error error = reply.error; error.hasError()) {
        finish(ORX_ECATCH(error));
        return;
    }
    replyArrived(reply);
}

void NetworkTask::replyArrived(const NetworkReply& reply) {
    const QPointer<NetworkTask> guard(this);
    const Error error = handleReply(reply);
    if (guard)
        finish(error);
}

void NetworkTask::resumeBody() {
    if (d->call)
        d->call->resume();
}

void NetworkTask::doCancel() {
    d->stop();
    const QPointer<NetworkTask> guard(this);
    Task::doCancel();
    if (guard)
        finish(error());
}

} // namespace orx
