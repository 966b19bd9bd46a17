#pragma once

namespace orx {

//! How many waits are nested in one another on this thread.
int waitDepth();

} // namespace orx
