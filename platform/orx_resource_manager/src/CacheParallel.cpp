#include "CacheParallel.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

namespace orx {

namespace {

//! More than there are processors: who waits for a directory to be read needs none.
constexpr size_t kThreads = 4;
//! Numbers that a thread takes at a time.
constexpr size_t kChunk = 8;

} // namespace

void inParallel(size_t count, const std::function<void(size_t)>& work) {
    std::atomic<size_t> next = 0;
    const auto serve = [&] {
        for (size_t begin = next.fetch_add(kChunk); begin < count; begin = next.fetch_add(kChunk))
            for (size_t i = begin; i < std::min(begin + kChunk, count); ++i)
                work(i);
    };
    std::vector<std::jthread> helpers;
    try {
        for (size_t helper = 1; helper < std::min(kThreads, (count + kChunk - 1) / kChunk); ++helper)
            helpers.emplace_back(serve);
    } catch (const std::system_error&) {
        // Without more threads the others do it.
    }
    serve();
}

} // namespace orx
