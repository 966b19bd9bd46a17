#include "TasksQueue.h"

#include "SubtaskSet.h"
#include "TasksLog.h"

#include <QPointer>

#include <algorithm>
#include <utility>

namespace orx {

struct TasksQueue::Private : TaskObserver {
    Private(TasksQueue* queue, int maximum)
        : q(queue)
        , maximumRunning(std::max(1, maximum))
        , running(nullptr,
                  {[](const Error&, bool) {}, [](const Warnings&) {}, [](int) {}, [this] { advance(); }}) {}
    ~Private() override;

    void advance();
    //! Ends a task that waits as cancelled.
    void end(std::list<Subtask>::iterator subtask) { running.start(waiting, subtask, true); }

    // Of tasks that wait:
    void taskFinished(BaseTask*) override {}
    void taskIdle(BaseTask*) override {}
    void taskCanceledEarly(BaseTask* task) override { end(SubtaskSet::recordOf(task)->self); }
    void taskDestroyed(BaseTask* task) override { running.lose(waiting, SubtaskSet::recordOf(task)->self); }

    TasksQueue* const q;
    const int maximumRunning;
    std::list<Subtask> waiting;
    SubtaskSet running;
    bool advancing = false;
    bool isBusy = false; //!< something was added since drained()
};

TasksQueue::Private::~Private() {
    for (Subtask& subtask : waiting)
        if (subtask.task)
            subtask.task->d->observer = nullptr;
}

void TasksQueue::Private::advance() {
    if (advancing)
        return;
    const QPointer<TasksQueue> guard(q);
    advancing = true;
    while (guard && !waiting.empty() && running.size() < maximumRunning)
        running.start(waiting, waiting.begin(), false);
    if (!guard)
        return;
    advancing = false;
    if (waiting.empty() && running.isEmpty() && running.isSettled() && std::exchange(isBusy, false))
        Q_EMIT q->drained();
}

TasksQueue::TasksQueue(int maximumRunning, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>(this, maximumRunning)) {}

TasksQueue::~TasksQueue() = default;

void TasksQueue::add(std::unique_ptr<BaseTask> task, Continuation onFinished) {
    if (!task) {
        qCCritical(tasksLog).noquote() << "a queue was given no task";
        return;
    }
    const auto added = SubtaskSet::enlist(d->waiting, d.get(), std::move(task), onFinished, onFinished);
    added->task->d->observer = d.get();
    d->isBusy = true;
    d->advance();
}

void TasksQueue::cancel() {
    const QPointer<TasksQueue> guard(this);
    d->advancing = true; // nothing of what waits is to start
    auto waiting = qsizetype(d->waiting.size());
    d->running.cancelAll();
    while (guard && waiting-- > 0 && !d->waiting.empty())
        d->end(d->waiting.begin());
    if (!guard)
        return;
    d->advancing = false;
    d->advance();
}

int TasksQueue::pendingCount() const {
    return int(qsizetype(d->waiting.size()) + d->running.size());
}

} // namespace orx
