#include "TreeSlots.h"

#include "GroupTask_p.h"

#include <QPointer>

#include <utility>

namespace orx {

//! The nearest from \a task upwards that was admitted and has not given its slot back for good; null when
//! there is none.
Subtask* TreeSlots::holderAbove(const BaseTask* task) {
    for (; task; task = task->d->owner) {
        Subtask* const record = SubtaskSet::recordOf(task);
        if (record && record->slot != Subtask::Slot::None)
            return record;
    }
    return nullptr;
}

//! Only groups admit.
std::shared_ptr<Admission> TreeSlots::admissionOf(const Subtask& holder) {
    return static_cast<GroupTask*>(holder.task->d->owner)->d->admission;
}

void TreeSlots::giveBackAbove(BaseTask* task) {
    Subtask* const holder = holderAbove(task);
    if (holder && std::exchange(holder->slot, Subtask::Slot::None) == Subtask::Slot::Held)
        admissionOf(*holder)->giveBack(1);
}

void TreeSlots::lend(BaseTask* task) {
    Subtask* const holder = holderAbove(task);
    if (!holder)
        return;
    ++holder->waits;
    if (std::exchange(holder->slot, Subtask::Slot::Lent) == Subtask::Slot::Lent)
        return;
    const std::shared_ptr<Admission> slots = admissionOf(*holder);
    slots->giveBack(1);
    slots->pump();
}

bool TreeSlots::isLent(const BaseTask* task) {
    const Subtask* const holder = holderAbove(task);
    return holder && holder->slot == Subtask::Slot::Lent;
}

//! Stands in line for the slot that was lent.
struct TreeSlots::Return : Admission::Guest {
    Return(BaseTask* waiting, std::function<void()> next) : task(waiting), then(std::move(next)) {}
    bool admitted() override {
        if (!task || !task->isRunning())
            return false;
        Subtask* const holder = holderAbove(task);
        const bool isLent = holder && holder->slot == Subtask::Slot::Lent && holder->waits == 0;
        if (isLent)
            holder->slot = Subtask::Slot::Held;
        then();
        return isLent;
    }
    const QPointer<BaseTask> task;
    const std::function<void()> then;
};

void TreeSlots::takeBack(BaseTask* task, std::function<void()> then, BaseTask::SlotOrder order) {
    Subtask* const holder = holderAbove(task);
    if (!holder || holder->slot != Subtask::Slot::Lent || --holder->waits > 0) {
        then();
        return;
    }
    const std::shared_ptr<Admission> slots = admissionOf(*holder);
    const auto guest = std::make_shared<Return>(task, std::move(then));
    if (order == BaseTask::SlotOrder::BeforeOthers)
        slots->enqueueFirst(guest);
    else
        slots->enqueue(guest, 1);
    slots->pump();
}

} // namespace orx
