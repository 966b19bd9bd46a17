#include "WorkerPool.h"
#include "OwnerInbox.h"

#include <QPointer>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace orx {

namespace {

struct Order {
    WorkerPool::Job job;
    OwnerInbox::Call completion;
    std::shared_ptr<OwnerInbox> inbox;
};

//! Jobs mostly wait for disks, hence more threads than a small machine has processors.
int boundOfThreads() {
    return int(std::clamp(std::thread::hardware_concurrency(), 4u, 16u));
}

} // namespace

struct WorkerPool::Private {
    const int bound = boundOfThreads();
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Order> orders;
    std::vector<std::thread> threads;
    int idleThreads = 0;
    bool ending = false;

    void serve();
};

void WorkerPool::Private::serve() {
    std::unique_lock lock(mutex);
    for (;;) {
        ++idleThreads;
        changed.wait(lock, [this] { return ending || !orders.empty(); });
        --idleThreads;
        if (ending)
            return;
        Order order = std::move(orders.front());
        orders.pop_front();
        lock.unlock();
        order.job();
        order.job = nullptr;
        order.inbox->post(std::move(order.completion));
        order = {};
        lock.lock();
    }
}

WorkerPool& WorkerPool::instance() {
    static WorkerPool pool;
    return pool;
}

WorkerPool::WorkerPool() : d(new Private) {}

// What is shared stays, since another thread may be about to wake a worker; what nobody has begun is let go.
WorkerPool::~WorkerPool() {
    end();
    std::deque<Order> dropped;
    const std::lock_guard lock(d->mutex);
    dropped.swap(d->orders);
}

void WorkerPool::end() {
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(d->mutex);
        d->ending = true;
        threads.swap(d->threads);
    }
    d->changed.notify_all();
    for (std::thread& thread : threads)
        thread.join();
}

void WorkerPool::submit(Job job, QObject* context, std::function<void()> completion) {
    auto guarded = [hasContext = context != nullptr, guard = QPointer<QObject>(context),
                    completion = std::move(completion)] {
        if (completion && (!hasContext || guard))
            completion();
    };
    Order order{std::move(job), std::move(guarded), OwnerInbox::ofThisThread()};
    bool isAnyIdle = false;
    {
        const std::lock_guard lock(d->mutex);
        if (d->ending)
            return;
        d->orders.push_back(std::move(order));
        isAnyIdle = d->idleThreads > 0;
        if (d->orders.size() > size_t(d->idleThreads) && d->threads.size() < size_t(d->bound))
            d->threads.emplace_back([this] { d->serve(); });
    }
    // Who wakes up needs the mutex at once; who works looks for orders without being told.
    if (isAnyIdle)
        d->changed.notify_one();
}

int WorkerPool::threadCount() const {
    return d->bound;
}

} // namespace orx
