#pragma once

#include "ComplexTask.h"

namespace orx {

//! A complex task whose groups of subtasks are started explicitly and that says how they are waited for.
class ORX_TASKS_EXPORT CustomComplexTask : public ComplexTask {
    Q_OBJECT
public:
    //! Whether the task stays running until the subtasks started by execSubtasks() have ended. With
    //! FinishAtOnce they go on after it finished; it is idle when they have ended.
    enum class WaitMode : int { WaitForSubtasks = 0, FinishAtOnce = 1 };
    Q_ENUM(WaitMode)

    explicit CustomComplexTask(const QString& name = QString(), QObject* parent = nullptr);
    ~CustomComplexTask() override;

    //! WaitForSubtasks unless overridden.
    virtual WaitMode waitMode() const;

protected:
    //! Starts these of the appended subtasks together. Each must have been appended and not started; others
    //! are logged and left out. An empty list does nothing.
    virtual void execSubtasks(const QList<BaseTask*>& tasks);
    using ComplexTask::execSubtasks;
    bool waitsForGroup() const override;
};

} // namespace orx
