// The command line.
#pragma once

namespace halvane::server {

// Exit codes of halvane-server.
enum ExitCode {
    Done = 0,
    Failed = 1,      // the message on stderr says what and how to remedy it
    WrongUsage = 2,  // unknown or missing options
    NotPossible = 3, // refused: already prepared, in use, unknown group or folder, name taken, invalid name
};

int runCommandLine(int argc, char** argv);

} // namespace halvane::server
