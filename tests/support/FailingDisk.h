#pragma once

#include <string>

namespace orx::testing {

//! While it lives, a call of this process that changes something below a directory fails: write, fsync, close
//! of what was written, making files and directories, setting times, giving names; or one that opens a file.
//! The source is compiled into the test program itself, whose functions then come before those of the C
//! library. One at a time.
class FailingDisk {
public:
    enum class Calls {
        ThatWrite,
        ThatOpenToRead,    //!< of files only
        ThatOpenADirectory //!< the directory itself
    };
    enum class Lasts {
        Once,       //!< one call fails
        FromThenOn, //!< and all that come after it, but giving names
        ForGood     //!< and all that come after it
    };

    //! The call number \a failing, counted from 0, fails with \a error (errno).
    FailingDisk(const std::string& directory, int failing, int error, Lasts lasts,
                Calls calls = Calls::ThatWrite);
    ~FailingDisk();
    FailingDisk(const FailingDisk&) = delete;
    FailingDisk& operator=(const FailingDisk&) = delete;

    //! The name of the call that failed; empty when there were fewer.
    std::string failed() const;
};

} // namespace orx::testing
