// The manual page, made from the commands themselves.
#pragma once

#include "CommandShape.h"

namespace halvane::cli {

//! The page for section 1, as troff reads it. \a version is that of the program, \a commands begins with the
//! program itself.
std::string manPage(const std::string& version, const std::vector<CommandShape>& commands);

} // namespace halvane::cli
