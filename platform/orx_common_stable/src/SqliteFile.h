#pragma once

#include "Error.h"

#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace SQLite {
class Database;
class Statement;
} // namespace SQLite

namespace orx {

//! A statement that the connection keeps prepared for the next who needs it, lent to one work. When it goes,
//! it is reset and nothing is bound to it.
class ORX_COMMON_STABLE_EXPORT KeptStatement {
public:
    ~KeptStatement();
    KeptStatement(KeptStatement&& other) noexcept : m_statement(std::exchange(other.m_statement, nullptr)) {}
    KeptStatement& operator=(KeptStatement&&) = delete;
    SQLite::Statement& operator*() const { return *m_statement; }
    SQLite::Statement* operator->() const { return m_statement; }

private:
    friend class SqliteFile;
    explicit KeptStatement(SQLite::Statement& statement) : m_statement(&statement) {}
    SQLite::Statement* m_statement;
};

//! One connection to a database file that several processes share: WAL, made for the owner only, opened on
//! first use and again when the file behind the name is another one. Thread: any, one work at a time; blocks
//! on the disk.
//!
//! Writes that wait for their turn are done together by the next of them: one transaction and one flush for
//! all. When one of them fails, nothing of this is kept and each is done alone.
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
        //! How long a write waits for another process.
        std::chrono::milliseconds busyTimeout{10'000};
    };
    using Work = std::function<void(SQLite::Database&)>;

    SqliteFile(const QString& path, const Format& format);
    ~SqliteFile();
    //! Runs \a work, which may throw what SQLiteCpp throws: that becomes an error that names the file and the
    //! remedy (ParseError when it is damaged or of a newer format, Busy, StorageFull, FileNotWritable or
    //! FileNotReadable), and nothing of a write is kept. \a work may be called twice, and a write by another
    //! thread that waits here, too, so that it must not wait for anything that its caller holds.
    Error run(Access access, const Work& work);
    //! The statement of the text \a sql. \a database: what a work is given; one at a time of each text.
    static KeptStatement prepared(SQLite::Database& database, const std::string& sql);
    QString path() const;
    //! How many writes of this process wait for one that runs.
    qsizetype waitingWrites() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
