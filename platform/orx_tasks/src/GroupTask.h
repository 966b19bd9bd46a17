#pragma once

#include "Task.h"

#include <functional>

namespace orx {

//! Runs child tasks side by side. Finishes when every child has ended, at once when there is none. An empty
//! group succeeds.
class ORX_TASKS_EXPORT GroupTask : public Task {
    Q_OBJECT
public:
    //! What the failure of one child means for the others. The values are fixed.
    enum class ChildFailurePolicy : int {
        //! Queued children never start and running ones are cancelled; each of them gets its failure
        //! continuation with isCanceled() true before the group
        //! finishes with the first real error.
        StopOnFirstFailure = 0,
        //! All children run; the group then ends with the first child's error.
        RunAll = 1
    };
    Q_ENUM(ChildFailurePolicy)

    //! Called on the owner's thread with the child that has ended, once per run of it. Anything captured
    //! lives until the child is done.
    using Continuation = std::function<void(BaseTask*)>;

    explicit GroupTask(QObject* parent = nullptr);
    explicit GroupTask(const QString& name, QObject* parent = nullptr);
    ~GroupTask() override;

    void setChildFailurePolicy(ChildFailurePolicy policy);
    ChildFailurePolicy childFailurePolicy() const;

    //! Adopts \a task. Started with the group, or at once when the group is running. The child is deleted
    //! (deleteLater) after its continuation, once idle.
    void addTask(std::unique_ptr<BaseTask> task, Continuation onSuccess = {}, Continuation onFailure = {});
    //! Children that were added and have not ended.
    int pendingCount() const;
    bool isIdle() const override;
    //! See BaseTask: a group is restarted by the complex task it belongs to.
    using BaseTask::restart;

protected:
    void start() override;
    void doCancel() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
