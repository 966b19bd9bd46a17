#pragma once

#include "orx_tasks_export.h"

#include "Task.h"

#include <chrono>

namespace orx {

//! One step of a larger task that waits, without anything running meanwhile. Ends at once when cancelled.
class ORX_TASKS_EXPORT DelayStepTask : public Task {
    Q_OBJECT
public:
    explicit DelayStepTask(std::chrono::milliseconds delay);

protected:
    void start() override;
    void doCancel() override;

private:
    std::chrono::milliseconds m_delay;
};

} // namespace orx
