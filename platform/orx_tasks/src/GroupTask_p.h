#pragma once

#include "Admission.h"
#include "SubtaskSet.h"

namespace orx {

struct GroupTask::Private : TaskObserver {
    explicit Private(GroupTask* task);
    ~Private() override;

    //! Adopts without starting.
    void add(std::unique_ptr<BaseTask> task, Continuation onSuccess, Continuation onFailure);
    void adopt(std::list<Subtask>& subtasks);
    //! Brings the finished group back to running.
    void reopen();
    //! Puts what was added in line, or ends it when the group was cancelled or stopped.
    void startAdded();
    //! The slots of the tree this group belongs to.
    const std::shared_ptr<Admission>& treeAdmission();
    //! Starts the child at the head of the line; false when there is none.
    bool startNext();
    //! Whatever has not started is to end as cancelled.
    bool isStopped() const;
    //! Ends all that stand in line as cancelled. Returns false when the group was destroyed meanwhile.
    bool endQueued();
    void onChildFailed(const Error& error);
    void onSlotsFreed(int slots);
    //! Finishes the group when nothing is left to do.
    void settle();

    // Of children that stand in line:
    void taskFinished(BaseTask*) override {}
    void taskIdle(BaseTask*) override {}
    void taskCanceledEarly(BaseTask* task) override;
    void taskDestroyed(BaseTask* task) override;

    struct Guest : Admission::Guest {
        explicit Guest(Private* group) : d(group) {}
        bool admitted() override { return d && d->startNext(); }
        Private* d; //!< null when the group is gone
    };

    GroupTask* const q;
    ChildFailurePolicy policy = ChildFailurePolicy::StopOnFirstFailure;
    int breadth = defaultBreadth;
    std::shared_ptr<Admission> admission; //!< from the first start of a child
    std::shared_ptr<Guest> guest = std::make_shared<Guest>(this);
    std::list<Subtask> added;  //!< before the group runs, or for its next run
    std::list<Subtask> queued; //!< in line for a slot
    SubtaskSet running;
    Error firstError;
    bool opened = false;   //!< the run has come to its children
    bool awaiting = false; //!< reopened, and nothing was started since
    bool ending = false;   //!< those in line are being ended
    bool stopping = false; //!< a failure ended the run: whatever remains is cancelled
};

} // namespace orx
