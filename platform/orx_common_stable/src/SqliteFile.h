#pragma once

#include "Error.h"

#include <QString>

#include <functional>
#include <memory>

namespace SQLite {
class Database;
}

namespace orx {

//! One connection to a database file that several processes share: WAL, made for the owner only, opened on
//! first use and again when the file behind the name is another one. Thread: any, one work at a time; blocks
//! on the disk.
class ORX_COMMON_STABLE_EXPORT SqliteFile {
public:
    enum class Access {
        Read,        //!< no transaction: for a single statement
        Write,       //!< one transaction that has the write lock from its beginning and is flushed
        WriteRelaxed //!< the same, but the newest of these may be undone by a power cut
    };
    struct Format {
        //! Makes the tables of an empty database.
        const char* schema = "";
        int version = 1;
        //! What messages call it, for instance "the records of the cache".
        QString subject;
        //! What a person does when it is damaged.
        QString damagedRemedy;
        //! What a person does when a newer release wrote it.
        QString newerRemedy;
        //! Called when the file is damaged; when it returns true, the file was set aside and the work is
        //! tried once more. May be empty.
        std::function<bool(const QString& path, const QString& reason)> onDamage;
    };
    using Work = std::function<void(SQLite::Database&)>;

    SqliteFile(const QString& path, const Format& format);
    ~SqliteFile();
    //! Runs \a work, which may throw what SQLiteCpp throws: that becomes an error that names the file and the
    //! remedy (ParseError when it is damaged or of a newer format, Busy, StorageFull, FileNotWritable or
    //! FileNotReadable), and nothing of a write is kept. \a work may be called twice.
    Error run(Access access, const Work& work);
    QString path() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
