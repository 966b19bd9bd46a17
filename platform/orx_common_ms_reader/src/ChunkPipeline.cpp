#include "ChunkPipeline.h"

#include "SharedLimits.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace orx::vonk {

namespace {

//! Whoever has nothing else to do takes the next step that is due, the caller too: no thread of its own waits
//! for one kind of step, so that few processors are kept busy with few switches between threads.
class Run {
public:
    explicit Run(const ChunkPipeline& steps)
        : m_steps(steps), m_slots(1 + size_t(extraChunkCount())), m_extraChunks(extraChunks()) {}

    ~Run() {
        {
            const std::lock_guard lock(m_mutex);
            m_isEnding = true;
        }
        m_due.notify_all();
        m_helpers.join();
    }

    Error run() {
        for (;; ++m_produced) {
            while (!hasRoom())
                ORX_RETURN_ON_ERROR(retire());
            const Result<bool> more = m_steps.produce(nextSlot());
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

    bool hasRoom() {
        const size_t onTheWay = m_produced - m_retired;
        if (onTheWay <= size_t(m_extraChunks.taken()))
            return true;
        // One who works alone would do nothing with more.
        const size_t useful = m_helpers.count() == 0 ? 1 : 2 * m_helpers.count() + 4;
        return onTheWay < std::min(useful, m_slots.size()) && m_extraChunks.take();
    }

    //! Takes the memory of a chunk that is through, if there is one: only as many have any as were ever on
    //! their way at a time.
    ChunkSlot& nextSlot() {
        ChunkSlot& chunk = slotOf(m_produced).chunk;
        if (!m_spare.empty()) {
            chunk = std::move(m_spare.back());
            m_spare.pop_back();
        }
        return chunk;
    }

    void publish() {
        {
            const std::lock_guard lock(m_mutex);
            Slot& slot = slotOf(m_produced);
            slot.isWorked = slot.isOrdered = false;
            m_published = m_produced + 1;
        }
        m_due.notify_all();
        // Asked again with each chunk: others may have given back theirs.
        if (m_helpers.count() + 1 < workThreadCount())
            m_helpers.start([this] { serve(); });
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
        ORX_RETURN_ON_ERROR(m_steps.consume(slot.chunk));
        m_spare.push_back(std::move(slot.chunk));
        return {};
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
    std::vector<Slot> m_slots;
    std::mutex m_mutex;
    //! Threads wait on the first, the caller on the second.
    std::condition_variable m_due;
    std::condition_variable m_done;
    // Of the caller.
    ChunkPipeline::Step m_ownWork;
    HelperThreads m_helpers;
    LimitShare m_extraChunks;
    std::vector<ChunkSlot> m_spare;
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

Error ChunkPipeline::run() const {
    return Run(*this).run();
}

} // namespace orx::vonk
