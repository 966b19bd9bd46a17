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

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

constexpr int kBusyTimeoutMs = 10'000;

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

void inTransaction(SQLite::Database& database, const SqliteFile::Work& work) {
    database.exec("BEGIN IMMEDIATE");
    try {
        work(database);
        database.exec("COMMIT");
    } catch (...) {
        if (sqlite3_get_autocommit(database.getHandle()) == 0)
            database.tryExec("ROLLBACK");
        throw;
    }
}

void createSchema(SQLite::Database& database, const SqliteFile::Format& format) {
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
std::unique_ptr<SQLite::Database> openDatabase(const QString& path, const SqliteFile::Format& format) {
    const QDeadlineTimer deadline(kBusyTimeoutMs);
    for (;;) {
        try {
            auto database = std::make_unique<SQLite::Database>(QFile::encodeName(path).toStdString(),
                                                               SQLite::OPEN_READWRITE, kBusyTimeoutMs);
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
    QString path;
    Format format;
    QMutex mutex;
    std::pair<dev_t, ino_t> identity;
    std::unique_ptr<SQLite::Database> database;

    Error ensureOpen();
    void execute(Access access, const Work& work);
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

void SqliteFile::Private::execute(Access access, const Work& work) {
    if (access == Access::Read) {
        work(*database);
        return;
    }
    database->exec(access == Access::Write ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
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

Error SqliteFile::run(Access access, const Work& work) {
    const QMutexLocker lock(&d->mutex);
    for (bool isAgain = false;; isAgain = true) {
        try {
            ORX_RETURN_ON_ERROR(d->ensureOpen());
            d->execute(access, work);
            return Error();
        } catch (const SQLite::Exception& exception) {
            // A connection that met damage may hold a stale view of a file that is repaired meanwhile.
            if (exception.getErrorCode() != SQLITE_BUSY)
                d->database.reset();
            const bool isSetAside = !isAgain && isDamage(exception) && d->format.onDamage &&
                                    d->format.onDamage(d->path, QString::fromUtf8(exception.what()));
            if (!isSetAside)
                return ORX_ECATCH(d->failure(exception));
        }
    }
}

} // namespace orx
