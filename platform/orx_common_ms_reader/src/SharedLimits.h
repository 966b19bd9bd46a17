#pragma once

#include <QtGlobal>

#include <atomic>
#include <utility>

namespace orx::vonk {

//! Something of which the whole process has a number, however many acquisitions are packed, checked and
//! unpacked side by side. Nobody waits for it while holding a part of another one, so nobody waits for ever.
//! Thread: any.
class SharedLimit {
public:
    explicit SharedLimit(int count) : m_left(count) {}
    Q_DISABLE_COPY_MOVE(SharedLimit)

    bool tryTake();
    void giveBack() { ++m_left; }

private:
    std::atomic<int> m_left;
};

//! One of a limit, if there was one left; given back with this.
class LimitShare {
public:
    explicit LimitShare(SharedLimit& limit) : m_limit(limit.tryTake() ? &limit : nullptr) {}
    ~LimitShare() {
        if (m_limit)
            m_limit->giveBack();
    }
    LimitShare(LimitShare&& other) noexcept : m_limit(std::exchange(other.m_limit, nullptr)) {}
    LimitShare& operator=(LimitShare&&) = delete;

    bool isTaken() const { return m_limit; }

private:
    SharedLimit* m_limit;
};

//! How many threads share the work when there is one packed acquisition, the caller among them.
unsigned workThreadCount();

//! Chunks on their way beside the one that each work may always have. Each work leaves at least as many as it
//! has.
int extraChunkCount();
//! Summaries that are made at a time.
SharedLimit& summaries();

} // namespace orx::vonk
