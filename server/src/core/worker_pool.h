// A fixed number of threads that run jobs in the order they were posted.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace halvane::server {

// Thread-safe. Jobs must not throw. Destroying it runs what was posted.
class WorkerPool {
public:
    explicit WorkerPool(std::size_t threads);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void post(std::function<void()> job);
    // Runs what was posted and ends the threads; jobs posted later never run.
    void finish();

private:
    void threadMain();

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_stop = false;
    std::vector<std::thread> m_threads;
};

} // namespace halvane::server
