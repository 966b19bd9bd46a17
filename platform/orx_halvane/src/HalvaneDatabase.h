#pragma once

#include <SqliteFile.h>

namespace orx {

//! The client's own database, `halvane.sqlite` in the configuration directory: the version history and the
//! journal of uploads; see SqliteFile. Every commit is flushed. One connection per process, opened anew when
//! the directory is another one. Thread: any; blocks on the disk.
class HalvaneDatabase {
public:
    using Access = SqliteFile::Access;
    using Work = SqliteFile::Work;

    //! Runs \a work, which may throw what SQLiteCpp throws: that becomes an error that names the file and the
    //! remedy, and nothing of a Write is kept.
    static Error run(Access access, const Work& work);
    static QString filePath();
};

} // namespace orx
