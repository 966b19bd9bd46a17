#include "UnattachedMetadata.h"

#include "HalvaneConnection.h"

#include <QHash>

#include <mutex>

namespace orx {
namespace {

using Key = std::pair<QString, int>;

struct Registry {
    std::mutex mutex;
    QHash<Key, std::weak_ptr<JournalHold>> holds;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

Key keyOf(int fileId) {
    return {HalvaneConnection::instance().serverKey(), fileId};
}

} // namespace

std::shared_ptr<JournalHold> UnattachedMetadata::add(int fileId, JournalHold hold) {
    auto shared = std::make_shared<JournalHold>(std::move(hold));
    const Key key = keyOf(fileId);
    const std::lock_guard lock(registry().mutex);
    registry().holds.removeIf([](auto entry) { return entry.value().expired(); });
    registry().holds.insert(key, shared);
    return shared;
}

std::shared_ptr<JournalHold> UnattachedMetadata::find(int fileId) {
    const Key key = keyOf(fileId);
    const std::lock_guard lock(registry().mutex);
    return registry().holds.value(key).lock();
}

} // namespace orx
