#pragma once

#include "WorkerPool.h"

#include <condition_variable>
#include <mutex>

namespace orx::probes {

//! Occupies every worker, or \a count of them, until it is released.
class FullPool {
public:
    explicit FullPool(int count = WorkerPool::instance().threadCount()) {
        for (int i = 0; i < count; ++i)
            WorkerPool::instance().submit([this] { occupy(); }, nullptr, {});
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_busy == count; });
    }
    ~FullPool() {
        release();
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_busy == 0; });
    }
    FullPool(const FullPool&) = delete;
    FullPool& operator=(const FullPool&) = delete;

    void release() {
        const std::lock_guard lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }

private:
    void occupy() {
        std::unique_lock lock(m_mutex);
        ++m_busy;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_released; });
        --m_busy;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_busy = 0;
    bool m_released = false;
};

} // namespace orx::probes
