#include "PackingTurn.h"

#include "SharedLimits.h"

#include <WorkerPool.h>

#include <algorithm>
#include <deque>
#include <mutex>

namespace orx::vonk {

namespace {

struct Line {
    std::mutex mutex;
    int free = PackingTurn::count();
    std::deque<std::weak_ptr<TurnWish>> wishes;
};

Line& line() {
    // Never destroyed: a turn may be given back while the program ends.
    static Line& only = *new Line;
    return only;
}

//! With the turn taken; null when there is none, or nobody who waits.
std::shared_ptr<TurnWish> takeFirst() {
    const std::lock_guard lock(line().mutex);
    while (line().free > 0 && !line().wishes.empty()) {
        auto first = line().wishes.front().lock();
        line().wishes.pop_front();
        if (!first)
            continue;
        --line().free;
        return first;
    }
    return nullptr;
}

} // namespace

int PackingTurn::count() {
    return std::clamp(WorkerPool::instance().threadCount() / 2, 1, int(workThreadCount()));
}

void PackingTurn::ask(const std::shared_ptr<TurnWish>& wish) {
    {
        const std::lock_guard lock(line().mutex);
        line().wishes.push_back(wish);
    }
    serve();
}

void PackingTurn::serve() {
    while (const auto first = takeFirst())
        first->given(std::shared_ptr<PackingTurn>(new PackingTurn));
}

PackingTurn::~PackingTurn() {
    {
        const std::lock_guard lock(line().mutex);
        ++line().free;
    }
    serve();
}

} // namespace orx::vonk
