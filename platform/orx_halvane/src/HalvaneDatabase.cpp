#include "HalvaneDatabase.h"

#include "HalvanePaths.h"

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>

#include <memory>

namespace orx {

namespace {

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

SqliteFile::Format format() {
    return {.schema = kSchema,
            .version = 1,
            .subject = translated("the history of versions and the open uploads"),
            .damagedRemedy =
                translated("Move it and the files beside it that begin with its name away; then interrupted "
                           "uploads start anew and versions are recorded afresh."),
            .newerRemedy =
                translated("Update this program, or let it use another directory (HALVANE_CONFIG_DIR)."),
            .onDamage = {}};
}

//! The process's connection. Who works with it keeps it, also when the directory becomes another one.
struct Connection {
    QMutex mutex;
    std::shared_ptr<SqliteFile> file;
};

struct ClosedAtExit {
    Connection& connection;
    ~ClosedAtExit() {
        const QMutexLocker lock(&connection.mutex);
        connection.file.reset();
    }
};

//! Workers may use it while the process ends: it is closed then, and never destroyed.
Connection& connection() {
    static Connection* const instance = new Connection;
    static const ClosedAtExit closed{*instance};
    return *instance;
}

std::shared_ptr<SqliteFile> fileAt(const QString& path) {
    Connection& current = connection();
    const QMutexLocker lock(&current.mutex);
    if (!current.file || current.file->path() != path)
        current.file = std::make_shared<SqliteFile>(path, format());
    return current.file;
}

} // namespace

QString HalvaneDatabase::filePath() {
    return HalvanePaths::configDir() + QStringLiteral("/halvane.sqlite");
}

Error HalvaneDatabase::run(Access access, const Work& work) {
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(HalvanePaths::configDir()));
    return ORX_ECATCH(fileAt(filePath())->run(access, work));
}

} // namespace orx
