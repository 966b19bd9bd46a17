#include "ComplexTask.h"
#include "GroupTask_p.h"
#include "TasksLog.h"

#include <QPointer>

namespace orx {

struct ComplexTask::Private : TaskObserver {
    explicit Private(ComplexTask* task)
        : q(task)
        , steps(task, {[this](const Error& error, bool handled) { onStepFailed(error, handled); },
                       [this](const Warnings& warnings) { q->adoptWarnings(warnings); },
                       [](int) {}, // steps are not admitted
                       [this] { settle(); }}) {}

    Subtask* appendedRecord(BaseTask* task) const;
    void startGroup();
    bool isGroupBusy() const;
    void onStepFailed(const Error& error, bool handled);
    void settle();
    void setGroup(std::unique_ptr<GroupTask> newGroup);

    void taskFinished(BaseTask* task) override;
    void taskIdle(BaseTask*) override { settle(); }
    void taskCanceledEarly(BaseTask*) override {}
    void taskDestroyed(BaseTask*) override {}

    ComplexTask* const q;
    std::unique_ptr<GroupTask> group;
    std::list<Subtask> appended;
    SubtaskSet steps;
    bool opened = false;    //!< initialize() succeeded: from now on the task finishes by itself
    bool awaiting = false;  //!< restarted, and nothing was started since
    bool groupRuns = false; //!< from its start until it was heard to have finished
};

//! The record of a task that was appended here and not started; null for any other.
Subtask* ComplexTask::Private::appendedRecord(BaseTask* task) const {
    Subtask* const record = SubtaskSet::recordOf(task);
    return record && record->owner == &appended ? record : nullptr;
}

void ComplexTask::Private::setGroup(std::unique_ptr<GroupTask> newGroup) {
    if (group)
        group->BaseTask::d->observer = nullptr;
    group = std::move(newGroup);
    group->setParent(nullptr);
    group->BaseTask::d->observer = this;
    group->BaseTask::d->owner = q;
}

//! Starts what waits in the group, in whatever state that is.
void ComplexTask::Private::startGroup() {
    const QPointer<GroupTask> guard(group.get());
    groupRuns = true;
    awaiting = false;
    switch (group->state()) {
    case State::Created:
        if (q->isCanceled())
            group->cancel();
        group->exec();
        return;
    case State::Finished:
        group->d->reopen();
        [[fallthrough]];
    case State::Running:
        if (q->isCanceled())
            group->cancel();
        if (guard)
            group->d->startAdded();
    }
}

void ComplexTask::Private::onStepFailed(const Error& error, bool handled) {
    if (handled || (q->isCanceled() && q->isRunning()))
        return; // a cancelled task ends when its subtasks have
    if (q->isRunning())
        q->finish(Error(error).ecatch(Q_FUNC_INFO, __FILE__, __LINE__));
    else
        qCWarning(tasksLog).noquote()
            << "a subtask of the finished task" << q->name() << "failed:" << error.errorMessage();
}

bool ComplexTask::Private::isGroupBusy() const {
    return group && (groupRuns || !group->d->running.isEmpty() || !group->d->queued.empty());
}

void ComplexTask::Private::taskFinished(BaseTask*) {
    groupRuns = false;
    if (!group->hasError())
        q->adoptWarnings(group->error().warnings());
    onStepFailed(group->error(), !group->hasError());
}

//! Finishes the task when nothing is left to do.
void ComplexTask::Private::settle() {
    if (!steps.isSettled())
        return;
    const bool mayEnd = opened && (!awaiting || q->isCanceled());
    if (mayEnd && q->isRunning() && steps.isEmpty() && !(isGroupBusy() && q->waitsForGroup()))
        q->finish(Error());
    else
        q->checkIdle();
}

ComplexTask::ComplexTask(const QString& name, QObject* parent)
    : Task(name, parent), d(std::make_unique<Private>(this)) {}

ComplexTask::~ComplexTask() {
    stopBody();
    if (d->group) {
        d->group->BaseTask::d->observer = nullptr;
        d->group->blockSignals(true);
    }
}

bool ComplexTask::isIdle() const {
    return Task::isIdle() && d->steps.isEmpty() && !d->isGroupBusy();
}

void ComplexTask::execSubtask(BaseTask* task, Continuation onSuccess, Continuation onFailure) {
    Subtask* const record = task ? d->appendedRecord(task) : nullptr;
    if (!record) {
        execSubtask(std::unique_ptr<BaseTask>(task), std::move(onSuccess), std::move(onFailure));
        return;
    }
    if (onSuccess)
        record->onSuccess = std::move(onSuccess);
    if (onFailure)
        record->onFailure = std::move(onFailure);
    startInGroup({task});
}

void ComplexTask::execSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess,
                              Continuation onFailure) {
    if (!task) {
        finish(ORX_ECATCH(Error(ErrorCode::InvalidArgument, tr("A subtask is missing."))));
        return;
    }
    d->awaiting = false;
    std::list<Subtask> list;
    SubtaskSet::enlist(list, &list, std::move(task), std::move(onSuccess), std::move(onFailure));
    d->steps.start(list, list.begin(), isCanceled());
}

void ComplexTask::appendSubtask(std::unique_ptr<BaseTask> task, Continuation onSuccess,
                                Continuation onFailure) {
    if (!task) {
        finish(ORX_ECATCH(Error(ErrorCode::InvalidArgument, tr("A subtask is missing."))));
        return;
    }
    SubtaskSet::enlist(d->appended, &d->appended, std::move(task), std::move(onSuccess),
                       std::move(onFailure));
}

void ComplexTask::execSubtasks() {
    if (d->appended.empty())
        return;
    groupTask()->d->adopt(d->appended);
    d->startGroup();
}

void ComplexTask::startInGroup(const QList<BaseTask*>& tasks) {
    std::list<Subtask> chosen;
    for (BaseTask* task : tasks) {
        Subtask* const record = task ? d->appendedRecord(task) : nullptr;
        if (!record) {
            qCCritical(tasksLog).noquote()
                << "task" << name() << "was asked to start what was not appended to it";
            continue;
        }
        record->owner = nullptr; // named twice, it is refused
        chosen.splice(chosen.end(), d->appended, record->self);
    }
    if (chosen.empty())
        return;
    groupTask()->d->adopt(chosen);
    d->startGroup();
}

GroupTask* ComplexTask::groupTask() const {
    if (!d->group)
        d->setGroup(std::make_unique<GroupTask>());
    return d->group.get();
}

void ComplexTask::setGroupTask(std::unique_ptr<GroupTask> group) {
    if (!group || (d->group && d->group->state() != State::Created)) {
        qCCritical(tasksLog).noquote() << "task" << name() << "cannot take another group";
        return;
    }
    d->setGroup(std::move(group));
}

void ComplexTask::restartWithGroup() {
    const QPointer<ComplexTask> guard(this);
    if (isFinished() && d->isGroupBusy())
        d->group->finish(Error()); // its children go on; it may take new ones even if it was cancelled
    if (!guard || !isFinished())
        return;
    restart();
    d->steps.beginRun();
    d->opened = d->awaiting = true;
    if (groupTask()->isFinished())
        d->group->d->reopen();
}

bool ComplexTask::waitsForGroup() const {
    return true;
}

void ComplexTask::start() {
    d->opened = true;
    d->settle();
}

void ComplexTask::runCanceled() {
    start();
}

void ComplexTask::cancelDescendants() {
    const QPointer<ComplexTask> guard(this);
    d->steps.cancelAll();
    if (guard && d->group && d->group->state() != State::Created)
        d->group->cancel();
}

void ComplexTask::requestStop() {
    Task::requestStop();
    d->steps.requestStop();
    if (d->group)
        d->group->requestStop();
}

void ComplexTask::awaitBody() {
    Task::awaitBody();
    d->steps.awaitBodies();
    if (d->group)
        d->group->awaitBody();
}

} // namespace orx
