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

//! While it lives, a directory seems to be a file system of its own; from hang() on who asks how much is free
//! there waits, and is answered with what was free then. One at a time. The source is that of SmallDisk.
class HungDisk {
public:
    explicit HungDisk(const std::string& directory);
    ~HungDisk();
    HungDisk(const HungDisk&) = delete;
    HungDisk& operator=(const HungDisk&) = delete;

    static void hang();
    //! Waits until somebody waits for an answer.
    static void awaitAsker();
    //! Answers who waits, and all who ask from now on.
    static void answer();
};

} // namespace orx::testing
