#include "uploads/sweeper.h"

namespace halvane::server {

Sweeper::Sweeper(CatalogStore& catalog, BlobStore& blobs, Log& log, Metrics& metrics,
                 std::chrono::milliseconds interval)
    : m_catalog(catalog)
    , m_blobs(blobs)
    , m_log(log)
    , m_metrics(metrics)
    , m_interval(interval)
    , m_thread([this] { threadMain(); }) {}

Sweeper::~Sweeper() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

bool Sweeper::stopping() {
    const std::lock_guard lock(m_mutex);
    return m_stop;
}

void Sweeper::threadMain() {
    const auto guarded = [this](auto step) {
        try {
            (this->*step)();
        } catch (const std::exception& error) {
            m_log.error("sweep", error.what());
        }
    };
    guarded(&Sweeper::sweepLeftovers);
    while (!stopping()) {
        guarded(&Sweeper::keepHouse);
        std::unique_lock lock(m_mutex);
        m_wake.wait_for(lock, m_interval, [this] { return m_stop; });
    }
}

void Sweeper::remove(const std::string& name) {
    m_blobs.discard(name);
    ++m_metrics.blobsSwept;
}

void Sweeper::sweepLeftovers() {
    m_blobs.forEachName([this](const std::string& name) {
        if (!stopping() && !m_catalog.isBlobNeeded(name))
            remove(name);
    });
}

void Sweeper::keepHouse() {
    for (const std::string& name : m_catalog.expire(currentTime()))
        remove(name);
    const std::vector<std::string> garbage = m_catalog.garbage();
    for (const std::string& name : garbage)
        remove(name);
    if (!garbage.empty())
        m_catalog.forgetGarbage(garbage);
}

} // namespace halvane::server
