#pragma once

#include "halvane_host_export.h"

#include <Error.h>

#include <span>

namespace halvane::host {

//! The exit codes of a host process. The values are fixed; docs/cli.md documents them.
enum class ExitCode : int {
    Success = 0,
    General = 1,          //!< anything that has no code of its own
    Usage = 2,            //!< an argument, a path or a name is not usable as it was given
    LocalRead = 3,        //!< a local file does not exist, cannot be read or is damaged
    LocalWrite = 4,       //!< a local file cannot be written, exists already, or the disk is full
    NotAuthenticated = 5, //!< nobody is logged in, the login has expired, or user name or password is wrong
    NotFoundOnServer = 6, //!< no such file or folder on the server, or none that one may read
    NoPrivilege = 7,      //!< one may read it but not do this to it
    VersionConflict = 8,  //!< the server has a newer version than this machine
    RefusedByServer = 9,  //!< the server does not accept the request or the name
    Network = 10,         //!< the server cannot be reached, or the connection was lost
    NoHalvaneServer = 11, //!< what answers does not speak the protocol
    ServerTrouble = 12,   //!< the server is full, overloaded or has a fault
    ContentMismatch = 13, //!< a file changed while it was sent, or content differs from its checksum
    PartlyFailed = 14,    //!< some of what was asked for was done, and some failed
    Canceled = 130        //!< interrupted
};

//! One row of the documentation of the exit codes.
struct ExitCodeInfo {
    ExitCode code;
    //! What it means, for people; one line.
    const char* meaning;
};

//! All exit codes in ascending order.
HALVANE_HOST_EXPORT std::span<const ExitCodeInfo> exitCodes();

//! The exit code of an error of \a domain; Success for code 0. Codes that the table does not know give
//! General (ServerTrouble in the server's domain, Network in the network's).
HALVANE_HOST_EXPORT ExitCode exitCodeOf(orx::ErrorDomain domain, int code);
inline ExitCode exitCodeOf(const orx::Error& error) {
    return exitCodeOf(error.domain(), error.code());
}

//! A stable name of the error for scripts, such as "VersionConflict" or "ConnectionFailed"; "Other" for codes
//! that the table does not know.
HALVANE_HOST_EXPORT QString errorName(orx::ErrorDomain domain, int code);

} // namespace halvane::host
