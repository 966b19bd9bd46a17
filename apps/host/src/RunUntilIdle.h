#pragma once

#include "halvane_host_export.h"

#include <BaseTask.h>

namespace halvane::host {

//! Executes \a task and spins the calling thread's event loop until the task and all its descendants have
//! ended; returns the task's error. For hosts whose main thread may block, such as a command line.
HALVANE_HOST_EXPORT orx::Error runUntilIdle(orx::BaseTask& task);

} // namespace halvane::host
