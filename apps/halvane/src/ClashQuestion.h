#pragma once

#include <ClashAnswerer.h>

namespace halvane::cli {

class Output;
class ProgressReport;

//! Puts clashes to the person at the terminal; an empty function when there is no terminal to ask at. The
//! question blocks the thread; a signal that comes meanwhile is the answer to quit. All arguments outlive
//! the function.
host::ClashAnswerer::Question clashQuestion(const Output& output, ProgressReport& progress);

} // namespace halvane::cli
