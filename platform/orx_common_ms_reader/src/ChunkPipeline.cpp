#include "ChunkPipeline.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace orx::vonk {

namespace {

//! More would not read or write any faster, and each needs memory.
constexpr unsigned mostWorkers = 6;

class Run {
public:
    explicit Run(const ChunkPipeline& steps)
        : m_steps(steps)
        , m_workers(std::clamp(std::thread::hardware_concurrency(), 1U, mostWorkers))
        , m_slots(2 * m_workers + 2) {}

    ~Run() {
        {
            const std::lock_guard lock(m_mutex);
            m_isEnding = true;
        }
        m_changed.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    Error run() {
        for (;; ++m_produced) {
            if (m_produced >= m_slots.size())
                ORX_RETURN_ON_ERROR(retire());
            const Result<bool> more = m_steps.produce(slotOf(m_produced).chunk);
            ORX_RETURN_ON_ERROR(more.error());
            if (!*more)
                break;
            publish();
        }
        while (m_retired < m_produced)
            ORX_RETURN_ON_ERROR(retire());
        return {};
    }

private:
    struct Slot {
        ChunkSlot chunk;
        Error workError;
        Error orderError;
        bool isWorked = false;
        bool isOrdered = false;
    };

    Slot& slotOf(size_t sequence) { return m_slots[sequence % m_slots.size()]; }

    void publish() {
        {
            const std::lock_guard lock(m_mutex);
            Slot& slot = slotOf(m_produced);
            slot.isWorked = slot.isOrdered = false;
            m_published = m_produced + 1;
        }
        m_changed.notify_all();
        if (m_threads.empty())
            m_threads.emplace_back([this] { serveInOrder(); });
        if (m_threads.size() <= m_workers)
            m_threads.emplace_back([this] { serveWork(); });
    }

    //! Uses the oldest chunk.
    Error retire() {
        Slot& slot = slotOf(m_retired++);
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, [&slot] { return slot.isWorked && slot.isOrdered; });
        }
        ORX_RETURN_ON_ERROR(slot.workError);
        ORX_RETURN_ON_ERROR(slot.orderError);
        return m_steps.consume(slot.chunk);
    }

    void serveWork() {
        const ChunkPipeline::Step work = m_steps.makeWorker();
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_isEnding || m_begun < m_published; });
            if (m_isEnding)
                return;
            Slot& slot = slotOf(m_begun++);
            lock.unlock();
            slot.workError = work(slot.chunk);
            lock.lock();
            slot.isWorked = true;
            m_changed.notify_all();
        }
    }

    void serveInOrder() {
        const bool waits = m_steps.order == ChunkPipeline::Order::AfterWork;
        std::unique_lock lock(m_mutex);
        for (size_t next = 0;; ++next) {
            m_changed.wait(lock, [&] {
                return m_isEnding || (next < m_published && (!waits || slotOf(next).isWorked));
            });
            if (m_isEnding)
                return;
            Slot& slot = slotOf(next);
            lock.unlock();
            // A chunk that could not be worked on holds nothing to look at.
            slot.orderError = waits && slot.workError.hasError() ? Error() : m_steps.inOrder(slot.chunk);
            lock.lock();
            slot.isOrdered = true;
            m_changed.notify_all();
        }
    }

    const ChunkPipeline& m_steps;
    const size_t m_workers;
    std::vector<Slot> m_slots;
    std::vector<std::thread> m_threads;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Of the caller.
    size_t m_produced = 0;
    size_t m_retired = 0;
    // Guarded by the mutex, like the flags of the slots.
    size_t m_published = 0;
    size_t m_begun = 0;
    bool m_isEnding = false;
};

} // namespace

Error ChunkPipeline::run() const {
    return Run(*this).run();
}

} // namespace orx::vonk
