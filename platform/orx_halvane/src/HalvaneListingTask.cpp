#include "HalvaneListingTask.h"

#include "HalvaneConnection.h"
#include "HalvaneListingStore.h"

#include <QPointer>

namespace orx {

namespace {

//! The calls of one thread that others may wait for, by the key of the listing.
struct CallsUnderWay {
    QHash<QByteArray, HalvaneListingTask*> calls;
    ~CallsUnderWay() { areGone = true; }
    //! The thread ends, and tasks that it left behind may still be destroyed. Outlives the calls.
    static thread_local bool areGone;
};
thread_local bool CallsUnderWay::areGone = false;

//! Those of this thread; null when it ends.
QHash<QByteArray, HalvaneListingTask*>* callsUnderWay() {
    static thread_local CallsUnderWay own;
    return CallsUnderWay::areGone ? nullptr : &own.calls;
}

constexpr int notModified = 304;

} // namespace

struct HalvaneListingTask::Private {
    QString path;
    QByteArray key;
    std::shared_ptr<const HalvaneListing> kept;
    std::shared_ptr<HalvaneListing> read;
    std::shared_ptr<const HalvaneListing> result;
    //! As of when the call was sent.
    quint64 unsafeRequests = 0;
    bool isFollower = false;
    QList<QPointer<HalvaneListingTask>> followers;
};

HalvaneListingTask::HalvaneListingTask(const QString& name, const QString& path, QObject* parent)
    : HalvaneTask(name, parent), d(std::make_unique<Private>()) {
    d->path = path;
}

HalvaneListingTask::~HalvaneListingTask() {
    tellFollowers();
}

std::shared_ptr<const HalvaneListing> HalvaneListingTask::listing() const {
    return d->result;
}

Error HalvaneListingTask::initialize() {
    ORX_RETURN_ON_ERROR(HalvaneTask::initialize());
    d->key = baseUrl().toEncoded() + ' ' + authenticationToken() + ' ' + d->path.toUtf8();
    d->kept = HalvaneListingStore::instance().find(d->key);
    return Error();
}

void HalvaneListingTask::start() {
    HalvaneListingTask* const other = callsUnderWay() ? callsUnderWay()->value(d->key) : nullptr;
    if (other && other->d->unsafeRequests == unsafeRequestsEnded()) {
        d->isFollower = true;
        other->d->followers.append(this);
        return;
    }
    makeTheCall();
}

void HalvaneListingTask::makeTheCall() {
    d->isFollower = false;
    d->unsafeRequests = unsafeRequestsEnded();
    if (auto* const calls = callsUnderWay())
        calls->insert(d->key, this);
    HalvaneTask::start();
}

Result<NetworkRequest> HalvaneListingTask::prepareRequest(const QUrl& baseUrl) const {
    auto request = HalvaneTask::prepareRequest(baseUrl, d->path, NetworkRequest::Method::Get);
    if (!request.hasError() && d->kept)
        request->setHeader("If-None-Match", d->kept->tag);
    return request;
}

Error HalvaneListingTask::handleReply(const NetworkReply& reply) {
    if (reply.status == notModified && d->kept) {
        d->result = d->kept;
        return Error();
    }
    d->read = std::make_shared<HalvaneListing>();
    d->read->tag = reply.header("ETag");
    Error error = HalvaneTask::handleReply(reply);
    if (!error.hasError()) {
        d->result = d->read;
        HalvaneListingStore::instance().keep(d->key, d->result);
    }
    d->read.reset();
    return ORX_ECATCH(error);
}

Error HalvaneListingTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const QJsonObject data = json.value(QStringLiteral("data")).toObject();
    return asInvalidReply(readListing(data, *d->read));
}

Error HalvaneListingTask::doFinish() {
    tellFollowers();
    return HalvaneTask::doFinish();
}

//! They hear of it from the event loop: what they do then may destroy this task.
void HalvaneListingTask::tellFollowers() {
    if (auto* const calls = callsUnderWay(); calls && calls->value(d->key) == this)
        calls->remove(d->key);
    const bool isAnswer = d->result || (hasError() && !isCanceled());
    for (const auto& follower : std::exchange(d->followers, {})) {
        if (!follower)
            continue;
        const auto take = [follower, isAnswer, result = d->result, error = error()] {
            if (!follower->isRunning() || !std::exchange(follower->d->isFollower, false))
                return;
            follower->d->result = result;
            if (isAnswer)
                follower->finish(result ? Error() : error);
            else
                follower->start();
        };
        QMetaObject::invokeMethod(follower.data(), take, Qt::QueuedConnection);
    }
}

} // namespace orx
