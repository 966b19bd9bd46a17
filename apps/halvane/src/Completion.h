// Scripts that let a shell complete the command line, made from the commands themselves.
#pragma once

#include "CommandShape.h"

namespace halvane::cli {

//! What `halvane completion SHELL` prints. \a shell is one of completionShells(); \a commands begins with the
//! program itself.
std::string completionScript(const std::string& shell, const std::vector<CommandShape>& commands);

//! "bash", "zsh", "fish".
const std::vector<std::string>& completionShells();

} // namespace halvane::cli
