#pragma once

#include "GroupTask.h"

#include <type_traits>

namespace orx {

//! A task made of subtasks that add one another: initialize() starts the first, the continuation of each
//! starts the next. The task finishes by itself when its last subtask has ended, its continuation has
//! returned, and nothing more was added (at once after an initialize() that added nothing).
//!
//! Failure of a subtask started by execSubtask(): with a failure continuation the failure is handed to it and
//! is handled there; without one the complex task ends at once with the subtask's error, and the others go
//! on. Failure of one started through execSubtasks(): its failure continuation is told, then the group's
//! child failure policy decides (see GroupTask); the complex task ends with the group's error. A failure that
//! comes when the task has finished is logged.
//!
//! The warnings of subtasks that succeed become warnings of the complex task, before their continuations are
//! called; those of one that fails go with its error.
//!
//! Continuations are called on the owner's thread, also after finish(), as long as the task object lives. One
//! of a subtask that ends within its exec() is called before execSubtask() or execSubtasks() returns; but
//! what the continuation of a step starts as a further step, or that of a group's child in the group, is
//! continued when that continuation has returned.
//!
//! Cancelled, it cancels its subtasks, tells their failure continuations and finishes when they have ended.
//! Whatever is started after that is cancelled before it runs: a failure continuation that tries again asks
//! isCanceled().
//!
//! A complex task emits no progress of its own accord. Its doExec() is not used.
class ORX_TASKS_EXPORT ComplexTask : public Task {
    Q_OBJECT
public:
    using Continuation = GroupTask::Continuation;

    explicit ComplexTask(const QString& name = QString(), QObject* parent = nullptr);
    ~ComplexTask() override;

    bool isIdle() const override;

protected:
    //! Adopts \a task and starts it at once. The raw-pointer form takes ownership too. A task that was
    //! appended is started in the group with the continuations it was appended with (those given here replace
    //! them).
    void execSubtask(BaseTask* task, Continuation onSuccess = {}, Continuation onFailure = {});
    void execSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {},
                     Continuation onFailure = {});
    //! The typed form: the continuation gets the subtask as what it is.
    template <typename T, typename OnSuccess>
    requires(std::is_invocable_v<OnSuccess&, T*> &&
             !std::is_same_v<std::remove_cvref_t<OnSuccess>,
                             Continuation>) void execSubtask(std::unique_ptr<T> task, OnSuccess onSuccess,
                                                             Continuation onFailure = {}) {
        T* raw = task.get();
        execSubtask(std::unique_ptr<BaseTask>(std::move(task)),
                    Continuation([raw, next = std::move(onSuccess)](BaseTask*) mutable { next(raw); }),
                    std::move(onFailure));
    }
    //! Adopts \a task without starting it: it waits for execSubtasks() or execSubtask(). It does not keep the
    //! task running, and is deleted with it when it was never started.
    void appendSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {},
                       Continuation onFailure = {});
    //! Hands all appended subtasks to the group task together.
    void execSubtasks();

    //! The group that runs the appended subtasks; owned by this task; never null.
    GroupTask* groupTask() const;
    //! Replaces the group, before anything was started in it. Takes ownership.
    void setGroupTask(std::unique_ptr<GroupTask> group);
    //! Brings the finished task and its group back to running. What is to run is then started by
    //! execSubtask() or execSubtasks(), or the task is finished. Subtasks that the last run left behind go on
    //! and are waited for; they do not end the new run, and what fails of them is only logged.
    void restartWithGroup();
    //! Starts these appended subtasks together.
    void startInGroup(const QList<BaseTask*>& tasks);
    //! Whether the task stays running until the subtasks of its group have ended.
    virtual bool waitsForGroup() const;

    void start() override;
    void runCanceled() override;
    void cancelDescendants() override;
    void requestStop() override;
    void awaitBody() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
