#include "HalvaneHistory.h"

#include "HalvaneConnection.h"
#include "HalvaneDatabase.h"
#include "HalvaneTemporaryDirs.h"

#include <QCoreApplication>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Statement.h>

namespace orx {

namespace {

void bindFile(SQLite::Statement& statement, const QString& canonicalPath, int fileId) {
    statement.bind(":server", HalvaneConnection::instance().serverKey().toStdString());
    statement.bind(":path", canonicalPath.toStdString());
    statement.bind(":file", fileId);
}

} // namespace

Result<std::optional<int>> HalvaneHistory::fileVersion(const QString& localPath, int fileId) const {
    std::optional<int> version;
    const QString path = canonicalLocalPath(localPath);
    ORX_RETURN_ON_ERROR(HalvaneDatabase::run(HalvaneDatabase::Access::Read, [&](SQLite::Database& database) {
        const auto query = SqliteFile::prepared(
            database,
            "SELECT version FROM history WHERE server = :server AND path = :path AND file_id = :file");
        bindFile(*query, path, fileId);
        if (query->executeStep())
            version = query->getColumn(0).getInt();
    }));
    return version;
}

namespace {

Error record(const char* sql, const QString& localPath, int fileId, int version) {
    if (localPath.isEmpty() || fileId < 1 || version < 1)
        return ORX_ECATCH(Error(
            ErrorCode::InvalidArgument,
            QCoreApplication::translate(
                "orx::HalvaneHistory", "Version %3 of the file with the id %2 cannot be recorded for \"%1\".")
                .arg(localPath, QString::number(fileId), QString::number(version))));
    const QString path = canonicalLocalPath(localPath);
    if (HalvaneTemporaryDirs::contains(path))
        return Error();
    return ORX_ECATCH(HalvaneDatabase::run(HalvaneDatabase::Access::Write, [&](SQLite::Database& database) {
        const auto statement = SqliteFile::prepared(database, sql);
        bindFile(*statement, path, fileId);
        statement->bind(":version", version);
        statement->exec();
    }));
}

} // namespace

Error HalvaneHistory::setFileVersion(const QString& localPath, int fileId, int version) {
    return ORX_ECATCH(record("INSERT OR REPLACE INTO history (server, path, file_id, version) "
                             "VALUES (:server, :path, :file, :version)",
                             localPath, fileId, version));
}

Error HalvaneHistory::raiseFileVersion(const QString& localPath, int fileId, int version) {
    return ORX_ECATCH(record("INSERT OR REPLACE INTO history (server, path, file_id, version) "
                             "SELECT :server, :path, :file, :version WHERE NOT EXISTS (SELECT * FROM history "
                             "WHERE server = :server AND path = :path AND file_id = :file "
                             "AND version > :version)",
                             localPath, fileId, version));
}

void HalvaneHistory::registerTemporaryDir(const QString& dir) {
    HalvaneTemporaryDirs::add(dir);
}

void HalvaneHistory::unregisterTemporaryDir(const QString& dir) {
    HalvaneTemporaryDirs::remove(dir);
}

} // namespace orx
