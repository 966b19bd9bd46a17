#include "CacheRecords.h"

#include <QCoreApplication>
#include <QFile>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

namespace orx {

namespace {

constexpr int kFormatVersion = 1;

constexpr const char* kSchema = R"(
CREATE TABLE entries (
    entry_id INTEGER PRIMARY KEY AUTOINCREMENT,
    sub_path TEXT NOT NULL UNIQUE,
    kind INTEGER NOT NULL,
    bytes INTEGER NOT NULL,
    files INTEGER NOT NULL,
    modified_ns INTEGER NOT NULL,
    sha256 TEXT NOT NULL,
    added_ms INTEGER NOT NULL,
    used_ms INTEGER NOT NULL,
    policy INTEGER NOT NULL DEFAULT 0,
    damaged INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX entries_by_use ON entries (policy, used_ms, entry_id);
CREATE TABLE items (
    entry_id INTEGER NOT NULL REFERENCES entries (entry_id),
    path BLOB NOT NULL,
    kind INTEGER NOT NULL,
    bytes INTEGER NOT NULL,
    modified_ns INTEGER NOT NULL,
    sha256 TEXT NOT NULL,
    PRIMARY KEY (entry_id, path)
) WITHOUT ROWID;
CREATE TABLE totals (bytes INTEGER NOT NULL);
INSERT INTO totals VALUES (0);
CREATE TRIGGER entry_added AFTER INSERT ON entries BEGIN
    UPDATE totals SET bytes = bytes + new.bytes;
END;
CREATE TRIGGER entry_replaced AFTER UPDATE OF bytes ON entries BEGIN
    UPDATE totals SET bytes = bytes + new.bytes - old.bytes;
END;
CREATE TRIGGER entry_removed AFTER DELETE ON entries BEGIN
    UPDATE totals SET bytes = bytes - old.bytes;
END;
)";

constexpr const char* kColumns =
    "SELECT entry_id, sub_path, kind, bytes, files, modified_ns, sha256, added_ms, used_ms, policy, damaged "
    "FROM entries ";

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

SqliteFile::Format format(std::function<bool(const QString&, const QString&)> onDamage) {
    return {kSchema,
            kFormatVersion,
            translated("the records of the cache"),
            translated("Move it away; what the cache holds is fetched again."),
            translated("Update this program, or let it use another directory for its cache."),
            std::move(onDamage)};
}

QDateTime time(qint64 milliseconds) {
    return QDateTime::fromMSecsSinceEpoch(milliseconds, Qt::UTC);
}

QString textOf(const SQLite::Column& column) {
    return QString::fromUtf8(column.getText());
}

CacheRecords::Record readRecord(SQLite::Statement& row) {
    CacheRecords::Record record;
    record.id = row.getColumn(0).getInt64();
    ResourceCacheEntry& entry = record.entry;
    entry.subPath = textOf(row.getColumn(1));
    entry.type = PathType(row.getColumn(2).getInt());
    entry.bytes = row.getColumn(3).getInt64();
    entry.files = row.getColumn(4).getInt64();
    entry.sha256 = textOf(row.getColumn(6));
    entry.addedAt = time(row.getColumn(7).getInt64());
    entry.lastUsedAt = time(row.getColumn(8).getInt64());
    entry.policy = ResourceCleanupPolicy(row.getColumn(9).getInt());
    record.entry.isDamaged = row.getColumn(10).getInt() != 0;
    record.payload.type = entry.type;
    record.payload.bytes = entry.bytes;
    record.payload.files = entry.files;
    record.payload.modifiedNs = row.getColumn(5).getInt64();
    record.payload.sha256 = entry.sha256.toLatin1();
    return record;
}

void readItems(SQLite::Database& database, CacheRecords::Record& record) {
    SQLite::Statement rows(database,
                           "SELECT path, kind, bytes, modified_ns, sha256 FROM items WHERE entry_id "
                           "= ? ORDER BY path");
    rows.bind(1, int64_t(record.id));
    record.payload.items.clear();
    while (rows.executeStep()) {
        CachePayload::Item item;
        item.path =
            QByteArray(static_cast<const char*>(rows.getColumn(0).getBlob()), rows.getColumn(0).getBytes());
        item.type = PathType(rows.getColumn(1).getInt());
        item.bytes = rows.getColumn(2).getInt64();
        item.modifiedNs = rows.getColumn(3).getInt64();
        item.sha256 = QByteArray(rows.getColumn(4).getText());
        record.payload.items.push_back(std::move(item));
    }
}

void writeItems(SQLite::Database& database, qint64 id, const CachePayload& payload) {
    SQLite::Statement clear(database, "DELETE FROM items WHERE entry_id = ?");
    clear.bind(1, int64_t(id));
    clear.exec();
    SQLite::Statement insert(database, "INSERT INTO items (entry_id, path, kind, bytes, modified_ns, sha256) "
                                       "VALUES (?, ?, ?, ?, ?, ?)");
    for (const CachePayload::Item& item : payload.items) {
        insert.bind(1, int64_t(id));
        insert.bind(2, item.path.constData(), int(item.path.size()));
        insert.bind(3, int(item.type));
        insert.bind(4, int64_t(item.bytes));
        insert.bind(5, int64_t(item.modifiedNs));
        insert.bind(6, item.sha256.toStdString());
        insert.exec();
        insert.reset();
    }
}

bool isEntry(SQLite::Database& database, const QString& subPath) {
    SQLite::Statement at(database, "SELECT 1 FROM entries WHERE sub_path = ?");
    at.bind(1, subPath.toStdString());
    return at.executeStep();
}

bool isWithinEntry(SQLite::Database& database, const QString& subPath) {
    for (qsizetype end = subPath.lastIndexOf(u'/'); end > 0; end = subPath.lastIndexOf(u'/', end - 1))
        if (isEntry(database, subPath.left(end)))
            return true;
    return false;
}

bool isAboveEntries(SQLite::Database& database, const QString& subPath) {
    // What lies below begins with the sub-path and "/"; "0" is the character after it.
    SQLite::Statement below(database, "SELECT 1 FROM entries WHERE sub_path > ? AND sub_path < ? LIMIT 1");
    below.bind(1, (subPath + u'/').toStdString());
    below.bind(2, (subPath + u'0').toStdString());
    return below.executeStep();
}

//! Whether another entry holds the place, or the place others.
bool overlaps(SQLite::Database& database, const QString& subPath) {
    return isWithinEntry(database, subPath) || isAboveEntries(database, subPath);
}

void writeEntry(SQLite::Database& database, const QString& subPath, const CachePayload& payload) {
    SQLite::Statement row(
        database,
        "INSERT INTO entries (sub_path, kind, bytes, files, modified_ns, sha256, added_ms, used_ms) "
        "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?7) ON CONFLICT (sub_path) DO UPDATE SET kind = ?2, "
        "bytes = ?3, files = ?4, modified_ns = ?5, sha256 = ?6, added_ms = ?7, "
        "used_ms = ?7, damaged = 0 RETURNING entry_id");
    row.bind(1, subPath.toStdString());
    row.bind(2, int(payload.type));
    row.bind(3, int64_t(payload.bytes));
    row.bind(4, int64_t(payload.files));
    row.bind(5, int64_t(payload.modifiedNs));
    row.bind(6, payload.sha256.toStdString());
    row.bind(7, int64_t(QDateTime::currentMSecsSinceEpoch()));
    row.executeStep();
    const qint64 id = row.getColumn(0).getInt64();
    row.executeStep(); // to its end
    writeItems(database, id, payload);
}

} // namespace

CacheRecords::CacheRecords(const QString& path, std::function<bool(const QString&, const QString&)> onDamage)
    : m_file(path, format(std::move(onDamage))) {}

Result<CacheRecords::Record> CacheRecords::find(const QString& subPath, CachePayload::Depth depth) {
    std::optional<Record> found;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        found.reset();
        SQLite::Statement row(database, std::string(kColumns) + "WHERE sub_path = ?");
        row.bind(1, subPath.toStdString());
        if (!row.executeStep())
            return;
        found = readRecord(row);
        if (depth == CachePayload::Depth::Everything && found->payload.type == PathType::Dir)
            readItems(database, *found);
    }));
    if (!found)
        return Error(ErrorCode::NotFound, translated("\"%1\" is not in the cache.").arg(subPath));
    return std::move(*found);
}

Result<std::vector<CacheRecords::Record>> CacheRecords::all() {
    std::vector<Record> records;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        records.clear();
        SQLite::Statement rows(database, std::string(kColumns) + "ORDER BY sub_path");
        while (rows.executeStep())
            records.push_back(readRecord(rows));
    }));
    return records;
}

Result<QStringList> CacheRecords::subPaths() {
    QStringList subPaths;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        subPaths.clear();
        SQLite::Statement rows(database, "SELECT sub_path FROM entries ORDER BY sub_path");
        while (rows.executeStep())
            subPaths << textOf(rows.getColumn(0));
    }));
    return subPaths;
}

Error CacheRecords::put(const QString& subPath, const CachePayload& payload, Durability durability) {
    bool isOverlapping = false;
    const auto access =
        durability == Durability::Flushed ? SqliteFile::Access::Write : SqliteFile::Access::WriteRelaxed;
    ORX_RETURN_ON_ERROR(m_file.run(access, [&](SQLite::Database& database) {
        isOverlapping = overlaps(database, subPath);
        if (!isOverlapping)
            writeEntry(database, subPath, payload);
    }));
    if (isOverlapping)
        return Error(
            ErrorCode::AlreadyExists,
            translated("\"%1\" lies within another entry of the cache or holds others.").arg(subPath));
    return Error();
}

Result<bool> CacheRecords::isTaken(const QString& subPath) {
    bool isOverlapping = false;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        isOverlapping = overlaps(database, subPath);
    }));
    return isOverlapping;
}

Result<std::vector<CacheRecords::Tie>> CacheRecords::ties(const QStringList& subPaths) {
    std::vector<Tie> ties;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        ties.clear();
        for (const QString& subPath : subPaths)
            ties.push_back(isEntry(database, subPath) || isWithinEntry(database, subPath) ? Tie::Entry
                           : isAboveEntries(database, subPath)                            ? Tie::Above
                                                                                          : Tie::None);
    }));
    return ties;
}

Error CacheRecords::setPolicy(const QString& subPath, ResourceCleanupPolicy policy) {
    int changes = 0;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Write, [&](SQLite::Database& database) {
        SQLite::Statement row(database, "UPDATE entries SET policy = ? WHERE sub_path = ?");
        row.bind(1, int(policy));
        row.bind(2, subPath.toStdString());
        changes = row.exec();
    }));
    return changes > 0 ? Error()
                       : Error(ErrorCode::NotFound, translated("\"%1\" is not in the cache.").arg(subPath));
}

Error CacheRecords::setDamaged(const Record& record) {
    return m_file.run(SqliteFile::Access::Write, [&](SQLite::Database& database) {
        SQLite::Statement row(database, "UPDATE entries SET damaged = 1 WHERE entry_id = ? AND added_ms = ?");
        row.bind(1, int64_t(record.id));
        row.bind(2, int64_t(record.entry.addedAt.toMSecsSinceEpoch()));
        row.exec();
    });
}

Error CacheRecords::setUsed(const QHash<QString, qint64>& uses) {
    return m_file.run(SqliteFile::Access::WriteRelaxed, [&](SQLite::Database& database) {
        SQLite::Statement row(database, "UPDATE entries SET used_ms = max(used_ms, ?) WHERE sub_path = ?");
        for (auto use = uses.begin(); use != uses.end(); ++use) {
            row.bind(1, int64_t(use.value()));
            row.bind(2, use.key().toStdString());
            row.exec();
            row.reset();
        }
    });
}

Error CacheRecords::endFutureUses() {
    const int64_t now = QDateTime::currentMSecsSinceEpoch();
    bool isAny = false;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        SQLite::Statement row(
            database,
            "SELECT 1 FROM entries WHERE policy IN (0, 1, 2) AND used_ms > ? LIMIT 1"); // by the index
        row.bind(1, now);
        isAny = row.executeStep();
    }));
    if (!isAny)
        return Error();
    return m_file.run(SqliteFile::Access::WriteRelaxed, [&](SQLite::Database& database) {
        SQLite::Statement rows(database, "UPDATE entries SET used_ms = ?1 WHERE used_ms > ?1");
        rows.bind(1, now);
        rows.exec();
    });
}

namespace {

//! Removes what belongs to entries that go.
class ItemsRemoval {
public:
    explicit ItemsRemoval(SQLite::Database& database)
        : m_items(database, "DELETE FROM items WHERE entry_id = ?") {}
    void remove(qint64 id) {
        m_items.bind(1, int64_t(id));
        m_items.exec();
        m_items.reset();
    }

private:
    SQLite::Statement m_items;
};

} // namespace

// Undone by a power cut, removals leave records without content, which are no entries.

Error CacheRecords::remove(qint64 id) {
    return m_file.run(SqliteFile::Access::WriteRelaxed, [&](SQLite::Database& database) {
        ItemsRemoval(database).remove(id);
        SQLite::Statement row(database, "DELETE FROM entries WHERE entry_id = ?");
        row.bind(1, int64_t(id));
        row.exec();
    });
}

Result<QSet<qint64>> CacheRecords::removeUnchanged(const std::vector<const Record*>& records) {
    QSet<qint64> gone;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::WriteRelaxed, [&](SQLite::Database& database) {
        gone.clear();
        ItemsRemoval items(database);
        SQLite::Statement row(
            database,
            "DELETE FROM entries WHERE entry_id = ? AND policy = ? AND added_ms = ? AND used_ms = ?");
        for (const Record* record : records) {
            row.bind(1, int64_t(record->id));
            row.bind(2, int(record->entry.policy));
            row.bind(3, int64_t(record->entry.addedAt.toMSecsSinceEpoch()));
            row.bind(4, int64_t(record->entry.lastUsedAt.toMSecsSinceEpoch()));
            if (row.exec() > 0) {
                items.remove(record->id);
                gone.insert(record->id);
            }
            row.reset();
        }
    }));
    return gone;
}

Result<qint64> CacheRecords::totalBytes() {
    qint64 total = 0;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        total = database.execAndGet("SELECT bytes FROM totals").getInt64();
    }));
    return total;
}

Result<std::vector<CacheRecords::Record>> CacheRecords::beyond(const Bounds& bounds,
                                                               const QSet<qint64>& spared) {
    auto total = totalBytes();
    if (total.hasError())
        return std::move(total).error();
    std::vector<Record> victims;
    ORX_RETURN_ON_ERROR(m_file.run(SqliteFile::Access::Read, [&](SQLite::Database& database) {
        victims.clear();
        qint64 left = *total;
        const auto take = [&](const char* condition, int policy, const std::function<bool(qint64)>& goes) {
            SQLite::Statement rows(database, std::string(kColumns) + condition);
            rows.bind(1, policy);
            while (rows.executeStep() && goes(rows.getColumn(8).getInt64())) {
                if (spared.contains(rows.getColumn(0).getInt64()))
                    continue;
                victims.push_back(readRecord(rows));
                left -= victims.back().entry.bytes;
            }
        };
        take("WHERE policy = ? ORDER BY used_ms", int(ResourceCleanupPolicy::Discard),
             [](qint64) { return true; });
        take("WHERE policy = ? ORDER BY used_ms, entry_id", int(ResourceCleanupPolicy::Automatic),
             [&](qint64 usedMs) {
                 return (bounds.maxBytes && left > *bounds.maxBytes) ||
                        (bounds.usedBeforeMs && usedMs < *bounds.usedBeforeMs);
             });
    }));
    return victims;
}

} // namespace orx
