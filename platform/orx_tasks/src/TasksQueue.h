#pragma once

#include "GroupTask.h"

namespace orx {

//! Runs tasks that belong to nothing else, in the order in which they were added, a bounded number at a time.
//! A task counts until it is idle. Each is the root of a tree of its own: its groups have their own slots.
//! One that fails does not stop the others. Destroyed, the queue destroys its tasks without a signal.
//! Thread: that of the object.
class ORX_TASKS_EXPORT TasksQueue : public QObject {
    Q_OBJECT
public:
    using Continuation = GroupTask::Continuation;

    //! \a maximumRunning: at least 1.
    explicit TasksQueue(int maximumRunning, QObject* parent = nullptr);
    ~TasksQueue() override;

    //! Adopts \a task and starts it when its turn comes, at once when there is room. \a onFinished is called
    //! once with the task when it has finished, also when it was cancelled before it started; the task is
    //! deleted (as by deleteLater) after that, once idle. Null is logged and left out.
    void add(std::unique_ptr<BaseTask> task, Continuation onFinished = {});
    //! Cancels what runs and what waits, in this order; the queue goes on with what is added later.
    void cancel();
    //! Tasks that were added and are not both finished and idle.
    int pendingCount() const;

Q_SIGNALS:
    //! The last task has ended and is idle.
    void drained();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
