#include "BaseTask_p.h"
#include "OwnerInbox.h"
#include "TasksLog.h"
#include "TreeSlots.h"

#include <DirectoryFlushes.h>
#include <ReplaceGuard.h>

#include <QPointer>

#include <algorithm>

namespace orx {

BaseTask::BaseTask(const QString& name, QObject* parent)
    : ErrorCancelable(parent), d(std::make_unique<Private>()) {
    d->name = name;
}

BaseTask::~BaseTask() {
    d->cancelRequested = true;
    if (d->observer)
        d->observer->taskDestroyed(this);
}

QString BaseTask::name() const {
    return d->name;
}

BaseTask::State BaseTask::state() const {
    return d->state;
}

bool BaseTask::isIdle() const {
    return d->state != State::Running;
}

QVariant BaseTask::variantResult() const {
    return d->result;
}

void BaseTask::setVariantResult(const QVariant& result) {
    d->result = result;
}

void BaseTask::exec() {
    if (d->state != State::Created) {
        qCWarning(tasksLog).noquote() << "task" << d->name << "was executed a second time; nothing is done";
        return;
    }
    d->state = State::Running;
    if (isCanceled()) {
        runCanceled();
        return;
    }
    const QPointer<BaseTask> guard(this);
    Q_EMIT started();
    if (!guard || d->state != State::Running)
        return;
    if (isCanceled())
        runCanceled();
    else
        run();
}

void BaseTask::runCanceled() {
    finish(Error());
}

void BaseTask::cancel() {
    if (d->state == State::Finished) {
        d->cancelRequested = d->cancelRequested || !isIdle(); // a body may still run
        cancelDescendants();
        return;
    }
    if (isCanceled())
        return;
    d->cancelRequested = true;
    const QPointer<BaseTask> guard(this);
    const int run = d->run;
    ErrorCancelable::cancel();
    if (!guard || d->run != run)
        return;
    if (d->state == State::Created && d->observer)
        d->observer->taskCanceledEarly(this);
    if (!guard || d->run != run || d->state != State::Running)
        return;
    cancelDescendants();
    if (guard && d->run == run && d->state == State::Running)
        doCancel();
}

void BaseTask::finish(const Error& error) {
    if (d->state != State::Running || d->finishing)
        return;
    d->finishing = true;
    if (!hasError()) {
        Error held = error;
        held.addWarnings(this->error().warnings());
        setError(held);
    }
    const QPointer<BaseTask> guard(this);
    Error result = [this] {
        // Without any they are opened too: who ends within the end of another task is not part of that.
        const DirectoryFlushes::Scope flushes(DirectoryFlushes::of(*this));
        const ReplaceGuard::Scope guarded(ReplaceGuard::of(*this));
        return doFinish();
    }();
    if (!guard)
        return;
    // An end without an error that is made anew has not heard of them.
    if (!result.hasError() && result.warnings().isEmpty())
        result.addWarnings(this->error().warnings());
    if (result.hasError() || !isCanceled())
        setError(result);
    d->finishing = false;
    d->state = State::Finished;
    const int run = d->run;
    Q_EMIT finished();
    if (guard && d->run == run && d->observer)
        d->observer->taskFinished(this);
    if (guard && d->run == run)
        checkIdle();
}

Error BaseTask::doFinish() {
    return error();
}

void BaseTask::doCancel() {}

void BaseTask::cancelDescendants() {}

void BaseTask::restart() {
    if (d->state != State::Finished) {
        qCWarning(tasksLog).noquote()
            << "task" << d->name << "was restarted before it had finished; nothing is done";
        return;
    }
    resetErrorAndCanceled();
    d->cancelRequested = false;
    d->idleReported = false;
    d->state = State::Running;
    ++d->run;
}

void BaseTask::checkIdle() {
    if (d->state != State::Finished)
        return;
    if (!isIdle()) {
        d->idleReported = false;
        return;
    }
    if (d->idleReported)
        return;
    d->idleReported = true;
    const QPointer<BaseTask> guard(this);
    Q_EMIT idle();
    if (guard && d->observer)
        d->observer->taskIdle(this);
}

void BaseTask::lendSlot() {
    TreeSlots::lend(this);
}

bool BaseTask::isSlotLent() const {
    return TreeSlots::isLent(this);
}

void BaseTask::takeSlotBack(std::function<void()> then, SlotOrder order) {
    TreeSlots::takeBack(this, std::move(then), order);
}

void BaseTask::adoptWarnings(const Warnings& warnings) {
    for (const QString& warning : warnings) {
        if (isRunning())
            addWarning(warning);
        else
            qCWarning(tasksLog).noquote()
                << "a subtask of the finished task" << d->name << "warns:" << warning;
    }
}

bool BaseTask::isCancelRequested() const {
    return d->cancelRequested;
}

void BaseTask::stopBody() {
    requestStop();
    awaitBody();
}

void BaseTask::requestStop() {
    d->cancelRequested = true;
}

void BaseTask::awaitBody() {}

Error BaseTask::waitForFinished(int timeoutMs) {
    return waitForAllFinished({this}, timeoutMs);
}

Error BaseTask::waitForAllFinished(const QList<BaseTask*>& tasks, int timeoutMs) {
    QList<QPointer<BaseTask>> waited(tasks.begin(), tasks.end());
    qsizetype ended = 0; // the tasks before this one have ended: each is looked at a bounded number of times
    const auto done = [&] {
        while (ended < waited.size() && (!waited[ended] || waited[ended]->isFinished()))
            ++ended;
        return ended == waited.size();
    };
    const auto timeout = timeoutMs < 0 ? std::nullopt : std::optional<std::chrono::milliseconds>(timeoutMs);
    if (!OwnerInbox::ofThisThread()->waitUntil(done, timeout))
        return Error(
            ErrorCode::TimedOut,
            tr("The task \"%1\" did not finish within %2 ms.").arg(waited[ended]->name()).arg(timeoutMs));
    for (const QPointer<BaseTask>& task : waited) {
        if (!task)
            return Error(ErrorCode::Canceled, tr("A task was destroyed while it was waited for."));
        if (task->hasError())
            return task->error();
    }
    return Error();
}

} // namespace orx
