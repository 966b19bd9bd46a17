#pragma once

#include "BaseTask_p.h"
#include "GroupTask.h"

#include <deque>
#include <list>
#include <memory>

namespace orx {

//! A task that belongs to another one, with its continuations.
struct Subtask {
    std::unique_ptr<BaseTask> task;
    GroupTask::Continuation onSuccess;
    GroupTask::Continuation onFailure;
    const void* owner = nullptr; //!< the set or the list that holds it
    std::list<Subtask>::iterator self;
    bool queued = false;     //!< in the set's queue of changes
    bool ended = false;      //!< finished, and its continuation has not been called for it
    bool lost = false;       //!< destroyed by somebody else before it had ended
    bool leftBehind = false; //!< of an earlier run of the owner
    enum class Slot {
        None, //!< not admitted by a group, or given back for good
        Held,
        Lent //!< given back for as long as somebody below waits for a person
    };
    Slot slot = Slot::None;
    int waits = 0; //!< for a person, while the slot is lent
};

//! Deletes \a task when control returns to the event loop, or when the thread ends. One deferred event serves
//! all the tasks that end in one turn: a pending event for each would make the destruction of many tasks
//! quadratic.
void disposeLater(std::unique_ptr<BaseTask> task);

//! The subtasks of a task that have been started and are not both finished and idle. Every operation costs
//! the same however many there are. Changes are worked off in order by one loop, so that subtasks which end
//! at once do not deepen the stack. May be destroyed within a continuation.
class SubtaskSet : public TaskObserver {
public:
    //! What the owner makes of it. The functions may destroy the set.
    struct Owner {
        //! A subtask has ended with an error, and its continuation was told (\a handled) or there was none.
        std::function<void(const Error& error, bool handled)> failed;
        //! What a subtask that succeeded warns of; called before its continuation.
        std::function<void(const Warnings& warnings)> warned;
        //! So many subtasks that held a slot have ended; called outside continuations only.
        std::function<void(int slots)> slotsFreed;
        //! The set may have become empty; called outside continuations only.
        std::function<void()> settled;
    };

    SubtaskSet(BaseTask* task, Owner owner);
    ~SubtaskSet() override;

    //! Starts the task of \a list's element and moves it here; cancels it first if \a canceled.
    void start(std::list<Subtask>& list, std::list<Subtask>::iterator subtask, bool canceled);
    //! Takes over a subtask of \a list that is being destroyed by somebody else.
    void lose(std::list<Subtask>& list, std::list<Subtask>::iterator subtask);
    //! The owner runs again: what fails of those that are here is no failure of the new run, and is logged.
    void beginRun();
    //! Cancels all that are here.
    void cancelAll();
    void requestStop();
    void awaitBodies();
    bool isEmpty() const { return m_subtasks.empty(); }
    //! No continuation is running and no change is waiting.
    bool isSettled() const { return m_depth == 0 && m_changes.empty(); }
    int heldSlots() const;
    qsizetype size() const { return qsizetype(m_subtasks.size()); }

    //! The record of a task that belongs to a set or list of subtasks; null when it belongs to none.
    static Subtask* recordOf(const BaseTask* task);
    //! Puts \a task at the end of \a list, which belongs to \a owner.
    static std::list<Subtask>::iterator enlist(std::list<Subtask>& list, const void* owner,
                                               std::unique_ptr<BaseTask> task,
                                               GroupTask::Continuation onSuccess,
                                               GroupTask::Continuation onFailure);

private:
    void taskFinished(BaseTask* task) override;
    void taskIdle(BaseTask* task) override;
    void taskCanceledEarly(BaseTask*) override {}
    void taskDestroyed(BaseTask* task) override;
    void enqueue(Subtask& subtask);
    void work();
    bool workOff(Subtask& subtask);
    bool tell(Subtask& subtask);
    void report(const Error& error, bool told, bool leftBehind);
    bool forget(Subtask& subtask);
    void retire(Subtask& subtask);
    void releaseSlot(Subtask& subtask);

    BaseTask* const m_task;
    Owner m_owner;
    std::list<Subtask> m_subtasks;
    std::deque<Subtask*> m_changes;
    int m_freedSlots = 0;
    int m_depth = 0; //!< while above zero, changes wait for the loop that will work them off
    std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace orx
