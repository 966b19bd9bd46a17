#include "uploads/upload_sessions.h"

#include <algorithm>

namespace halvane::server {

UploadSessions::UploadSessions(BlobStore& blobs, CatalogStore& catalog, WorkerPool& hashing)
    : m_blobs(blobs), m_catalog(catalog), m_hashing(hashing) {}

std::shared_ptr<UploadSession> UploadSessions::session(const Caller& caller, Id upload) {
    const std::shared_ptr<Slot> slot = this->slot(upload);
    const std::lock_guard lock(slot->mutex);
    if (!slot->session)
        slot->session = std::make_shared<UploadSession>(m_catalog.upload(caller, upload), m_blobs, m_catalog,
                                                        m_hashing, m_buffers);
    return slot->session;
}

std::shared_ptr<UploadSessions::Slot> UploadSessions::slot(Id upload) {
    const std::lock_guard lock(m_mutex);
    if (!m_slots.contains(upload) && m_slots.size() >= maximumIdle)
        evictIdle();
    auto& slot = m_slots[upload];
    if (!slot)
        slot = std::make_shared<Slot>();
    slot->lastUse = ++m_uses;
    return slot;
}

// With the mutex held. Sessions in use stay, however many there are.
void UploadSessions::evictIdle() {
    auto oldest = m_slots.end();
    for (auto it = m_slots.begin(); it != m_slots.end(); ++it) {
        const bool idle = it->second.use_count() == 1 && it->second->session.use_count() <= 1;
        if (idle && (oldest == m_slots.end() || it->second->lastUse < oldest->second->lastUse))
            oldest = it;
    }
    if (oldest != m_slots.end())
        m_slots.erase(oldest);
}

void UploadSessions::drop(Id upload) {
    std::shared_ptr<Slot> dropped; // closes its file outside of the lock
    const std::lock_guard lock(m_mutex);
    if (const auto found = m_slots.find(upload); found != m_slots.end()) {
        dropped = std::move(found->second);
        m_slots.erase(found);
    }
}

void UploadSessions::flushAll() {
    std::vector<std::shared_ptr<Slot>> slots;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [id, slot] : m_slots)
            slots.push_back(slot);
    }
    for (const auto& slot : slots) {
        const std::lock_guard lock(slot->mutex);
        if (slot->session)
            slot->session->flushStaged();
    }
}

} // namespace halvane::server
