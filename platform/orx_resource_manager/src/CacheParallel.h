#pragma once

#include <cstddef>
#include <functional>

namespace orx {

//! Calls \a work for each number from 0 to \a count - 1, in no order, on a few threads at once, the caller's
//! among them, and returns when all calls have. For what mostly waits for the disk: it uses no worker of the
//! pool, which the caller may be. \a work must not throw.
void inParallel(size_t count, const std::function<void(size_t)>& work);

} // namespace orx
