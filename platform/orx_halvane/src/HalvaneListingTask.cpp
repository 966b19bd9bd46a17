#include "HalvaneListingTask.h"

#include "HalvaneConnection.h"
#include "HalvaneListingStore.h"

#include <WorkerPool.h>

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

constexpr int ok = 200;
constexpr int onlyChanges = 226;
constexpr int notModified = 304;
//! From here on reading a reply would be felt by what else runs on the thread: some 200 items.
constexpr qsizetype largeReply = 64 * 1024;

} // namespace

//! What a worker makes of a large reply.
struct HalvaneListingTask::Reading {
    NetworkReply reply;
    std::shared_ptr<HalvaneListing> listing;
    Error error;

    //! Leaves a reply that is no success to the owner's thread, where all others are looked at: no listing.
    void run(Reader read) {
        const Result<QJsonObject> json = JsonUtils::parseObject(reply.body);
        const auto data = json.hasError() ? std::nullopt : successData(*json);
        if (!data)
            return;
        listing = std::make_shared<HalvaneListing>();
        error = read(*data, *listing);
    }
};

struct HalvaneListingTask::Private {
    QString path;
    QByteArray key;
    std::shared_ptr<const HalvaneListing> kept;
    //! While a reply is read on the owner's thread.
    std::shared_ptr<HalvaneListing> read;
    //! The one a worker is at.
    std::shared_ptr<Reading> reading;
    std::shared_ptr<const HalvaneListing> result;
    //! As of when the call was sent.
    quint64 unsafeRequests = 0;
    bool isFollower = false;
    //! The answer that it waits for is too old, but spares the call of the whole listing.
    bool asksAfterwards = false;
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
    return Error();
}

void HalvaneListingTask::start() {
    d->kept = HalvaneListingStore::instance().find(d->key);
    HalvaneListingTask* const other = callsUnderWay() ? callsUnderWay()->value(d->key) : nullptr;
    const bool isFresh = other && other->d->unsafeRequests == unsafeRequestsEnded();
    if (isFresh || (other && !d->kept)) {
        d->isFollower = true;
        d->asksAfterwards = !isFresh;
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
    if (!request.hasError() && d->kept) {
        request->setHeader("If-None-Match", d->kept->tag);
        request->setHeader("A-IM", "changes");
    }
    return request;
}

void HalvaneListingTask::replyArrived(const NetworkReply& reply) {
    if ((reply.status != ok && reply.status != onlyChanges) || reply.body.size() < largeReply)
        return HalvaneTask::replyArrived(reply);
    const auto reading = std::make_shared<Reading>(Reading{reply, nullptr, {}});
    d->reading = reading;
    WorkerPool::instance().submit([reading, read = reader()] { reading->run(read); }, this,
                                  [this, reading] {
                                      if (d->reading == reading)
                                          take(*reading);
                                  });
}

void HalvaneListingTask::take(const Reading& reading) {
    if (!reading.listing)
        return HalvaneTask::replyArrived(reading.reply);
    finish(ORX_ECATCH(reading.error.hasError() ? asInvalidReply(reading.error)
                                               : keep(reading.listing, reading.reply)));
}

//! Changes are worth something only beside the listing that they are changes of.
Error HalvaneListingTask::keep(const std::shared_ptr<HalvaneListing>& listing, const NetworkReply& reply) {
    listing->tag = reply.header("ETag");
    if (reply.status == onlyChanges) {
        if (!d->kept || reply.header("Delta-Base") != d->kept->tag)
            return ORX_ECATCH(
                asInvalidReply(Error(ErrorCode::ParseError,
                                     QStringLiteral("it tells the changes of a listing that is not here."))));
        d->result = d->kept->with(*listing);
    } else {
        d->result = listing;
    }
    HalvaneListingStore::instance().keep(d->key, d->result);
    return Error();
}

Error HalvaneListingTask::handleReply(const NetworkReply& reply) {
    if (reply.status == notModified && d->kept) {
        d->result = d->kept;
        return Error();
    }
    d->read = std::make_shared<HalvaneListing>();
    Error error = HalvaneTask::handleReply(reply);
    if (!error.hasError())
        error = keep(d->read, reply);
    d->read.reset();
    return ORX_ECATCH(error);
}

Error HalvaneListingTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const QJsonObject data = json.value(QStringLiteral("data")).toObject();
    return asInvalidReply(reader()(data, *d->read));
}

Error HalvaneListingTask::doFinish() {
    d->reading.reset();
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
            if (!isAnswer || follower->d->asksAfterwards)
                return follower->start();
            follower->d->result = result;
            follower->finish(result ? Error() : error);
        };
        QMetaObject::invokeMethod(follower.data(), take, Qt::QueuedConnection);
    }
}

} // namespace orx
