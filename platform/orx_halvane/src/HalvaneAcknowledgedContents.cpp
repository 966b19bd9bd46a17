#include "HalvaneAcknowledgedContents.h"

#include <QHash>

#include <deque>
#include <limits>
#include <mutex>

namespace orx {

namespace {

struct Content {
    QString server;
    int fileId = 0;
    int version = 0;
    friend bool operator==(const Content&, const Content&) = default;
};

size_t qHash(const Content& content, size_t seed = 0) {
    return qHashMulti(seed, content.server, content.fileId, content.version);
}

constexpr qint64 unknownTime = std::numeric_limits<qint64>::min();

struct Facts {
    //! As bytes.
    QByteArray digest;
    //! Negative when only the digest is known.
    qint64 size = -1;
    qint64 sourceModifiedMs = unknownTime;
    qint64 modifiedMs = unknownTime;
    QString alias;
};

qint64 toMs(const QDateTime& time) {
    return time.isValid() ? time.toMSecsSinceEpoch() : unknownTime;
}

QDateTime fromMs(qint64 ms) {
    return ms == unknownTime ? QDateTime() : QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

struct Known {
    std::mutex mutex;
    QHash<Content, Facts> facts;
    std::deque<Content> order;
};

Known& known() {
    static Known instance;
    return instance;
}

constexpr qsizetype digestBytes = 32;

//! Empty for what is no digest.
QByteArray digestOf(const QByteArray& sha256) {
    const QByteArray digest = QByteArray::fromHex(sha256);
    return sha256.size() == 2 * digestBytes && digest.size() == digestBytes ? digest : QByteArray();
}

void keep(const Content& content, const Facts& facts) {
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    const auto there = all.facts.find(content);
    if (there != all.facts.end()) {
        if (facts.size >= 0 || there->digest != facts.digest)
            *there = facts;
        return;
    }
    all.facts.insert(content, facts);
    all.order.push_back(content);
    if (qsizetype(all.order.size()) > HalvaneAcknowledgedContents::maxContents) {
        all.facts.remove(all.order.front());
        all.order.pop_front();
    }
}

Facts factsOf(const Content& content) {
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    return all.facts.value(content);
}

} // namespace

void HalvaneAcknowledgedContents::record(const QString& serverKey, int fileId, int version,
                                         const QByteArray& sha256) {
    if (const QByteArray digest = digestOf(sha256); !digest.isEmpty())
        keep({serverKey, fileId, version}, {digest, -1, unknownTime, unknownTime, {}});
}

QByteArray HalvaneAcknowledgedContents::find(const QString& serverKey, int fileId, int version) {
    return factsOf({serverKey, fileId, version}).digest.toHex();
}

void HalvaneAcknowledgedContents::recordStated(const QString& serverKey, int fileId, int version,
                                               const Stated& stated) {
    const QByteArray digest = digestOf(stated.sha256);
    if (digest.isEmpty() || stated.size < 0)
        return;
    keep({serverKey, fileId, version},
         {digest, stated.size, toMs(stated.sourceModifiedAt), toMs(stated.modifiedAt), stated.alias});
}

std::optional<HalvaneAcknowledgedContents::Stated>
HalvaneAcknowledgedContents::findStated(const QString& serverKey, int fileId, int version) {
    const Facts facts = factsOf({serverKey, fileId, version});
    if (facts.digest.isEmpty() || facts.size < 0)
        return std::nullopt;
    return Stated{facts.size, facts.digest.toHex(), fromMs(facts.sourceModifiedMs), fromMs(facts.modifiedMs),
                  facts.alias};
}

void HalvaneAcknowledgedContents::forget(const QString& serverKey, int fileId, int version) {
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    // Its place in the order stays, or one that is recorded anew would go when the old one's turn comes.
    if (const auto there = all.facts.find({serverKey, fileId, version}); there != all.facts.end())
        *there = Facts();
}

void HalvaneAcknowledgedContents::clear() {
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    all.facts.clear();
    all.order.clear();
}

} // namespace orx
