#include "SubtaskSet.h"
#include "OwnerInbox_p.h"
#include "TasksLog.h"

#include <QPointer>
#include <QThread>

#include <algorithm>
#include <utility>
#include <vector>

namespace orx {

namespace {

class Batch;
struct Batches {
    ~Batches();
    Batch* open = nullptr;
};
thread_local Batches batches;

//! Tasks that are deleted together.
class Batch : public QObject {
public:
    explicit Batch(int loopLevel) : level(loopLevel) {}
    ~Batch() override {
        if (batches.open == this)
            batches.open = nullptr; // destructors of the tasks may dispose of more
    }
    const int level; //!< of nested event loops when the deletion was deferred
    std::vector<std::unique_ptr<BaseTask>> tasks;
};

Batches::~Batches() {
    delete open;
}

} // namespace

void disposeLater(std::unique_ptr<BaseTask> task) {
    // A batch that was deferred in a deeper event loop may be deleted before control has left the task.
    const int level = QThread::currentThread()->loopLevel() + waitDepth();
    if (!batches.open || batches.open->level > level) {
        batches.open = new Batch(level);
        batches.open->deleteLater();
    }
    batches.open->tasks.push_back(std::move(task));
}

SubtaskSet::SubtaskSet(BaseTask* task, Owner owner) : m_task(task), m_owner(std::move(owner)) {}

SubtaskSet::~SubtaskSet() {
    *m_alive = false;
    for (Subtask& subtask : m_subtasks) {
        if (!subtask.task)
            continue;
        subtask.task->d->observer = nullptr;
        subtask.task->blockSignals(true);
    }
    requestStop();
    awaitBodies();
}

Subtask* SubtaskSet::recordOf(const BaseTask* task) {
    return static_cast<Subtask*>(task->d->subtask);
}

std::list<Subtask>::iterator SubtaskSet::enlist(std::list<Subtask>& list, const void* owner,
                                                std::unique_ptr<BaseTask> task,
                                                GroupTask::Continuation onSuccess,
                                                GroupTask::Continuation onFailure) {
    task->setParent(nullptr);
    list.push_back({std::move(task), std::move(onSuccess), std::move(onFailure), owner, {}});
    const auto added = std::prev(list.end());
    added->self = added;
    added->task->d->subtask = &*added;
    return added;
}

void SubtaskSet::start(std::list<Subtask>& list, std::list<Subtask>::iterator subtask, bool canceled) {
    m_subtasks.splice(m_subtasks.end(), list, subtask);
    subtask->owner = this;
    BaseTask* const task = subtask->task.get();
    task->d->observer = this;
    task->d->owner = m_task;
    const auto alive = m_alive;
    ++m_depth;
    if (canceled)
        task->cancel();
    if (*alive && task->state() == BaseTask::State::Created)
        task->exec();
    else if (*alive && task->isFinished())
        taskFinished(task);
    if (!*alive)
        return;
    --m_depth;
    work();
}

void SubtaskSet::lose(std::list<Subtask>& list, std::list<Subtask>::iterator subtask) {
    m_subtasks.splice(m_subtasks.end(), list, subtask);
    subtask->owner = this;
    taskDestroyed(subtask->task.get());
}

int SubtaskSet::heldSlots() const {
    return int(std::count_if(m_subtasks.begin(), m_subtasks.end(),
                             [](const Subtask& subtask) { return subtask.slot == Subtask::Slot::Held; }));
}

void SubtaskSet::beginRun() {
    for (Subtask& subtask : m_subtasks)
        subtask.leftBehind = true;
}

void SubtaskSet::cancelAll() {
    const auto alive = m_alive;
    ++m_depth;
    // Subtasks that are started meanwhile are put behind the last and are cancelled by who starts them.
    for (auto it = m_subtasks.begin(); it != m_subtasks.end(); ++it) {
        if (it->task)
            it->task->cancel();
        if (!*alive)
            return;
    }
    --m_depth;
    work();
}

void SubtaskSet::requestStop() {
    for (Subtask& subtask : m_subtasks)
        if (subtask.task)
            subtask.task->requestStop();
}

void SubtaskSet::awaitBodies() {
    for (Subtask& subtask : m_subtasks)
        if (subtask.task)
            subtask.task->awaitBody();
}

void SubtaskSet::taskFinished(BaseTask* task) {
    Subtask& subtask = *recordOf(task);
    subtask.ended = true;
    enqueue(subtask);
    work();
}

void SubtaskSet::taskIdle(BaseTask* task) {
    enqueue(*recordOf(task));
    work();
}

void SubtaskSet::taskDestroyed(BaseTask* task) {
    Subtask& subtask = *recordOf(task);
    qCCritical(tasksLog).noquote() << "task" << task->name() << "was deleted by somebody else than its owner";
    (void)subtask.task.release();
    subtask.lost = subtask.ended || !task->isFinished();
    subtask.ended = false;
    enqueue(subtask);
    work();
}

void SubtaskSet::enqueue(Subtask& subtask) {
    if (subtask.queued)
        return;
    subtask.queued = true;
    m_changes.push_back(&subtask);
}

void SubtaskSet::work() {
    if (m_depth > 0)
        return;
    const auto alive = m_alive;
    ++m_depth;
    while (!m_changes.empty()) {
        Subtask& subtask = *m_changes.front();
        m_changes.pop_front();
        subtask.queued = false;
        if (!workOff(subtask))
            return;
    }
    --m_depth;
    if (m_freedSlots > 0)
        m_owner.slotsFreed(std::exchange(m_freedSlots, 0));
    if (*alive)
        m_owner.settled();
}

//! Returns false when the set was destroyed meanwhile.
bool SubtaskSet::workOff(Subtask& subtask) {
    if (!subtask.task)
        return forget(subtask);
    if (std::exchange(subtask.ended, false) && !tell(subtask))
        return false;
    if (!subtask.task || subtask.task->isFinished())
        releaseSlot(subtask);
    if (subtask.task && !subtask.queued && subtask.task->isIdle())
        retire(subtask);
    return true;
}

//! Calls the continuation, then the owner.
bool SubtaskSet::tell(Subtask& subtask) {
    const auto alive = m_alive;
    const Error error = subtask.task->error();
    if (!error.hasError() && !error.warnings().isEmpty())
        m_owner.warned(error.warnings());
    auto& slot = error.hasError() ? subtask.onFailure : subtask.onSuccess;
    auto continuation = std::move(slot); // outlives the set, which the continuation may destroy
    if (continuation)
        continuation(subtask.task.get());
    if (!*alive)
        return false;
    const bool told = bool(continuation);
    slot = std::move(continuation);
    if (error.hasError())
        report(error, told, subtask.leftBehind);
    return *alive;
}

void SubtaskSet::report(const Error& error, bool told, bool leftBehind) {
    if (!leftBehind)
        m_owner.failed(error, told);
    else if (!told)
        qCWarning(tasksLog).noquote() << "a subtask of an earlier run failed:" << error.errorMessage();
}

bool SubtaskSet::forget(Subtask& subtask) {
    const auto alive = m_alive;
    const bool lost = subtask.lost;
    const bool leftBehind = subtask.leftBehind;
    releaseSlot(subtask);
    m_subtasks.erase(subtask.self);
    if (lost)
        report(Error(ErrorCode::General, BaseTask::tr("A subtask was deleted before it had ended.")), false,
               leftBehind);
    return *alive;
}

void SubtaskSet::retire(Subtask& subtask) {
    BaseTask* const task = subtask.task.get();
    task->d->observer = nullptr;
    task->d->subtask = nullptr;
    task->d->owner = nullptr;
    disposeLater(std::move(subtask.task));
    m_subtasks.erase(subtask.self);
}

void SubtaskSet::releaseSlot(Subtask& subtask) {
    if (std::exchange(subtask.slot, Subtask::Slot::None) == Subtask::Slot::Held)
        ++m_freedSlots;
}

} // namespace orx
