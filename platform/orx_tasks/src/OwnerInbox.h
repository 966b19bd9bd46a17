#pragma once

#include "orx_tasks_export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace orx {

//! Where workers leave calls for one thread: a mutex-guarded list with an eventfd, which a socket notifier of
//! that thread's event loop watches, and which a blocking wait empties without an event loop. One per thread,
//! made on first use.
class ORX_TASKS_EXPORT OwnerInbox {
public:
    using Call = std::function<void()>;

    //! The inbox of the calling thread; it may be posted to as long as anybody holds it; calls left for a
    //! thread that has ended are dropped.
    static std::shared_ptr<OwnerInbox> ofThisThread();
    ~OwnerInbox();

    //! Thread: any.
    void post(Call call);
    //! Thread: the owner. Runs what is there, in order; returns whether there was anything.
    bool drain();
    //! Thread: the owner. Processes this thread's events (with an event loop where the thread has a
    //! dispatcher) and calls until \a done is true or the time is up; returns done(). No timeout means no
    //! limit.
    bool waitUntil(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> timeout);

private:
    OwnerInbox();
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
