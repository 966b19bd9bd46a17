#pragma once

#include <QtGlobal>

#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace orx::vonk {

//! Something of which the whole process has a number, however many acquisitions are packed, checked and
//! unpacked side by side. Nobody waits for it while holding a part of another one, so nobody waits for ever.
//! Thread: any.
class SharedLimit {
public:
    explicit SharedLimit(int count) : m_left(count) {}
    Q_DISABLE_COPY_MOVE(SharedLimit)

    bool tryTake();
    void giveBack(int count) { m_left += count; }

private:
    std::atomic<int> m_left;
};

//! What one piece of work holds of a limit; given back with it.
class LimitShare {
public:
    explicit LimitShare(SharedLimit& limit) : m_limit(&limit) {}
    ~LimitShare() { m_limit->giveBack(m_taken); }
    LimitShare(LimitShare&& other) noexcept
        : m_limit(other.m_limit), m_taken(std::exchange(other.m_taken, 0)) {}
    LimitShare& operator=(LimitShare&&) = delete;

    //! One more; false when there is none left.
    bool take();
    void giveBackOne();
    int taken() const { return m_taken; }

private:
    SharedLimit* m_limit;
    int m_taken = 0;
};

//! Threads beside the caller's that share its work; it gets on without any. One thread.
class HelperThreads {
public:
    HelperThreads();
    ~HelperThreads() { join(); }
    Q_DISABLE_COPY_MOVE(HelperThreads)

    //! False when the process has its number of them, or the system allows no more.
    bool start(std::function<void()> body);
    size_t count() const { return m_threads.size(); }
    void join();

private:
    LimitShare m_share;
    std::vector<std::thread> m_threads;
    bool m_isRefused = false;
};

//! How many threads share the work when there is one packed acquisition, the caller among them.
unsigned workThreadCount();

//! Chunks on their way beside the one that each work may always have.
SharedLimit& extraChunks();
int extraChunkCount();
//! Summaries that are made at a time.
SharedLimit& summaries();

} // namespace orx::vonk
