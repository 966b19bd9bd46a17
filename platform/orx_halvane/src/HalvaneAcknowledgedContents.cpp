#include "HalvaneAcknowledgedContents.h"

#include <QHash>

#include <deque>
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

struct Known {
    std::mutex mutex;
    //! The digests as bytes.
    QHash<Content, QByteArray> digests;
    std::deque<Content> order;
};

Known& known() {
    static Known instance;
    return instance;
}

constexpr qsizetype digestBytes = 32;

} // namespace

void HalvaneAcknowledgedContents::record(const QString& serverKey, int fileId, int version,
                                         const QByteArray& sha256) {
    const QByteArray digest = QByteArray::fromHex(sha256);
    if (sha256.size() != 2 * digestBytes || digest.size() != digestBytes)
        return;
    const Content content{serverKey, fileId, version};
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    const qsizetype before = all.digests.size();
    all.digests.insert(content, digest);
    if (all.digests.size() == before)
        return;
    all.order.push_back(content);
    if (qsizetype(all.order.size()) > maxContents) {
        all.digests.remove(all.order.front());
        all.order.pop_front();
    }
}

QByteArray HalvaneAcknowledgedContents::find(const QString& serverKey, int fileId, int version) {
    Known& all = known();
    const std::lock_guard lock(all.mutex);
    return all.digests.value({serverKey, fileId, version}).toHex();
}

} // namespace orx
