#include "SharedLimits.h"

#include <algorithm>
#include <thread>

namespace orx::vonk {

namespace {

//! More would not read or write any faster, and each needs memory.
constexpr unsigned mostThreads = 7;

} // namespace

bool SharedLimit::tryTake() {
    int left = m_left;
    while (left > 0) {
        if (m_left.compare_exchange_weak(left, left - 1))
            return true;
    }
    return false;
}

unsigned workThreadCount() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, mostThreads);
}

int extraChunkCount() {
    return 3 * int(workThreadCount()) + 1;
}

SharedLimit& summaries() {
    static SharedLimit limit{int(workThreadCount())};
    return limit;
}

} // namespace orx::vonk
