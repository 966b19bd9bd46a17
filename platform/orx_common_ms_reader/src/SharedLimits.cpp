#include "SharedLimits.h"

#include <algorithm>
#include <system_error>

namespace orx::vonk {

namespace {

//! More would not read or write any faster, and each needs memory.
constexpr unsigned mostThreads = 7;

SharedLimit& helperThreads() {
    static SharedLimit limit{int(workThreadCount()) - 1};
    return limit;
}

} // namespace

bool SharedLimit::tryTake() {
    int left = m_left;
    while (left > 0) {
        if (m_left.compare_exchange_weak(left, left - 1))
            return true;
    }
    return false;
}

bool LimitShare::take() {
    if (!m_limit->tryTake())
        return false;
    ++m_taken;
    return true;
}

void LimitShare::giveBackOne() {
    --m_taken;
    m_limit->giveBack(1);
}

HelperThreads::HelperThreads() : m_share(helperThreads()) {}

bool HelperThreads::start(std::function<void()> body) {
    if (m_isRefused || !m_share.take())
        return false;
    try {
        m_threads.emplace_back(std::move(body));
        return true;
    } catch (const std::system_error&) {
        m_share.giveBackOne();
        m_isRefused = true;
        return false;
    }
}

void HelperThreads::join() {
    for (std::thread& thread : m_threads)
        thread.join();
    m_threads.clear();
}

unsigned workThreadCount() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, mostThreads);
}

int extraChunkCount() {
    return 2 * int(workThreadCount()) + 1;
}

SharedLimit& extraChunks() {
    static SharedLimit limit{extraChunkCount()};
    return limit;
}

SharedLimit& summaries() {
    static SharedLimit limit{int(workThreadCount())};
    return limit;
}

} // namespace orx::vonk
