#pragma once

#include "orx_tasks_export.h"

#include <QObject>

#include <functional>

namespace orx {

//! A bounded pool of worker threads for everything that waits for a disk or computes: hashing, copying,
//! reading. First come, first served. Thread: any for submit(); the completion runs on the thread that called
//! submit().
class ORX_TASKS_EXPORT WorkerPool {
public:
    using Job = std::function<void()>;

    //! The pool of the process. Its threads end when the process does, after the jobs that run; jobs that
    //! have not begun are dropped.
    static WorkerPool& instance();

    //! Runs \a job on a worker, then \a completion on the calling thread, whose inbox wakes its event loop;
    //! never before submit() has returned. What the job holds is released before that. When \a context is
    //! gone by then, the completion is dropped. \a context may be null (always called) and must belong to the
    //! calling thread. A job must not wait for another job, nor for the thread that submitted it.
    void submit(Job job, QObject* context, std::function<void()> completion);
    //! Ends the threads as the end of the process does, only sooner; what is submitted afterwards is dropped.
    //! For who uses in jobs what a library cleans up at exit: call instance(), then register this by
    //! std::atexit() after that library was initialised, and it runs before the clean-up.
    void end();
    //! The most jobs that run at one time.
    int threadCount() const;

private:
    WorkerPool();
    ~WorkerPool();
    struct Private;
    Private* d;
};

} // namespace orx
