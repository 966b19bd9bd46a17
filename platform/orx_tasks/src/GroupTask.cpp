#include "GroupTask_p.h"
#include "TasksLog.h"

#include <QPointer>

namespace orx {

GroupTask::Private::Private(GroupTask* task)
    : q(task)
    , running({[this](const Error& error, bool) { onChildFailed(error); },
               [this](const Warnings& warnings) { q->adoptWarnings(warnings); }, [this] { settle(); }}) {}

GroupTask::Private::~Private() = default;

void GroupTask::Private::add(std::unique_ptr<BaseTask> task, Continuation onSuccess, Continuation onFailure) {
    SubtaskSet::enlist(waiting, this, std::move(task), std::move(onSuccess), std::move(onFailure));
}

void GroupTask::Private::adopt(std::list<Subtask>& subtasks) {
    for (Subtask& subtask : subtasks)
        subtask.owner = this;
    waiting.splice(waiting.end(), subtasks);
}

void GroupTask::Private::reopen() {
    q->BaseTask::restart();
    running.beginRun();
    firstError = Error();
    stopping = false;
    opened = true;
    awaiting = true;
}

void GroupTask::Private::startWaiting() {
    if (starting)
        return;
    const QPointer<GroupTask> guard(q);
    starting = true;
    while (!waiting.empty()) {
        awaiting = false;
        running.start(waiting, waiting.begin(), stopping || q->isCanceled());
        if (!guard)
            return;
    }
    starting = false;
    settle();
}

void GroupTask::Private::onChildFailed(const Error& error) {
    if (!q->isRunning())
        qCWarning(tasksLog).noquote()
            << "a child of the finished group" << q->name() << "failed:" << error.errorMessage();
    if (!firstError.hasError())
        firstError = error;
    if (policy == ChildFailurePolicy::StopOnFirstFailure && !stopping && q->isRunning()) {
        stopping = true;
        running.cancelAll();
    }
}

void GroupTask::Private::settle() {
    if (starting || !running.isSettled())
        return;
    const bool due = running.isEmpty() && waiting.empty() && opened && q->isRunning();
    if (due && awaiting && !q->isCanceled()) {
        if (q->BaseTask::d->observer) // what was left behind has ended
            q->BaseTask::d->observer->taskIdle(q);
        return;
    }
    if (due) {
        opened = false;
        q->finish(firstError.hasError() ? ORX_ECATCH(firstError) : firstError);
        return;
    }
    q->checkIdle();
}

GroupTask::GroupTask(QObject* parent) : GroupTask(QString(), parent) {}

GroupTask::GroupTask(const QString& name, QObject* parent)
    : Task(name, parent), d(std::make_unique<Private>(this)) {}

GroupTask::~GroupTask() {
    stopBody();
}

void GroupTask::setChildFailurePolicy(ChildFailurePolicy policy) {
    d->policy = policy;
}

GroupTask::ChildFailurePolicy GroupTask::childFailurePolicy() const {
    return d->policy;
}

void GroupTask::addTask(std::unique_ptr<BaseTask> task, Continuation onSuccess, Continuation onFailure) {
    if (!task) {
        qCCritical(tasksLog).noquote() << "group" << name() << "was given no task";
        return;
    }
    d->add(std::move(task), std::move(onSuccess), std::move(onFailure));
    if (isRunning() && d->opened)
        d->startWaiting();
}

int GroupTask::pendingCount() const {
    return int(d->waiting.size() + d->running.size());
}

bool GroupTask::isIdle() const {
    return Task::isIdle() && d->running.isEmpty();
}

void GroupTask::restart() {
    if (!isFinished())
        return;
    d->reopen();
    if (!d->waiting.empty())
        d->startWaiting();
}

void GroupTask::start() {
    d->opened = true;
    d->startWaiting();
}

void GroupTask::runCanceled() {
    start();
}

void GroupTask::cancelDescendants() {
    d->running.cancelAll();
}

void GroupTask::requestStop() {
    Task::requestStop();
    d->running.requestStop();
}

void GroupTask::awaitBody() {
    Task::awaitBody();
    d->running.awaitBodies();
}

} // namespace orx
