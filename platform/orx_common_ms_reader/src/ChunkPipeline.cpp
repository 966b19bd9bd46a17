#include "ChunkPipeline.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <system_error>

namespace orx::vonk {

namespace {

//! More would not read or write any faster, and each needs memory.
constexpr unsigned mostThreads = 7;

//! Whoever has nothing else to do takes the next step that is due, the caller too: no thread of its own waits
//! for one kind of step, so that few processors are kept busy with few switches between threads.
class Run {
public:
    explicit Run(const ChunkPipeline& steps)
        : m_steps(steps), m_helpers(ChunkPipeline::threadCount() - 1), m_slots(2 * m_helpers + 4) {}

    ~Run() {
        {
            const std::lock_guard lock(m_mutex);
            m_isEnding = true;
        }
        m_due.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    Error run() {
        for (;; ++m_produced) {
            if (m_produced - m_retired == m_slots.size())
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
    using Lock = std::unique_lock<std::mutex>;

    struct Slot {
        ChunkSlot chunk;
        Error workError;
        Error orderError;
        bool isWorked = false;
        bool isOrdered = false;

        bool isDone() const { return isWorked && isOrdered; }
    };

    Slot& slotOf(size_t sequence) { return m_slots[sequence % m_slots.size()]; }

    void publish() {
        {
            const std::lock_guard lock(m_mutex);
            Slot& slot = slotOf(m_produced);
            slot.isWorked = slot.isOrdered = false;
            m_published = m_produced + 1;
        }
        m_due.notify_all();
        if (m_threads.size() < m_helpers && !startThread(m_threads, [this] { serve(); }))
            m_helpers = m_threads.size();
    }

    //! Uses the oldest chunk; helps until it is done.
    Error retire() {
        Slot& slot = slotOf(m_retired);
        {
            Lock lock(m_mutex);
            while (!slot.isDone()) {
                if (!takeStep(lock, m_ownWork))
                    m_done.wait(lock);
            }
            // What its own step made due is for others now.
            if (isOrderDue() || m_begun < m_published)
                m_due.notify_one();
        }
        ++m_retired;
        ORX_RETURN_ON_ERROR(slot.workError);
        ORX_RETURN_ON_ERROR(slot.orderError);
        return m_steps.consume(slot.chunk);
    }

    void serve() {
        ChunkPipeline::Step work;
        Lock lock(m_mutex);
        while (!m_isEnding) {
            if (!takeStep(lock, work))
                m_due.wait(lock);
        }
    }

    //! False when none is due. The lock is not held meanwhile. \a work is made when it is needed.
    bool takeStep(Lock& lock, ChunkPipeline::Step& work) {
        if (isOrderDue())
            lookInOrder(lock);
        else if (m_begun < m_published)
            workOn(lock, work);
        else
            return false;
        return true;
    }

    bool isOrderDue() {
        const bool waits = m_steps.order == ChunkPipeline::Order::AfterWork;
        return !m_isOrdering && m_ordered < m_published && (!waits || slotOf(m_ordered).isWorked);
    }

    void lookInOrder(Lock& lock) {
        Slot& slot = slotOf(m_ordered);
        // A chunk that could not be worked on holds nothing to look at.
        const bool isEmpty = m_steps.order == ChunkPipeline::Order::AfterWork && slot.workError.hasError();
        m_isOrdering = true;
        lock.unlock();
        Error error = isEmpty ? Error() : m_steps.inOrder(slot.chunk);
        lock.lock();
        slot.orderError = std::move(error);
        slot.isOrdered = true;
        m_isOrdering = false;
        ++m_ordered;
        if (slot.isDone())
            m_done.notify_one();
    }

    void workOn(Lock& lock, ChunkPipeline::Step& work) {
        Slot& slot = slotOf(m_begun++);
        lock.unlock();
        if (!work)
            work = m_steps.makeWorker();
        Error error = work(slot.chunk);
        lock.lock();
        slot.workError = std::move(error);
        slot.isWorked = true;
        if (slot.isDone())
            m_done.notify_one();
    }

    const ChunkPipeline& m_steps;
    size_t m_helpers;
    std::vector<Slot> m_slots;
    std::vector<std::thread> m_threads;
    std::mutex m_mutex;
    //! Threads wait on the first, the caller on the second.
    std::condition_variable m_due;
    std::condition_variable m_done;
    // Of the caller.
    ChunkPipeline::Step m_ownWork;
    size_t m_produced = 0;
    size_t m_retired = 0;
    // Guarded by the mutex, like the flags of the slots.
    size_t m_published = 0;
    size_t m_begun = 0;
    size_t m_ordered = 0;
    bool m_isOrdering = false;
    bool m_isEnding = false;
};

} // namespace

unsigned ChunkPipeline::threadCount() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, mostThreads);
}

bool startThread(std::vector<std::thread>& threads, std::function<void()> body) {
    try {
        threads.emplace_back(std::move(body));
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

Error ChunkPipeline::run() const {
    return Run(*this).run();
}

} // namespace orx::vonk
