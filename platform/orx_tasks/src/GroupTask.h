#pragma once

#include "Task.h"

#include <functional>

namespace orx {

//! Runs child tasks side by side. Finishes when every child has ended, its continuation has returned and it
//! is idle; at once when there is none. An empty group succeeds. The bookkeeping costs the same for every
//! child, however many there are, and children that end inside their exec() do not deepen the stack.
//!
//! The warnings of children that succeed become warnings of the group.
//!
//! Breadth: a child starts when it gets one of the slots of the tree of nested groups, first come, first
//! served over the whole tree, whose outermost group says how many there are. It gives the slot back when it
//! ends, or for good when it, or a step of it, starts children in a group of its own; a wait for a person, or
//! a long one for others, lends it to others (BaseTask::lendSlot()). So groups may be nested to any depth. A
//! child that is cancelled while it is in line ends at once. A task that is executed by itself, or as a step,
//! needs no slot.
//!
//! Cancelled (also before it started), it cancels the children that run and those in line; each gets its
//! failure continuation before the group finishes. Whatever is added after that ends in the same way.
class ORX_TASKS_EXPORT GroupTask : public Task {
    Q_OBJECT
public:
    //! What the failure of one child means for the others. The values are fixed.
    enum class ChildFailurePolicy : int {
        //! Queued children never start and running ones are cancelled; each of them gets its failure
        //! continuation with isCanceled() true before the group finishes with the first real error.
        StopOnFirstFailure = 0,
        //! All children run; the group then ends with the error of the child that failed first.
        RunAll = 1
    };
    Q_ENUM(ChildFailurePolicy)

    //! Transfers of single files that keep a few files and connections open each, below common limits.
    static constexpr int defaultBreadth = 16;

    //! Called on the owner's thread with the child that has ended, once per run of it; before addTask() has
    //! returned when the child ends within its exec(). Anything captured lives until the child is done.
    using Continuation = std::function<void(BaseTask*)>;

    explicit GroupTask(QObject* parent = nullptr);
    explicit GroupTask(const QString& name, QObject* parent = nullptr);
    ~GroupTask() override;

    void setChildFailurePolicy(ChildFailurePolicy policy);
    ChildFailurePolicy childFailurePolicy() const;

    //! The most children that run at a time in the whole tree of groups below this one; of the outermost
    //! group of a tree only, and before it starts a child. At least 1.
    void setBreadth(int slots);
    int breadth() const;

    //! Adopts \a task. It gets in line with the start of the group, or at once when the group is running;
    //! kept for a restart when it has finished. The child is deleted (as by deleteLater) after its
    //! continuation, once idle; pending ones with the group.
    void addTask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {}, Continuation onFailure = {});
    //! Children that were added and are not both ended and idle, those in line included.
    int pendingCount() const;
    bool isIdle() const override;
    //! Brings the finished group back to running, with what was added since. Without any it stays running
    //! until children were added and have ended. Children that the last run left behind (it was ended by
    //! finish()) are waited for; what fails of them is only logged. A group is restarted by the complex task
    //! it belongs to.
    void restart();

protected:
    void start() override;
    void runCanceled() override;
    void cancelDescendants() override;
    void requestStop() override;
    void awaitBody() override;

private:
    friend class ComplexTask;
    friend class TreeSlots;
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
