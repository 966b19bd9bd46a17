#pragma once

#include "BaseTask.h"

#include <stop_token>

namespace QCoro {
template <typename Value>
class Task;
}

namespace orx {

class CoroutineScope;

//! A task with an initialisation on the owner's thread and a body. run(): initialize(); an error ends the
//! task with it. Otherwise the body runs by the execution mode.
//!
//! A class whose body may run on a worker calls stopBody() first thing in its destructor (and is final, or
//! says so to those who derive from it). A task is not idle before its body has returned, so that tasks,
//! which delete their subtasks only when these are idle, never wait for one.
class ORX_TASKS_EXPORT Task : public BaseTask {
    Q_OBJECT
public:
    //! Where the body runs. The values are fixed.
    enum class ExecutionMode : int {
        Direct = 0,   //!< doExec() on the owner's thread, within exec()
        Worker = 1,   //!< doExec() on a worker; its result is taken over on the owner's thread
        Coroutine = 2 //!< co_doExec() on the owner's thread, whose event loop goes on while the body waits
    };
    Q_ENUM(ExecutionMode)

    explicit Task(const QString& name, QObject* parent = nullptr);
    ~Task() override;

    ExecutionMode executionMode() const;
    //! Direct by default; has an effect only before exec().
    void setExecutionMode(ExecutionMode mode);
    bool isIdle() const override;

    //! For what waits within a body. Thread: any. On a worker that runs the body of a task: the token that is
    //! asked to stop when that task is cancelled or destroyed, on the thread where this happens; elsewhere
    //! one that is never asked.
    static std::stop_token stopTokenOfThisThread();

protected:
    //! Called once per run on the owner's thread before the body. May call finish(), which ends the run
    //! without the body.
    virtual Error initialize();
    //! The body of modes Direct and Worker; its error ends the task. In mode Worker it must touch nothing
    //! that the owner's thread touches meanwhile, and asks isCancelRequested() now and then. The base does
    //! nothing.
    virtual Error doExec();
    //! The body of mode Coroutine; its error ends the task. It waits for nothing but what derives from
    //! CancelableWait and for coroutines that keep to this too. When the task is cancelled or destroyed, the
    //! wait throws WaitCanceled, which unwinds the body; nothing behind the wait is run. What a body holds
    //! across a wait must not need the members of the task for its release, or the most derived destructor
    //! calls stopBody() first. An exception that leaves the body is a failure of the task. The base does
    //! nothing.
    virtual QCoro::Task<Error> co_doExec();
    //! What happens after a successful initialize() unless it finished or cancelled the task; the base runs
    //! the body by the execution mode and then finishes. Tasks whose body is asynchronous override this and
    //! doCancel(), and call finish() themselves.
    virtual void start();

    void run() final;
    //! Finishes at once when the worker has not begun with the body.
    void doCancel() override;
    void cancelDescendants() override;
    void requestStop() override;
    void awaitBody() override;

private:
    class WorkerBody;
    void runCoroutine();
    void coroutineEnded(const std::shared_ptr<CoroutineScope>& scope, int ofRun, const Error& error);
    void takeOver(const std::shared_ptr<WorkerBody>& body, int ofRun);
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
