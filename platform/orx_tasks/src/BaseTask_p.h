#pragma once

#include "BaseTask.h"

#include <atomic>

namespace orx {

//! What a task tells the one it belongs to. Not by signals: a task has at most one such owner, must reach it
//! with blocked signals too, and there may be very many tasks.
class TaskObserver {
public:
    virtual void taskFinished(BaseTask* task) = 0;
    virtual void taskIdle(BaseTask* task) = 0;
    //! \a task was cancelled before it was executed.
    virtual void taskCanceledEarly(BaseTask* task) = 0;
    //! \a task is being destroyed; only its address may be used.
    virtual void taskDestroyed(BaseTask* task) = 0;

protected:
    virtual ~TaskObserver() = default;
};

struct BaseTask::Private {
    QString name;
    QVariant result;
    TaskObserver* observer = nullptr;
    void* subtask = nullptr;   //!< the observer's record of this task
    BaseTask* owner = nullptr; //!< the task that started this one as a subtask
    State state = State::Created;
    bool finishing = false;
    bool idleReported = false;
    int run =
        0; //!< counts restarts, so that what comes after a signal knows whether the run is still its own
    std::atomic<bool> cancelRequested = false;
};

} // namespace orx
