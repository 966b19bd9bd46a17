#pragma once

#include "GroupTask.h"

namespace orx {

//! A task made of subtasks that add one another: initialize() starts the first, the continuation of each
//! starts the next. The task finishes by itself when its last subtask has ended, its continuation has
//! returned, and nothing more was added (at once after an initialize() that added nothing).
//!
//! Failure of a subtask started by execSubtask(): with a failure continuation the failure is handed to it and
//! is handled there; without one the complex task ends with the subtask's error. Failure of one started
//! through execSubtasks(): its failure continuation is told, then the group's child failure policy decides
//! (see GroupTask). Continuations are called on the owner's thread, also after finish(), as long as the task
//! object lives.
//!
//! A complex task emits no progress of its own accord.
class ORX_TASKS_EXPORT ComplexTask : public Task {
    Q_OBJECT
public:
    using Continuation = GroupTask::Continuation;

    explicit ComplexTask(const QString& name = QString(), QObject* parent = nullptr);
    ~ComplexTask() override;

    bool isIdle() const override;

protected:
    //! Adopts \a task and starts it at once. The raw-pointer form takes ownership too. \a task must have no
    //! parent that deletes it.
    void execSubtask(BaseTask* task, Continuation onSuccess = {}, Continuation onFailure = {});
    void execSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {},
                     Continuation onFailure = {});
    //! The typed form: the continuation gets the subtask as what it is.
    template <typename T, typename OnSuccess>
    requires std::is_invocable_v<OnSuccess, T*>
    void execSubtask(std::unique_ptr<T> task, OnSuccess onSuccess) {
        T* raw = task.get();
        // A bare lambda would choose this template again, without end.
        execSubtask(std::unique_ptr<BaseTask>(std::move(task)),
                    Continuation([raw, next = std::move(onSuccess)](BaseTask*) { next(raw); }));
    }
    //! Adopts \a task without starting it: it waits for execSubtasks().
    void appendSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {},
                       Continuation onFailure = {});
    //! Hands all appended subtasks to the group task together.
    void execSubtasks();

    //! The group that runs the appended subtasks; owned by this task; never null.
    GroupTask* groupTask() const;
    //! Replaces the group before anything was appended. Takes ownership.
    void setGroupTask(std::unique_ptr<GroupTask> group);
    //! Brings the finished task and its group back to running.
    void restartWithGroup();

    void start() override;
    void doCancel() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
