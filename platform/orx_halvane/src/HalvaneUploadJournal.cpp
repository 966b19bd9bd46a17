#include "HalvaneUploadJournal.h"

#include "HalvaneConnection.h"
#include "HalvaneDatabase.h"
#include "HalvaneProcessIdentity.h"
#include "HalvaneTemporaryDirs.h"

#include <FileTime.h>

#include <QCoreApplication>
#include <QFile>
#include <QUuid>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

using Access = HalvaneDatabase::Access;
using ItemType = HalvaneResourceReference::ItemType;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::HalvaneUploadJournal", text);
}

std::string text(const QString& value) {
    return value.toStdString();
}

QString textColumn(SQLite::Statement& row, const char* name) {
    return QString::fromUtf8(row.getColumn(name).getText());
}

HalvaneUploadRecord recordOf(SQLite::Statement& row) {
    HalvaneUploadRecord record;
    record.rowId = row.getColumn("row_id").getInt64();
    record.serverKey = textColumn(row, "server");
    record.userName = textColumn(row, "user");
    record.idempotencyKey = row.getColumn("idempotency_key").getText();
    record.uploadId = row.getColumn("upload_id").getInt();
    record.localPath = textColumn(row, "path");
    record.size = row.getColumn("size").getInt64();
    record.modifiedNs = row.getColumn("modified_ns").getInt64();
    record.targetItemType = ItemType(row.getColumn("target_type").getInt());
    record.targetId = row.getColumn("target_id").getInt();
    record.originalTargetItemType = ItemType(row.getColumn("original_target_type").getInt());
    record.originalTargetId = row.getColumn("original_target_id").getInt();
    record.targetFileName = textColumn(row, "target_name");
    record.temporary = row.getColumn("temporary").getInt() != 0;
    return record;
}

bool hasLivingOwner(SQLite::Statement& row) {
    if (row.getColumn("owner_pid").isNull())
        return false;
    const HalvaneProcessIdentity owner{row.getColumn("owner_pid").getInt64(),
                                       row.getColumn("owner_start").getInt64(),
                                       textColumn(row, "owner_boot")};
    return owner.isAlive();
}

//! By which target a record is looked for.
enum class Target { Current, Original };

//! Records of the same unchanged content for the same target that nobody living holds, newest first. A
//! temporary packed copy has another path and another time with every run: its size and target count.
QList<HalvaneUploadRecord> freeRecords(SQLite::Database& database, const HalvaneUploadRecord& wanted,
                                       Target target) {
    std::string sql = "SELECT * FROM uploads WHERE size = :size AND target_name = :name AND server = :server "
                      "AND user = :user AND temporary = :temporary ";
    sql += target == Target::Current ? "AND target_type = :type AND target_id = :target "
                                     : "AND original_target_type = :type AND original_target_id = :target ";
    if (!wanted.temporary)
        sql += "AND path = :path AND modified_ns = :modified ";
    const auto kept = SqliteFile::prepared(database, sql + "ORDER BY row_id DESC");
    SQLite::Statement& query = *kept;
    query.bind(":size", int64_t(wanted.size));
    query.bind(":name", text(wanted.targetFileName));
    query.bind(":server", text(wanted.serverKey));
    query.bind(":user", text(wanted.userName));
    query.bind(":temporary", int(wanted.temporary));
    const bool isCurrent = target == Target::Current;
    query.bind(":type", int(isCurrent ? wanted.targetItemType : wanted.originalTargetItemType));
    query.bind(":target", isCurrent ? wanted.targetId : wanted.originalTargetId);
    if (!wanted.temporary) {
        query.bind(":path", text(wanted.localPath));
        query.bind(":modified", int64_t(wanted.modifiedNs));
    }
    QList<HalvaneUploadRecord> records;
    while (query.executeStep())
        if (!hasLivingOwner(query))
            records.append(recordOf(query));
    return records;
}

void bindOwner(SQLite::Statement& statement) {
    const HalvaneProcessIdentity& self = HalvaneProcessIdentity::ofThisProcess();
    statement.bind(":pid", int64_t(self.pid));
    statement.bind(":start", int64_t(self.startTime));
    statement.bind(":boot", text(self.bootId));
}

void takeOver(SQLite::Database& database, qint64 rowId) {
    const auto update =
        SqliteFile::prepared(database, "UPDATE uploads SET owner_pid = :pid, owner_start = :start, "
                                       "owner_boot = :boot WHERE row_id = :row");
    bindOwner(*update);
    update->bind(":row", int64_t(rowId));
    update->exec();
}

void removeRecord(SQLite::Database& database, qint64 rowId) {
    const auto statement = SqliteFile::prepared(database, "DELETE FROM uploads WHERE row_id = :row");
    statement->bind(":row", int64_t(rowId));
    statement->exec();
}

void releaseRecord(SQLite::Database& database, qint64 rowId) {
    const auto update = SqliteFile::prepared(
        database, "UPDATE uploads SET owner_pid = NULL, owner_start = NULL, owner_boot = NULL "
                  "WHERE row_id = :row AND owner_pid = :pid AND owner_start = :start AND owner_boot = :boot");
    bindOwner(*update);
    update->bind(":row", int64_t(rowId));
    update->exec();
}

//! Twice as long as a server remembers the result of an upload: of no use to anybody by then.
void forgetOldRecords(SQLite::Database& database) {
    QList<qint64> old;
    const auto query = SqliteFile::prepared(
        database, "SELECT * FROM uploads WHERE begun_at < strftime('%Y-%m-%d', 'now', '-60 days')");
    while (query->executeStep())
        if (!hasLivingOwner(*query))
            old.append(query->getColumn("row_id").getInt64());
    for (const qint64 rowId : old)
        removeRecord(database, rowId);
}

HalvaneUploadRecord insertNew(SQLite::Database& database, HalvaneUploadRecord record) {
    forgetOldRecords(database);
    record.idempotencyKey = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    record.uploadId = -1;
    const auto kept = SqliteFile::prepared(
        database,
        "INSERT INTO uploads (server, user, idempotency_key, upload_id, path, size, modified_ns, "
        "target_type, target_id, original_target_type, original_target_id, target_name, temporary, "
        "owner_pid, owner_start, owner_boot) VALUES (:server, :user, :key, -1, :path, :size, :modified, "
        ":type, :target, :original_type, :original_target, :name, :temporary, :pid, :start, :boot)");
    SQLite::Statement& insert = *kept;
    insert.bind(":server", text(record.serverKey));
    insert.bind(":user", text(record.userName));
    insert.bind(":key", record.idempotencyKey.toStdString());
    insert.bind(":path", text(record.localPath));
    insert.bind(":size", int64_t(record.size));
    insert.bind(":modified", int64_t(record.modifiedNs));
    insert.bind(":type", int(record.targetItemType));
    insert.bind(":target", record.targetId);
    insert.bind(":original_type", int(record.originalTargetItemType));
    insert.bind(":original_target", record.originalTargetId);
    insert.bind(":name", text(record.targetFileName));
    insert.bind(":temporary", int(record.temporary));
    bindOwner(insert);
    insert.exec();
    record.rowId = database.getLastInsertRowid();
    return record;
}

Error unreadable(const QString& path, int errnoValue) {
    return Error(ErrorCode::FileNotReadable,
                 translated("Could not read file \"%1\": %2").arg(path, qt_error_string(errnoValue)));
}

//! Size and modification time of a regular file that can be opened.
Error describeContent(const QString& path, HalvaneUploadRecord& record) {
    // Without O_NONBLOCK a pipe in the place of the file would hold the caller up.
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return unreadable(path, errno);
    struct stat status {};
    const int failure = ::fstat(descriptor, &status) == 0 ? 0 : errno;
    ::close(descriptor);
    if (failure != 0)
        return unreadable(path, failure);
    if (!S_ISREG(status.st_mode))
        return Error(ErrorCode::FileNotReadable, translated("\"%1\" is not a regular file.").arg(path));
    record.size = status.st_size;
    record.modifiedNs = nanosecondsOf(status.st_mtim);
    return Error();
}

} // namespace

Result<HalvaneUploadRecord> HalvaneUploadJournal::acquire(const HalvaneUploadRecord& wanted) {
    HalvaneUploadRecord record;
    ORX_RETURN_ON_ERROR(HalvaneDatabase::run(Access::Write, [&](SQLite::Database& database) {
        const QList<HalvaneUploadRecord> found = freeRecords(database, wanted, Target::Current);
        if (found.isEmpty()) {
            record = insertNew(database, wanted);
            return;
        }
        record = found.front();
        takeOver(database, record.rowId);
    }));
    return record;
}

Error HalvaneUploadJournal::setUploadId(qint64 rowId, int uploadId) {
    int changed = 0;
    ORX_RETURN_ON_ERROR(HalvaneDatabase::run(Access::Write, [&](SQLite::Database& database) {
        const auto update =
            SqliteFile::prepared(database, "UPDATE uploads SET upload_id = :upload WHERE row_id = :row");
        update->bind(":upload", uploadId);
        update->bind(":row", int64_t(rowId));
        changed = update->exec();
    }));
    if (changed == 0)
        return ORX_ECATCH(
            Error(ErrorCode::NotFound, translated("The upload %1 is not in the journal \"%2\" any more.")
                                           .arg(uploadId)
                                           .arg(HalvaneDatabase::filePath())));
    return Error();
}

Error HalvaneUploadJournal::release(qint64 rowId) {
    return ORX_ECATCH(end({{End::Release, rowId}}));
}

Error HalvaneUploadJournal::remove(qint64 rowId) {
    return ORX_ECATCH(end({{End::Remove, rowId}}));
}

Error HalvaneUploadJournal::end(const std::vector<std::pair<End, qint64>>& records) {
    return ORX_ECATCH(HalvaneDatabase::run(Access::Write, [&records](SQLite::Database& database) {
        for (const auto& [how, rowId] : records)
            how == End::Remove ? removeRecord(database, rowId) : releaseRecord(database, rowId);
    }));
}

Result<QList<HalvaneUploadRecord>> HalvaneUploadJournal::unsettled(const HalvaneUploadRecord& wanted) {
    QList<HalvaneUploadRecord> records;
    ORX_RETURN_ON_ERROR(HalvaneDatabase::run(Access::Read, [&](SQLite::Database& database) {
        records = freeRecords(database, wanted, Target::Original);
    }));
    return records;
}

bool HalvaneUploadJournal::isChanged(const HalvaneUploadRecord& record) {
    struct stat status {};
    if (record.temporary || ::stat(QFile::encodeName(record.localPath).constData(), &status) != 0)
        return false;
    return !S_ISREG(status.st_mode) || status.st_size != record.size ||
           nanosecondsOf(status.st_mtim) != record.modifiedNs;
}

Result<HalvaneUploadRecord> HalvaneUploadJournal::describe(const HalvaneFileUploadParameters& parameters) {
    HalvaneUploadRecord record;
    ORX_RETURN_ON_ERROR(describeContent(parameters.localPath, record));
    record.serverKey = HalvaneConnection::instance().serverKey();
    record.userName = HalvaneConnection::instance().userName();
    record.localPath = canonicalLocalPath(parameters.localPath);
    record.targetItemType = parameters.targetItemType;
    record.targetId = parameters.targetId;
    record.originalTargetItemType = parameters.originalTargetItemType;
    record.originalTargetId = parameters.originalTargetId;
    record.targetFileName = parameters.targetFileName;
    record.temporary = HalvaneTemporaryDirs::contains(record.localPath);
    return record;
}

} // namespace orx
