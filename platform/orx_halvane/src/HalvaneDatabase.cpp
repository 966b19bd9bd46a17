#include "HalvaneDatabase.h"

#include "HalvanePaths.h"

#include <AtomicFile.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 10'000;

constexpr const char* kSchema = R"(
CREATE TABLE history (
    server TEXT NOT NULL,
    path TEXT NOT NULL,
    file_id INTEGER NOT NULL,
    version INTEGER NOT NULL,
    recorded_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now')),
    PRIMARY KEY (server, path, file_id)
) WITHOUT ROWID;
CREATE TABLE uploads (
    row_id INTEGER PRIMARY KEY AUTOINCREMENT,
    server TEXT NOT NULL,
    user TEXT NOT NULL,
    idempotency_key TEXT NOT NULL UNIQUE,
    upload_id INTEGER NOT NULL,
    path TEXT NOT NULL,
    size INTEGER NOT NULL,
    modified_ns INTEGER NOT NULL,
    target_type INTEGER NOT NULL,
    target_id INTEGER NOT NULL,
    original_target_type INTEGER NOT NULL,
    original_target_id INTEGER NOT NULL,
    target_name TEXT NOT NULL,
    temporary INTEGER NOT NULL,
    owner_pid INTEGER,
    owner_start INTEGER,
    owner_boot TEXT,
    begun_at TEXT NOT NULL DEFAULT (strftime('%Y-%m-%dT%H:%M:%fZ', 'now'))
);
CREATE INDEX uploads_by_size ON uploads (size, target_name);
)";

QString translated(const char* text) {
    return QCoreApplication::translate("orx::HalvaneDatabase", text);
}

Error failure(const SQLite::Exception& exception, const QString& path) {
    const QString reason = QString::fromUtf8(exception.what());
    switch (exception.getErrorCode()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return Error(
            ErrorCode::ParseError,
            translated("The file \"%1\" with the history of versions and the open uploads is damaged (%2). "
                       "Move it and the files beside it that begin with its name away; then interrupted "
                       "uploads start anew and versions are recorded afresh.")
                .arg(path, reason));
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
            translated("The file \"%1\" with the history of versions and the open uploads cannot be used "
                       "(%2). Check the file, its permissions and those of its directory.")
                .arg(path, reason));
    }
}

//! Makes an empty file that only the owner may read, so that what SQLite puts beside it is private too.
Error ensurePrivateFile(const QString& path, const QString& directory) {
    const QByteArray name = QFile::encodeName(path);
    const int descriptor =
        ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor < 0) {
        if (errno == EEXIST)
            return Error();
        return Error::fromErrno(errno, translated("Could not create the file \"%1\"").arg(path));
    }
    ::close(descriptor);
    return AtomicFile::syncDirectory(directory);
}

//! Device and inode of a file; zeros when there is none.
std::pair<dev_t, ino_t> identity(const QString& path) {
    struct stat status {};
    return ::stat(QFile::encodeName(path).constData(), &status) == 0 ? std::pair(status.st_dev, status.st_ino)
                                                                     : std::pair<dev_t, ino_t>(0, 0);
}

//! The process's connection.
struct Connection {
    QMutex mutex;
    QString path;
    std::pair<dev_t, ino_t> identity;
    std::unique_ptr<SQLite::Database> database;
};

struct ClosedAtExit {
    Connection& connection;
    ~ClosedAtExit() {
        const QMutexLocker lock(&connection.mutex);
        connection.database.reset();
    }
};

//! Workers may use it while the process ends: it is closed then, and never destroyed.
Connection& connection() {
    static Connection* const instance = new Connection;
    static const ClosedAtExit closed{*instance};
    return *instance;
}

int schemaVersion(SQLite::Database& database) {
    return database.execAndGet("PRAGMA user_version").getInt();
}

void inTransaction(SQLite::Database& database, const HalvaneDatabase::Work& work) {
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

void createSchema(SQLite::Database& database) {
    inTransaction(database, [](SQLite::Database& db) {
        // Another process may have been first.
        if (schemaVersion(db) != 0)
            return;
        db.exec(kSchema);
        db.exec("PRAGMA user_version = " + std::to_string(kSchemaVersion));
    });
}

//! Switching to WAL and opening during another process's recovery may answer "busy" without asking the busy
//! handler, so that the whole step is repeated until its time is up.
std::unique_ptr<SQLite::Database> openDatabase(const QString& path) {
    const QDeadlineTimer deadline(kBusyTimeoutMs);
    for (;;) {
        try {
            auto database = std::make_unique<SQLite::Database>(QFile::encodeName(path).toStdString(),
                                                               SQLite::OPEN_READWRITE, kBusyTimeoutMs);
            if (schemaVersion(*database) > kSchemaVersion)
                return database;
            database->exec("PRAGMA synchronous = FULL");
            database->execAndGet("PRAGMA journal_mode = WAL");
            if (schemaVersion(*database) == 0)
                createSchema(*database);
            return database;
        } catch (const SQLite::Exception& exception) {
            if (exception.getErrorCode() != SQLITE_BUSY || deadline.hasExpired())
                throw;
            QThread::msleep(5);
        }
    }
}

Error ensureOpen(Connection& current, const QString& path) {
    if (current.database && current.path == path && current.identity == identity(path))
        return Error();
    current.database.reset();
    const QString directory = HalvanePaths::configDir();
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(directory));
    ORX_RETURN_ON_ERROR(ensurePrivateFile(path, directory));
    auto database = openDatabase(path);
    if (const int version = schemaVersion(*database); version > kSchemaVersion)
        return Error(
            ErrorCode::ParseError,
            translated("The file \"%1\" has the format %2 of a newer release; this one knows formats up to "
                       "%3. Update this program, or let it use another directory (HALVANE_CONFIG_DIR).")
                .arg(path, QString::number(version), QString::number(kSchemaVersion)));
    current.database = std::move(database);
    current.path = path;
    current.identity = identity(path);
    return Error();
}

} // namespace

QString HalvaneDatabase::filePath() {
    return HalvanePaths::configDir() + QStringLiteral("/halvane.sqlite");
}

Error HalvaneDatabase::run(Access access, const Work& work) {
    const QString path = filePath();
    Connection& current = connection();
    const QMutexLocker lock(&current.mutex);
    try {
        ORX_RETURN_ON_ERROR(ensureOpen(current, path));
        if (access == Access::Write)
            inTransaction(*current.database, work);
        else
            work(*current.database);
        return Error();
    } catch (const SQLite::Exception& exception) {
        // A connection that met damage may hold a stale view of a file that is repaired meanwhile.
        if (exception.getErrorCode() != SQLITE_BUSY)
            current.database.reset();
        return ORX_ECATCH(failure(exception, path));
    }
}

} // namespace orx
