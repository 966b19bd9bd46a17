#pragma once

#include "ChunkCursor.h"
#include "PackedBuffer.h"
#include "PackedIndex.h"

#include <Error.h>

#include <functional>
#include <thread>
#include <vector>

namespace orx::vonk {

//! One chunk on its way.
struct ChunkSlot {
    ChunkCursor::Piece piece;
    ChunkRow row;
    PackedBuffer content;
    PackedBuffer frame;
};

//! Chunks through four steps: made and used one after the other by the caller, worked on side by side, and
//! looked at in their order. Threads of its own and, when it would only wait, the caller take the two steps
//! in the middle. At most a bounded number of chunks is on its way.
struct ChunkPipeline {
    using Step = std::function<Error(ChunkSlot&)>;

    enum class Order {
        BesideWork, //!< inOrder looks at what was produced
        AfterWork   //!< inOrder looks at what the workers made of it
    };

    //! Caller's thread. Fills the next slot; false when there is none.
    std::function<Result<bool>(ChunkSlot&)> produce;
    //! Called at most once on each thread; what it returns works on slots there.
    std::function<Step()> makeWorker;
    //! Slot by slot and never two at once, on any thread; must not change what the workers change.
    Step inOrder;
    Order order = Order::AfterWork;
    //! Caller's thread, slot by slot, when the other steps are done with it.
    Step consume;

    //! The first error in the order of the chunks; no thread runs any more when it returns.
    Error run() const;
    //! How many threads share the work, the caller among them.
    static unsigned threadCount();
};

//! Adds a thread to those that share some work; false when the system allows no more, which leaves the work
//! to those there are.
bool startThread(std::vector<std::thread>& threads, std::function<void()> body);

} // namespace orx::vonk
