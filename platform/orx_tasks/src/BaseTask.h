#pragma once

#include "orx_tasks_export.h"

#include <ErrorCancelable.h>

#include <QList>
#include <QVariant>

#include <functional>
#include <memory>

namespace orx {

class TaskObserver;

//! The life cycle that all tasks share: created -> running -> finished.
//!
//! Signals of one run, in this order: started, then progressInitiated and progress as the task reports them,
//! canceled at most once, finished exactly once and last, after doFinish(). A task that was cancelled is
//! never successful. Everything happens on the thread that owns the object.
//!
//! finish() ends the run at once even while descendants of the task still work; the task is idle, and idle()
//! is emitted, when they have ended too. A task is not to be deleted by its owner before it is idle;
//! destroying a running task all the same cancels it, leaves no callback behind and emits neither finished
//! nor idle. It may be destroyed from within its own signals and continuations.
//!
//! A task whose body runs on a worker (see Task) has one duty more: its most derived destructor calls
//! stopBody() first, because the body uses the members that the destructor destroys.
class ORX_TASKS_EXPORT BaseTask : public ErrorCancelable {
    Q_OBJECT
public:
    enum class State { Created, Running, Finished };
    Q_ENUM(State)

    explicit BaseTask(const QString& name, QObject* parent = nullptr);
    ~BaseTask() override;

    //! For people: logs and traces.
    QString name() const;
    State state() const;
    bool isRunning() const { return state() == State::Running; }
    bool isFinished() const { return state() == State::Finished; }
    //! Finished without an error.
    bool isSuccessful() const { return isFinished() && !hasError(); }
    //! Finished (or never started), and no descendant is running.
    virtual bool isIdle() const;
    //! The task, or the child of a group that it is a step of, waits for a person or for others meanwhile:
    //! its slot is lent (see lendSlot()).
    bool isSlotLent() const;
    //! What the task produced besides its error; invalid until it says otherwise.
    QVariant variantResult() const;

    //! Starts the run. Only for a task in state Created; anything else is a fault of the caller that is
    //! logged and changes nothing. A task that was cancelled before it started finishes at once with the
    //! cancel error, without started(), and runs nothing but doFinish().
    void exec();

    //! Blocks until the task is finished and returns its error; ErrorCode::TimedOut when \a timeoutMs (-1:
    //! none; 0: events that are there are processed once) went by first, ErrorCode::Canceled when the task
    //! was destroyed meanwhile. Needs no running event loop; events of this thread are processed meanwhile.
    Error waitForFinished(int timeoutMs = -1);
    //! The same for several tasks; ErrorCode::TimedOut, or else the first error in list order.
    static Error waitForAllFinished(const QList<BaseTask*>& tasks, int timeoutMs = -1);

    //! Sets the cancel error synchronously, emits canceled(), reaches every running descendant and lets the
    //! task finish soon, possibly before this returns. Idempotent. A finished task stays as it ended;
    //! descendants of it that still run are cancelled.
    void cancel() override;

    //! Ends the run: holds \a error (unless one is held already), calls doFinish(), emits finished. Nothing
    //! when the task is not running.
    void finish(const Error& error);

Q_SIGNALS:
    void started();
    //! Last signal of a run.
    void finished();
    //! After finished, when no descendant runs any more (right after it, in the usual case).
    void idle();
    //! \a maximum: what the progress values will count up to. May come more than once and before started.
    void progressInitiated(int maximum);
    void progress(int value, int maximum);

protected:
    //! When a slot that was lent comes back.
    enum class SlotOrder {
        InLine,      //!< behind those who are in line by then
        BeforeOthers //!< before them, and behind those who do too: for who holds what others wait for
    };

    //! The body: called once per run after started was emitted; ends with finish(), at once or later.
    virtual void run() = 0;
    //! What exec() calls instead of run() when the task was cancelled before it started. The base finishes.
    virtual void runCanceled();
    //! Called by finish() before finished is emitted; returns the error the task ends with. The base returns
    //! the error held. Runs after a failed initialisation and after cancellation too; the error of a
    //! cancelled task cannot be taken back.
    virtual Error doFinish();
    //! Called by cancel() once per run, after canceled() was emitted, while the task is running. A task that
    //! waits for something ends the wait and calls finish().
    virtual void doCancel();
    //! Passes a cancellation on to the descendants that run; called for finished tasks too.
    virtual void cancelDescendants();

    void setVariantResult(const QVariant& result);
    //! Brings a finished task back to running: clears the error and the cancelled state, emits nothing. The
    //! caller then starts what is to run; the run ends by another finish(). Not while a body of this task
    //! still runs on a worker (see isIdle()).
    void restart();
    //! A wait for a person, or a long one for others, begins: the slot with which a group admitted this task,
    //! or the one it is a step of (see GroupTask), serves others until takeSlotBack(). Nothing for tasks that
    //! no group admitted.
    void lendSlot();
    //! The wait is over: \a then is called when the slot is there again, at once when none was lent or others
    //! below the same child of the group still wait; never when this task has ended or is gone by then.
    //! Once per lendSlot().
    void takeSlotBack(std::function<void()> then, SlotOrder order = SlotOrder::InLine);
    //! Re-evaluates isIdle() after something changed, and emits idle() when due.
    void checkIdle();

    //! Thread: any. True from the moment of cancel() on, and when the task object is being destroyed.
    bool isCancelRequested() const;
    //! For destructors: makes isCancelRequested() true and blocks until no body of this task or of a
    //! descendant runs on a worker.
    void stopBody();
    //! The two halves of stopBody(), each for this task and its descendants.
    virtual void requestStop();
    virtual void awaitBody();

private:
    //! What a subtask warned of becomes a warning of this task, and is logged when it has finished.
    void adoptWarnings(const Warnings& warnings);

    friend class SubtaskSet;
    friend class TreeSlots;
    friend class TasksQueue;
    friend class ComplexTask;
    friend class GroupTask;
    friend class Task;
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
