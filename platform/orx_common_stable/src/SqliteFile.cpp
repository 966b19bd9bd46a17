#include "SqliteFile.h"

#include "AtomicFile.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include <cerrno>
#include <exception>
#include <optional>
#include <unordered_map>
#include <vector>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

//! Of the writes that are done together: who came first should not wait for many.
constexpr size_t kMostTogether = 64;

struct Connection : SQLite::Database {
    using SQLite::Database::Database;
    std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>> statements;
    std::optional<SqliteFile::Access> durability; //!< for which `synchronous` is set
};

void execute(Connection& connection, const char* sql) {
    SqliteFile::prepared(connection, sql)->exec();
}

QString translated(const char* text) {
    return QCoreApplication::translate("orx::SqliteFile", text);
}

bool isDamage(const SQLite::Exception& exception) {
    return exception.getErrorCode() == SQLITE_CORRUPT || exception.getErrorCode() == SQLITE_NOTADB;
}

//! Makes an empty file that only the owner may read, so that what SQLite puts beside it is private too.
Error ensurePrivateFile(const QString& path) {
    const int descriptor = ::open(QFile::encodeName(path).constData(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        if (errno == EEXIST)
            return Error();
        return Error::fromErrno(errno, translated("Could not create the file \"%1\"").arg(path));
    }
    ::close(descriptor);
    return AtomicFile::syncDirectory(QFileInfo(path).path());
}

//! Device and inode of a file; zeros when there is none.
std::pair<dev_t, ino_t> identityOf(const QString& path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? std::pair(status.st_dev, status.st_ino)
                                                                     : std::pair<dev_t, ino_t>(0, 0);
}

int schemaVersion(SQLite::Database& database) {
    return database.execAndGet("PRAGMA user_version").getInt();
}

void inTransaction(Connection& database, const SqliteFile::Work& work) {
    execute(database, "BEGIN IMMEDIATE");
    try {
        work(database);
        execute(database, "COMMIT");
    } catch (...) {
        if (sqlite3_get_autocommit(database.getHandle()) == 0)
            database.tryExec("ROLLBACK");
        throw;
    }
}

void createSchema(Connection& database, const SqliteFile::Format& format) {
    inTransaction(database, [&format](SQLite::Database& db) {
        // Another process may have been first.
        if (schemaVersion(db) != 0)
            return;
        db.exec(format.schema);
        db.exec("PRAGMA user_version = " + std::to_string(format.version));
    });
}

//! Switching to WAL and opening during another process's recovery may answer "busy" without asking the busy
//! handler, so that the whole step is repeated until its time is up.
std::unique_ptr<Connection> openDatabase(const QString& path, const SqliteFile::Format& format) {
    const QDeadlineTimer deadline(format.busyTimeout);
    for (;;) {
        try {
            auto database =
                std::make_unique<Connection>(QFile::encodeName(path).toStdString(), SQLite::OPEN_READWRITE,
                                             int(format.busyTimeout.count()));
            if (schemaVersion(*database) > format.version)
                return database;
            database->execAndGet("PRAGMA journal_mode = WAL");
            if (schemaVersion(*database) == 0)
                createSchema(*database, format);
            return database;
        } catch (const SQLite::Exception& exception) {
            if (exception.getErrorCode() != SQLITE_BUSY || deadline.hasExpired())
                throw;
            QThread::msleep(5);
        }
    }
}

} // namespace

struct SqliteFile::Private {
    //! A write whose caller waits. What comes of it is written and read by who holds `mutex`.
    struct Waiting {
        Access access;
        const Work& work;
        Error result = {};
        std::exception_ptr thrown = {};
        bool isDone = false;
    };

    QString path;
    Format format;
    QMutex mutex; //!< of the connection
    std::pair<dev_t, ino_t> identity;
    std::unique_ptr<Connection> database;
    QMutex lineMutex;
    std::vector<Waiting*> line; //!< writes that nobody has begun

    Error ensureOpen();
    void carryOut(Access access, const Work& work);
    Error alone(Access access, const Work& work);
    void alone(Waiting& waiting);
    bool together(Access access, const std::vector<Waiting*>& batch);
    std::vector<Waiting*> takeWith(Waiting& first);
    void serve(Waiting& first);
    Error failure(const SQLite::Exception& exception) const;
};

Error SqliteFile::Private::ensureOpen() {
    if (database && identity == identityOf(path))
        return Error();
    database.reset();
    ORX_RETURN_ON_ERROR(ensurePrivateFile(path));
    auto opened = openDatabase(path, format);
    if (const int version = schemaVersion(*opened); version > format.version)
        return Error(
            ErrorCode::ParseError,
            translated("The file \"%1\" with %2 has the format %3 of a newer release; this one knows "
                       "formats up to %4. %5")
                .arg(path, format.subject, QString::number(version), QString::number(format.version),
                     format.newerRemedy));
    database = std::move(opened);
    identity = identityOf(path);
    return Error();
}

void SqliteFile::Private::carryOut(Access access, const Work& work) {
    if (access == Access::Read) {
        work(*database);
        return;
    }
    if (database->durability != access) {
        database->exec(access == Access::Write ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        database->durability = access;
    }
    inTransaction(*database, work);
}

Error SqliteFile::Private::failure(const SQLite::Exception& exception) const {
    const QString reason = QString::fromUtf8(exception.what());
    // No room for the shared memory that WAL needs.
    const bool isFull = exception.getExtendedErrorCode() == SQLITE_IOERR_SHMSIZE;
    switch (isFull ? SQLITE_FULL : exception.getErrorCode()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return Error(ErrorCode::ParseError, translated("The file \"%1\" with %2 is damaged (%3). %4")
                                                .arg(path, format.subject, reason, format.damagedRemedy));
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Error(ErrorCode::Busy,
                     translated("The file \"%1\" is being used by another process (%2). Try again.")
                         .arg(path, reason));
    case SQLITE_FULL:
        return Error(
            ErrorCode::StorageFull,
            translated("There is no room left for the file \"%1\" (%2). Free some space and try again.")
                .arg(path, reason));
    case SQLITE_READONLY:
        return Error(
            ErrorCode::FileNotWritable,
            translated("The file \"%1\" cannot be written (%2). Check its permissions and those of its "
                       "directory.")
                .arg(path, reason));
    default:
        return Error(
            ErrorCode::FileNotReadable,
            translated("The file \"%1\" with %2 cannot be used (%3). Check the file, its permissions "
                       "and those of its directory.")
                .arg(path, format.subject, reason));
    }
}

SqliteFile::SqliteFile(const QString& path, const Format& format) : d(std::make_unique<Private>()) {
    d->path = path;
    d->format = format;
}

SqliteFile::~SqliteFile() = default;

QString SqliteFile::path() const {
    return d->path;
}

qsizetype SqliteFile::waitingWrites() const {
    const QMutexLocker lock(&d->lineMutex);
    return qsizetype(d->line.size());
}

KeptStatement::~KeptStatement() {
    if (!m_statement)
        return;
    m_statement->tryReset();
    m_statement->clearBindings();
}

KeptStatement SqliteFile::prepared(SQLite::Database& database, const std::string& sql) {
    auto& kept = static_cast<Connection&>(database).statements[sql];
    if (!kept)
        kept = std::make_unique<SQLite::Statement>(database, sql);
    return KeptStatement(*kept);
}

Error SqliteFile::Private::alone(Access access, const Work& work) {
    for (bool isAgain = false;; isAgain = true) {
        try {
            ORX_RETURN_ON_ERROR(ensureOpen());
            carryOut(access, work);
            return Error();
        } catch (const SQLite::Exception& exception) {
            // A connection that met damage may hold a stale view of a file that is repaired meanwhile.
            if (exception.getErrorCode() != SQLITE_BUSY)
                database.reset();
            const bool isSetAside = !isAgain && isDamage(exception) && format.onDamage &&
                                    format.onDamage(path, QString::fromUtf8(exception.what()));
            if (!isSetAside)
                return ORX_ECATCH(failure(exception));
        }
    }
}

void SqliteFile::Private::alone(Waiting& waiting) {
    try {
        waiting.result = alone(waiting.access, waiting.work);
    } catch (...) {
        waiting.thrown = std::current_exception(); // its caller's affair, and not this thread's
    }
}

//! False: nothing of it is kept, for a reason that one of them gets when it is done alone.
bool SqliteFile::Private::together(Access access, const std::vector<Waiting*>& batch) {
    bool isBegun = false;
    try {
        if (ensureOpen().hasError())
            return false;
        carryOut(access, [&batch, &isBegun](SQLite::Database& connection) {
            isBegun = true;
            for (const Waiting* waiting : batch)
                waiting->work(connection);
        });
        return true;
    } catch (const SQLite::Exception& exception) {
        if (isBegun || exception.getErrorCode() != SQLITE_BUSY)
            return false;
        // They have waited for the other process together, and not each once more.
        for (Waiting* waiting : batch)
            waiting->result = ORX_ECATCH(failure(exception));
        return true;
    } catch (...) {
        return false;
    }
}

//! \a first, and others of its kind after it.
std::vector<SqliteFile::Private::Waiting*> SqliteFile::Private::takeWith(Waiting& first) {
    std::vector<Waiting*> batch{&first};
    const QMutexLocker lock(&lineMutex);
    std::erase_if(line, [&batch, &first](Waiting* waiting) {
        if (waiting == &first)
            return true;
        if (waiting->access != first.access || batch.size() == kMostTogether)
            return false;
        batch.push_back(waiting);
        return true;
    });
    return batch;
}

void SqliteFile::Private::serve(Waiting& first) {
    const std::vector<Waiting*> batch = takeWith(first);
    const bool isDone = batch.size() > 1 && together(first.access, batch);
    for (Waiting* waiting : batch) {
        if (!isDone)
            alone(*waiting);
        waiting->isDone = true;
    }
}

Error SqliteFile::run(Access access, const Work& work) {
    if (access == Access::Read) {
        const QMutexLocker lock(&d->mutex);
        return d->alone(access, work);
    }
    Private::Waiting waiting{access, work};
    {
        const QMutexLocker lock(&d->lineMutex);
        d->line.push_back(&waiting);
    }
    {
        const QMutexLocker lock(&d->mutex);
        if (!waiting.isDone)
            d->serve(waiting);
    }
    if (waiting.thrown)
        std::rethrow_exception(waiting.thrown);
    return waiting.result;
}

} // namespace orx
