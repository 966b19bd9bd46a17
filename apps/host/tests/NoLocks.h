#pragma once

namespace halvane::host {

//! While it lives no file can be locked (flock()), as on file systems that know no locks.
class NoLocks {
public:
    NoLocks();
    ~NoLocks();
    NoLocks(const NoLocks&) = delete;
    NoLocks& operator=(const NoLocks&) = delete;
};

} // namespace halvane::host
