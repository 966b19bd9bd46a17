#include "store/sqlite_connection.h"

#include <algorithm>
#include <cerrno>
#include <sqlite3.h>

namespace halvane::server {

namespace {

constexpr int busyMilliseconds = 20'000;

SQLite::Database openDatabase(const std::string& path, bool create) {
    try {
        return SQLite::Database(path, SQLite::OPEN_READWRITE | (create ? SQLite::OPEN_CREATE : 0),
                                busyMilliseconds);
    } catch (const SQLite::Exception& error) {
        throw ApiError(ErrorCode::Internal,
                       "The catalogue '" + path + "' cannot be opened: " + error.what() + ".");
    }
}

} // namespace

SqliteConnection::SqliteConnection(const std::string& path, bool create)
    : m_database(openDatabase(path, create)) {
    try {
        execute("PRAGMA journal_mode=WAL");
        execute("PRAGMA synchronous=FULL");
        execute("PRAGMA foreign_keys=ON");
        execute("PRAGMA temp_store=MEMORY");
        execute("PRAGMA cache_size=-1000");
        execute("PRAGMA wal_autocheckpoint=0");
    } catch (const SQLite::Exception& error) {
        throw translated(error);
    }
}

void SqliteConnection::execute(const char* sql) {
    m_database.exec(sql);
}

bool SqliteConnection::inTransaction() {
    return sqlite3_get_autocommit(m_database.getHandle()) == 0;
}

ApiError SqliteConnection::translated(const SQLite::Exception& error) {
    const int systemErrno = sqlite3_system_errno(m_database.getHandle());
    const bool ioError =
        (error.getErrorCode() & 0xFF) == SQLITE_IOERR || (error.getErrorCode() & 0xFF) == SQLITE_CANTOPEN;
    if (error.getErrorCode() == SQLITE_FULL || (ioError && (systemErrno == ENOSPC || systemErrno == EDQUOT)))
        return {ErrorCode::StorageFull, "The server has no room left for its catalogue."};
    return {ErrorCode::Internal, std::string("The catalogue failed: ") + error.what() + "."};
}

std::unique_ptr<SQLite::Statement> SqliteConnection::take(std::string_view sql) {
    const auto found = m_idle.find(sql);
    if (found == m_idle.end() || !found->second)
        return std::make_unique<SQLite::Statement>(m_database, std::string(sql));
    return std::move(found->second);
}

void SqliteConnection::giveBack(std::string_view sql, std::unique_ptr<SQLite::Statement> statement) {
    if (const auto found = m_idle.find(sql); found != m_idle.end())
        found->second = std::move(statement);
    else
        m_idle.emplace(sql, std::move(statement));
}

Query::Query(SqliteConnection& connection, std::string_view sql)
    : m_connection(connection), m_sql(sql), m_statement(connection.take(sql)) {}

Query::~Query() {
    // A failed statement reports its failure once more when it is reset; it has been thrown already.
    if (m_statement->tryReset() == SQLITE_OK) {
        m_statement->clearBindings();
        m_connection.giveBack(m_sql, std::move(m_statement));
    }
}

std::optional<std::int64_t> Query::optionalInteger(int column) const {
    if (isNull(column))
        return std::nullopt;
    return integer(column);
}

void Query::bindOne(int index, std::span<const unsigned char> blob) {
    m_statement->bind(index, static_cast<const void*>(blob.data()), static_cast<int>(blob.size()));
}

void Query::copyBlob(int column, std::span<unsigned char> into) const {
    const SQLite::Column value = m_statement->getColumn(column);
    if (static_cast<std::size_t>(value.getBytes()) != into.size())
        throw ApiError(ErrorCode::Internal, "The catalogue holds a damaged checksum.");
    const auto* data = static_cast<const unsigned char*>(value.getBlob());
    std::copy(data, data + into.size(), into.begin());
}

} // namespace halvane::server
