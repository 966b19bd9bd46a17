#pragma once

#include "Admission.h"
#include "SubtaskSet.h"

namespace orx {

//! Which task holds a slot of its tree of groups: each child that a group admitted, until it ends or starts a
//! group of its own. What it runs as steps shares it.
class TreeSlots {
public:
    //! \a task, or a task below the holder, starts a group: the holder gives its slot back for good.
    static void giveBackAbove(BaseTask* task);
    static void lend(BaseTask* task);
    static bool isLent(const BaseTask* task);
    static void takeBack(BaseTask* task, std::function<void()> then, BaseTask::SlotOrder order);

private:
    struct Return;
    static Subtask* holderAbove(const BaseTask* task);
    static std::shared_ptr<Admission> admissionOf(const Subtask& holder);
};

} // namespace orx
