#include "HalvaneUploadSessions.h"

#include <mutex>

namespace orx {
namespace {

struct Registry {
    std::mutex mutex;
    QHash<int, std::shared_ptr<const HalvaneUploadSession>> sessions;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

} // namespace

void HalvaneUploadSessions::add(int uploadId, const HalvaneUploadSession& session) {
    auto shared = std::make_shared<const HalvaneUploadSession>(session);
    const std::lock_guard lock(registry().mutex);
    registry().sessions.emplace(uploadId, std::move(shared));
}

std::shared_ptr<const HalvaneUploadSession> HalvaneUploadSessions::find(int uploadId) {
    const std::lock_guard lock(registry().mutex);
    return registry().sessions.value(uploadId);
}

std::shared_ptr<const HalvaneUploadSession> HalvaneUploadSessions::take(int uploadId) {
    const std::lock_guard lock(registry().mutex);
    return registry().sessions.take(uploadId);
}

void HalvaneUploadSessions::setContentSha256(int uploadId, const QByteArray& sha256) {
    const std::lock_guard lock(registry().mutex);
    const auto found = registry().sessions.find(uploadId);
    if (found == registry().sessions.end())
        return;
    HalvaneUploadSession changed = **found;
    changed.contentSha256 = sha256;
    *found = std::make_shared<const HalvaneUploadSession>(std::move(changed));
}

} // namespace orx
