#include "ChunkPipeline.h"

#include "HelperThreads.h"
#include "SharedLimits.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace orx::vonk {

namespace {

//! The extra chunks of the process that are on no way. Their memory is kept as long as anybody works.
struct SpareChunks {
    std::mutex mutex;
    int left = extraChunkCount();
    int users = 0;
    std::vector<ChunkSlot> memory;
};

SpareChunks& spareChunks() {
    static SpareChunks& only = *new SpareChunks;
    return only;
}

//! What one run has of them.
class ChunkShare {
public:
    ChunkShare() {
        const std::lock_guard lock(spareChunks().mutex);
        ++spareChunks().users;
    }
    ~ChunkShare() {
        std::vector<ChunkSlot> unused;
        const std::lock_guard lock(spareChunks().mutex);
        spareChunks().left += m_taken;
        if (--spareChunks().users == 0)
            unused.swap(spareChunks().memory);
    }
    Q_DISABLE_COPY_MOVE(ChunkShare)

    //! None when fewer would be left for others than this one has.
    std::optional<ChunkSlot> take() {
        const std::lock_guard lock(spareChunks().mutex);
        if (spareChunks().left <= m_taken)
            return std::nullopt;
        --spareChunks().left;
        ++m_taken;
        std::optional<ChunkSlot> chunk(std::in_place);
        if (!spareChunks().memory.empty()) {
            chunk = std::move(spareChunks().memory.back());
            spareChunks().memory.pop_back();
        }
        return chunk;
    }
    //! False when none is to be given back.
    bool giveBack(ChunkSlot& chunk) {
        if (m_taken == 0)
            return false;
        const std::lock_guard lock(spareChunks().mutex);
        ++spareChunks().left;
        --m_taken;
        spareChunks().memory.push_back(std::move(chunk));
        return true;
    }

private:
    int m_taken = 0;
};

//! Whoever has nothing else to do takes the next step that is due, the caller too: no thread of its own waits
//! for one kind of step, so that few processors are kept busy with few switches between threads.
class Run final : HelpedWork {
public:
    explicit Run(const ChunkPipeline& steps)
        : m_steps(steps), m_slots(1 + size_t(extraChunkCount())), m_own(std::in_place), m_helpers(*this) {}

    Error run() {
        for (;; ++m_produced) {
            // What is done waits no longer than for one chunk of the source.
            while (isFirstDone() || !takeChunk())
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

    bool isFirstDone() {
        const Lock lock(m_mutex);
        return m_retired < m_produced && slotOf(m_retired).isDone();
    }

    //! For the next slot: its own, or one of those that there are for all.
    bool takeChunk() {
        auto chunk = m_own ? std::exchange(m_own, std::nullopt) : m_share.take();
        if (!chunk)
            return false;
        slotOf(m_produced).chunk = std::move(*chunk);
        return true;
    }

    void publish() {
        {
            const Lock lock(m_mutex);
            Slot& slot = slotOf(m_produced);
            slot.isWorked = slot.isOrdered = false;
            m_published = m_produced + 1;
        }
        m_helpers.call();
    }

    //! Uses the oldest chunk; helps until it is done.
    Error retire() {
        Slot& slot = slotOf(m_retired);
        if (helpUntilDone(slot))
            m_helpers.call();
        ++m_retired;
        ORX_RETURN_ON_ERROR(slot.workError);
        ORX_RETURN_ON_ERROR(slot.orderError);
        ORX_RETURN_ON_ERROR(m_steps.consume(slot.chunk));
        if (!m_share.giveBack(slot.chunk))
            m_own = std::move(slot.chunk);
        return {};
    }

    //! Whether a step is due then, which is for others.
    bool helpUntilDone(const Slot& slot) {
        Lock lock(m_mutex);
        while (!slot.isDone()) {
            if (!takeStep(lock))
                m_done.wait(lock);
        }
        return isOrderDue() || m_begun < m_published;
    }

    // What comes after its step at once is taken with it: the caller may be waiting for that.
    bool help() override {
        Lock lock(m_mutex);
        if (!takeStep(lock))
            return false;
        while (isOrderDue())
            lookInOrder(lock);
        return true;
    }

    //! False when none is due. The lock is not held meanwhile.
    bool takeStep(Lock& lock) {
        if (isOrderDue())
            lookInOrder(lock);
        else if (m_begun < m_published)
            workOn(lock);
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

    void workOn(Lock& lock) {
        Slot& slot = slotOf(m_begun++);
        ChunkPipeline::Step work;
        if (!m_idleWorkers.empty()) {
            work = std::move(m_idleWorkers.back());
            m_idleWorkers.pop_back();
        }
        lock.unlock();
        if (!work)
            work = m_steps.makeWorker();
        Error error = work(slot.chunk);
        lock.lock();
        m_idleWorkers.push_back(std::move(work));
        slot.workError = std::move(error);
        slot.isWorked = true;
        if (slot.isDone())
            m_done.notify_one();
    }

    const ChunkPipeline& m_steps;
    std::vector<Slot> m_slots;
    std::mutex m_mutex;
    //! The caller waits for it.
    std::condition_variable m_done;
    // Of the caller.
    std::optional<ChunkSlot> m_own;
    ChunkShare m_share;
    size_t m_produced = 0;
    size_t m_retired = 0;
    // Guarded by the mutex, like the flags of the slots.
    std::vector<ChunkPipeline::Step> m_idleWorkers;
    size_t m_published = 0;
    size_t m_begun = 0;
    size_t m_ordered = 0;
    bool m_isOrdering = false;
    //! Gone before all that the helping threads use.
    HelpLine m_helpers;
};

} // namespace

Error ChunkPipeline::run() const {
    return Run(*this).run();
}

} // namespace orx::vonk
