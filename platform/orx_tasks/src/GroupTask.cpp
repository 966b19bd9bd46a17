#include "GroupTask_p.h"
#include "TasksLog.h"
#include "TreeSlots.h"

#include <QPointer>

#include <algorithm>

namespace orx {

GroupTask::Private::Private(GroupTask* task)
    : q(task)
    , running(task, {[this](const Error& error, bool) { onChildFailed(error); },
                     [this](const Warnings& warnings) { q->adoptWarnings(warnings); },
                     [this](int slots) { onSlotsFreed(slots); }, [this] { settle(); }}) {}

GroupTask::Private::~Private() {
    for (Subtask& subtask : queued)
        if (subtask.task)
            subtask.task->d->observer = nullptr;
    guest->d = nullptr;
    const int held = running.heldSlots();
    if (held > 0 && admission.use_count() > 1) { // the rest of the tree goes on
        admission->giveBack(held);
        admission->pumpLater();
    }
}

void GroupTask::Private::add(std::unique_ptr<BaseTask> task, Continuation onSuccess, Continuation onFailure) {
    SubtaskSet::enlist(added, this, std::move(task), std::move(onSuccess), std::move(onFailure));
}

void GroupTask::Private::adopt(std::list<Subtask>& subtasks) {
    for (Subtask& subtask : subtasks)
        subtask.owner = this;
    added.splice(added.end(), subtasks);
}

void GroupTask::Private::reopen() {
    q->BaseTask::restart();
    running.beginRun();
    for (Subtask& subtask : queued)
        subtask.leftBehind = true;
    firstError = Error();
    stopping = false;
    opened = true;
    awaiting = true;
}

void GroupTask::Private::startAdded() {
    const QPointer<GroupTask> guard(q);
    const auto count = qsizetype(added.size());
    if (count > 0) {
        awaiting = false;
        for (Subtask& subtask : added)
            subtask.task->d->observer = this;
        queued.splice(queued.end(), added);
    }
    if (isStopped()) {
        if (!endQueued())
            return;
    } else if (count > 0) {
        const std::shared_ptr<Admission> slots = treeAdmission();
        TreeSlots::giveBackAbove(q); // or the children of the deepest groups might wait for ever
        slots->enqueue(guest, count);
        slots->pump();
        if (!guard)
            return;
    }
    settle();
}

const std::shared_ptr<Admission>& GroupTask::Private::treeAdmission() {
    for (BaseTask* task = q->BaseTask::d->owner; task && !admission; task = task->d->owner)
        if (const auto* group = qobject_cast<GroupTask*>(task))
            admission = group->d->admission;
    if (!admission)
        admission = std::make_shared<Admission>(breadth);
    return admission;
}

bool GroupTask::Private::startNext() {
    if (queued.empty() || isStopped())
        return false; // those in line were cancelled, or will be
    queued.front().slot = Subtask::Slot::Held;
    running.start(queued, queued.begin(), false);
    return true;
}

bool GroupTask::Private::isStopped() const {
    return stopping || q->isCanceled();
}

bool GroupTask::Private::endQueued() {
    if (ending)
        return true;
    const QPointer<GroupTask> guard(q);
    ending = true;
    while (guard && !queued.empty())
        running.start(queued, queued.begin(), true);
    if (guard)
        ending = false;
    return bool(guard);
}

void GroupTask::Private::onChildFailed(const Error& error) {
    if (!q->isRunning())
        qCWarning(tasksLog).noquote()
            << "a child of the finished group" << q->name() << "failed:" << error.errorMessage();
    if (!firstError.hasError())
        firstError = error;
    if (policy == ChildFailurePolicy::StopOnFirstFailure && !stopping && q->isRunning()) {
        stopping = true;
        running.cancelAll(); // those in line are ended when these have been told
    }
}

void GroupTask::Private::onSlotsFreed(int slots) {
    const std::shared_ptr<Admission> tree = admission; // outlives the group, which what follows may destroy
    tree->giveBack(slots);
    tree->pump();
}

void GroupTask::Private::settle() {
    if (!running.isSettled())
        return;
    if (isStopped() && !queued.empty()) {
        (void)endQueued();
        return;
    }
    const bool isEmpty = running.isEmpty() && queued.empty() && added.empty();
    const bool due = isEmpty && opened && q->isRunning();
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

void GroupTask::Private::taskCanceledEarly(BaseTask* task) {
    running.start(queued, SubtaskSet::recordOf(task)->self, true);
}

void GroupTask::Private::taskDestroyed(BaseTask* task) {
    running.lose(queued, SubtaskSet::recordOf(task)->self);
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
        d->startAdded();
}

void GroupTask::setBreadth(int slots) {
    d->breadth = std::max(1, slots);
}

int GroupTask::breadth() const {
    return d->breadth;
}

int GroupTask::pendingCount() const {
    return int(qsizetype(d->added.size() + d->queued.size()) + d->running.size());
}

bool GroupTask::isIdle() const {
    return Task::isIdle() && d->running.isEmpty() && d->queued.empty();
}

void GroupTask::restart() {
    if (!isFinished())
        return;
    d->reopen();
    if (!d->added.empty())
        d->startAdded();
}

void GroupTask::start() {
    d->opened = true;
    d->startAdded();
}

void GroupTask::runCanceled() {
    start();
}

void GroupTask::cancelDescendants() {
    const QPointer<GroupTask> guard(this);
    d->running.cancelAll();
    if (guard)
        (void)d->endQueued();
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
