#pragma once

#include "orx_common_ms_reader_export.h"

#include <QtGlobal>

#include <functional>
#include <memory>

namespace orx::vonk {

struct TurnWish;

//! Leave to pack on a worker of the pool: as many packings as half of the pool has workers, so that packings
//! leave the other half to everything else, and no more than summaries are made at a time, so that none waits
//! for that. Given back when it is destroyed. Thread: any.
class ORX_COMMON_MS_READER_EXPORT PackingTurn {
public:
    static int count();
    //! First come, first served, and without a thread.
    static void ask(const std::shared_ptr<TurnWish>& wish);

    ~PackingTurn();
    Q_DISABLE_COPY_MOVE(PackingTurn)

private:
    PackingTurn() = default;
    static void serve();
};

//! What somebody waits for. The waiting ends with the object, which only who waits keeps.
struct ORX_COMMON_MS_READER_EXPORT TurnWish {
    //! Called once, on any thread: mostly that of who gives a turn back.
    std::function<void(const std::shared_ptr<PackingTurn>&)> given;
};

} // namespace orx::vonk
