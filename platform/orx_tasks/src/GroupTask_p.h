#pragma once

#include "SubtaskSet.h"

namespace orx {

struct GroupTask::Private {
    explicit Private(GroupTask* task);
    ~Private();

    //! Adopts without starting.
    void add(std::unique_ptr<BaseTask> task, Continuation onSuccess, Continuation onFailure);
    void adopt(std::list<Subtask>& subtasks);
    //! Brings the finished group back to running.
    void reopen();
    //! Starts what waits, in order, until nothing does; what is added meanwhile is started by the same loop.
    void startWaiting();
    void onChildFailed(const Error& error);
    //! Finishes the group when nothing is left to do.
    void settle();

    GroupTask* const q;
    ChildFailurePolicy policy = ChildFailurePolicy::StopOnFirstFailure;
    std::list<Subtask> waiting;
    SubtaskSet running;
    Error firstError;
    bool opened = false;   //!< the run has come to its children
    bool awaiting = false; //!< reopened, and nothing was started since
    bool starting = false; //!< startWaiting() is at work
    bool stopping = false; //!< a failure ended the run: whatever remains is cancelled
};

} // namespace orx
