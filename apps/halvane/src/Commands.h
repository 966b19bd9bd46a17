#pragma once

#include "CommandLine.h"

namespace halvane::cli {

class Interruption;
class Output;

//! Carries out what the arguments ask for and prints the outcome; returns the exit code. Runs event loops of
//! its own; thread: the main one.
int runCommand(const CommandLine& commandLine, const Output& output, Interruption& interruption);

} // namespace halvane::cli
