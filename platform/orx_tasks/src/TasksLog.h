#pragma once

#include <QLoggingCategory>

namespace orx {

//! Category "orx.tasks": faults in the use of tasks, and failures that no task is left to end with.
const QLoggingCategory& tasksLog();

} // namespace orx
