// Chunks of several pipelines share the helping threads and the memory of the process.
#include "ChunkPipeline.h"
#include "SharedLimits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <latch>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

using namespace orx;
using namespace orx::vonk;

namespace {

//! A number that others wait for.
class Count {
public:
    void add() {
        const std::lock_guard lock(m_mutex);
        ++m_value;
        m_changed.notify_all();
    }
    void waitFor(int value) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_value >= value; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_value = 0;
};

//! A pipeline of so many chunks that counts those on their way.
class Chunks {
public:
    explicit Chunks(int count) : m_count(count) {
        pipeline.produce = [this](ChunkSlot& slot) -> Result<bool> {
            if (m_made == m_count)
                return false;
            beforeChunk(m_made++);
            slot.content.resize(1);
            slot.content.data()[0] = char(m_made);
            const int now = ++m_now;
            m_most = std::max(m_most, now);
            return true;
        };
        pipeline.makeWorker = [this] {
            return [this](ChunkSlot& slot) {
                atWork();
                slot.frame.assign(slot.content.bytes());
                return Error();
            };
        };
        pipeline.inOrder = [this](ChunkSlot& slot) {
            looksAt(uchar(slot.content.bytes()[0]) - 1);
            return Error();
        };
        pipeline.consume = [this](ChunkSlot& slot) {
            --m_now;
            EXPECT_EQ(slot.frame.bytes()[0], char(++m_used));
            return Error();
        };
    }
    void run() {
        m_caller = std::this_thread::get_id();
        EXPECT_FALSE(pipeline.run().hasError());
        EXPECT_EQ(m_used, m_count);
    }
    int made() const { return m_made; }
    //! Of run(); a helping thread else.
    bool isCaller() const { return std::this_thread::get_id() == m_caller; }
    //! The most that were on their way at a time.
    int most() const { return m_most; }

    std::function<void(int chunk)> beforeChunk = [](int) {};
    std::function<void()> atWork = [] {};
    std::function<void(int chunk)> looksAt = [](int) {};
    ChunkPipeline pipeline;

private:
    const int m_count;
    std::thread::id m_caller;
    std::atomic<int> m_made = 0;
    int m_now = 0;
    int m_most = 0;
    int m_used = 0;
};

constexpr int kMany = 12;

//! Who has all the chunks that it may have goes to work itself, unless all are at work already: no chunk is
//! done before as many have as there are without those that helping threads keep from it.
TEST(ChunkPipelines, HaveABoundedNumberOfChunksOnTheirWay) {
    Count callersAtWork;
    std::atomic<int> onTheWay = 0;
    std::atomic<int> most = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < kMany; ++i)
        threads.emplace_back([&] {
            Chunks chunks(100);
            bool isFirst = true;
            chunks.beforeChunk = [&](int) {
                int highest = most;
                const int now = ++onTheWay;
                while (now > highest && !most.compare_exchange_weak(highest, now)) {
                }
            };
            chunks.atWork = [&] {
                if (chunks.isCaller() && std::exchange(isFirst, false))
                    callersAtWork.add();
                callersAtWork.waitFor(kMany - int(workThreadCount()) + 1);
            };
            const auto consume = chunks.pipeline.consume;
            chunks.pipeline.consume = [&](ChunkSlot& slot) {
                --onTheWay;
                return consume(slot);
            };
            chunks.run();
        });
    threads.clear();
    EXPECT_LE(most, kMany + extraChunkCount());
    EXPECT_GT(most, kMany);
}

TEST(ChunkPipelines, ThatWaitForTheirSourceLeaveTheirHelpersToOthers) {
    std::latch end(1);
    std::latch waits(1);
    Chunks slow(6);
    slow.beforeChunk = [&](int chunk) {
        if (chunk < 5)
            return;
        waits.count_down();
        end.wait();
    };
    std::jthread caller([&] { slow.run(); });
    waits.wait();
    // Nobody gets on before all threads that there are have a chunk of it.
    Chunks fast(200);
    Count threads;
    std::mutex mutex;
    std::set<std::thread::id> seen;
    fast.atWork = [&] {
        {
            const std::lock_guard lock(mutex);
            if (seen.insert(std::this_thread::get_id()).second)
                threads.add();
        }
        threads.waitFor(int(workThreadCount()));
    };
    fast.run();
    EXPECT_EQ(seen.size(), workThreadCount());
    end.count_down();
}

// Where the end of the one missed the beginning of the other, this would never end.
TEST(ChunkPipelines, EndAlsoWhenAnotherOneBeginsJustThenAndWaitsForItsSource) {
    for (int i = 0; i < 300; ++i) {
        std::latch lastChunk(1);
        std::latch hasEnded(1);
        Chunks ends(6);
        ends.looksAt = [&](int chunk) {
            if (chunk == 5)
                lastChunk.count_down();
        };
        Chunks begins(2);
        begins.beforeChunk = [&](int) { hasEnded.wait(); };
        std::jthread other([&] {
            lastChunk.wait();
            for (int turn = 0; turn < i % 20; ++turn)
                std::this_thread::yield();
            begins.run();
        });
        ends.run();
        hasEnded.count_down();
    }
}

TEST(ChunkPipelines, LeaveHalfOfTheChunksToOthers) {
    std::latch end(1);
    std::latch hasAll(1);
    Chunks slow(100);
    bool isFirst = true;
    slow.atWork = [&] {
        if (slow.isCaller() && std::exchange(isFirst, false))
            hasAll.count_down();
        end.wait();
    };
    std::jthread caller([&] { slow.run(); });
    hasAll.wait();
    const int taken = slow.made() - 1;
    EXPECT_EQ(taken, (extraChunkCount() + 1) / 2);

    std::latch hasHalfOfThose(1);
    Chunks other(100);
    bool isOthersFirst = true;
    other.atWork = [&] {
        if (other.isCaller() && std::exchange(isOthersFirst, false))
            hasHalfOfThose.count_down();
        hasHalfOfThose.wait();
    };
    other.run();
    EXPECT_EQ(other.most(), 1 + (extraChunkCount() - taken + 1) / 2);
    end.count_down();
}

//! The source gives a chunk when the one before was done in all but the last step.
TEST(ChunkPipelines, KeepNoChunkThatIsDoneWhenTheirSourceIsSlow) {
    Chunks slow(50);
    Count looked;
    slow.looksAt = [&](int) { looked.add(); };
    slow.beforeChunk = [&](int chunk) { looked.waitFor(chunk); };
    slow.run();
    EXPECT_LE(slow.most(), 3);
}

} // namespace
