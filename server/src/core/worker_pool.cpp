#include "core/worker_pool.h"

namespace halvane::server {

WorkerPool::WorkerPool(std::size_t threads) {
    for (std::size_t i = 0; i < threads; ++i)
        m_threads.emplace_back([this] { threadMain(); });
}

WorkerPool::~WorkerPool() {
    finish();
}

void WorkerPool::post(std::function<void()> job) {
    {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_one();
}

void WorkerPool::finish() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_all();
    for (std::thread& thread : m_threads)
        if (thread.joinable())
            thread.join();
}

void WorkerPool::threadMain() {
    std::unique_lock lock(m_mutex);
    while (true) {
        m_wake.wait(lock, [this] { return m_stop || !m_jobs.empty(); });
        if (m_jobs.empty())
            return;
        std::function<void()> job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
        job = nullptr;
        lock.lock();
    }
}

} // namespace halvane::server
