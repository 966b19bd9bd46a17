#pragma once

#include <cstdint>
#include <string>

namespace orx::testing {

//! While it lives, a directory seems to be a file system of its own with so many bytes, less what the files
//! in it have. The source is compiled into the test program itself, whose functions then come before those of
//! the C library. Where there are several the last one counts.
class SmallDisk {
public:
    SmallDisk(const std::string& directory, std::int64_t bytes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;
};

} // namespace orx::testing
