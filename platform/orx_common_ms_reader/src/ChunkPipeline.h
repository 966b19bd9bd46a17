#pragma once

#include "ChunkCursor.h"
#include "PackedBuffer.h"
#include "PackedIndex.h"

#include <Error.h>

#include <functional>

namespace orx::vonk {

//! One chunk on its way.
struct ChunkSlot {
    ChunkCursor::Piece piece;
    ChunkRow row;
    PackedBuffer content;
    PackedBuffer frame;
};

//! Chunks through four steps: made and used one after the other by the caller, worked on side by side, and
//! looked at in their order. The caller, when it would only wait, and what there is of helping threads take
//! the two steps in the middle. Threads and chunks on their way are bounded for all pipelines of the process
//! together; each has its caller and one chunk, and so never waits for another one. What one does not use,
//! because it waits for its source or its target, serves others.
struct ChunkPipeline {
    using Step = std::function<Error(ChunkSlot&)>;

    enum class Order {
        BesideWork, //!< inOrder looks at what was produced
        AfterWork   //!< inOrder looks at what the workers made of it
    };

    //! Caller's thread. Fills the next slot; false when there is none.
    std::function<Result<bool>(ChunkSlot&)> produce;
    //! Called on any thread, for as many as work at a time; what it returns works on one slot at a time.
    std::function<Step()> makeWorker;
    //! Slot by slot and never two at once, on any thread; must not change what the workers change.
    Step inOrder;
    Order order = Order::AfterWork;
    //! Caller's thread, slot by slot, when the other steps are done with it.
    Step consume;

    //! The first error in the order of the chunks; no other thread is at it any more when it returns.
    Error run() const;
};

} // namespace orx::vonk
