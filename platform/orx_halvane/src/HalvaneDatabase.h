#pragma once

#include <Error.h>

#include <QString>

#include <functional>

namespace SQLite {
class Database;
}

namespace orx {

//! The client's own database, `halvane.sqlite` in the configuration directory: the version history and the
//! journal of uploads. WAL, every commit flushed, shared by all processes. One connection per process under a
//! mutex, opened on first use and again when the directory or the file behind the name is another one.
//! Thread: any; blocks on the disk.
class HalvaneDatabase {
public:
    enum class Access {
        Read, //!< no transaction: for a single statement
        Write //!< one transaction that has the write lock from its beginning
    };
    using Work = std::function<void(SQLite::Database&)>;

    //! Runs \a work, which may throw what SQLiteCpp throws: that becomes an error that names the file and the
    //! remedy, and nothing of a Write is kept.
    static Error run(Access access, const Work& work);
    static QString filePath();
};

} // namespace orx
