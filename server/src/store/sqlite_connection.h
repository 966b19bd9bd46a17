// One connection to the catalogue's SQLite database, with its prepared statements.
#pragma once

#include "core/errors.h"

#include <SQLiteCpp/SQLiteCpp.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace halvane::server {

// Not thread-safe: one user at a time.
class SqliteConnection {
public:
    // Opens an existing database (create: makes it when missing) with the settings that the catalogue relies
    // on. Throws ApiError.
    explicit SqliteConnection(const std::string& path, bool create = false);

    SQLite::Database& database() { return m_database; }
    void execute(const char* sql);
    // True between BEGIN and COMMIT; SQLite leaves a transaction of its own accord when it runs out of room.
    bool inTransaction();
    // What a failure of this connection means to a caller.
    ApiError translated(const SQLite::Exception& error);

private:
    friend class Query;
    // Finds a statement by its text without a copy of it.
    struct HashOfText {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    std::unique_ptr<SQLite::Statement> take(std::string_view sql);
    void giveBack(std::string_view sql, std::unique_ptr<SQLite::Statement> statement);

    SQLite::Database m_database;
    std::unordered_map<std::string, std::unique_ptr<SQLite::Statement>, HashOfText, std::equal_to<>> m_idle;
};

// One use of a prepared statement, which is reset and kept when this goes. Failures are SQLite::Exception.
class Query {
public:
    Query(SqliteConnection& connection, std::string_view sql);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    // Binds the parameters ?1, ?2 ... in their order.
    template <typename... Values>
    Query& bind(const Values&... values) {
        int index = 0;
        (bindOne(++index, values), ...);
        return *this;
    }
    // Binds the parameter ?index alone.
    template <typename Value>
    Query& bindAt(int index, const Value& value) {
        bindOne(index, value);
        return *this;
    }
    bool next() { return m_statement->executeStep(); }
    // Runs a statement that gives no rows; how many it changed.
    int run() { return m_statement->exec(); }

    std::int64_t integer(int column) const { return m_statement->getColumn(column).getInt64(); }
    std::optional<std::int64_t> optionalInteger(int column) const;
    bool isNull(int column) const { return m_statement->getColumn(column).isNull(); }
    std::string text(int column) const { return m_statement->getColumn(column).getString(); }
    // A blob of exactly that length.
    template <typename Digest>
    Digest digest(int column) const {
        Digest digest{};
        copyBlob(column, digest);
        return digest;
    }

private:
    void bindOne(int index, std::int64_t value) { m_statement->bind(index, value); }
    void bindOne(int index, int value) { m_statement->bind(index, value); }
    void bindOne(int index, std::uint32_t value) { m_statement->bind(index, value); }
    void bindOne(int index, bool value) { m_statement->bind(index, value ? 1 : 0); }
    // Copied: what is bound may be a temporary that is gone when the statement steps.
    void bindOne(int index, const std::string& value) { m_statement->bind(index, value); }
    void bindOne(int index, const char* value) { m_statement->bind(index, value); }
    void bindOne(int index, std::span<const unsigned char> blob);
    template <typename Value>
    void bindOne(int index, const std::optional<Value>& value) {
        if (value)
            bindOne(index, *value);
        else
            m_statement->bind(index);
    }
    void copyBlob(int column, std::span<unsigned char> into) const;

    SqliteConnection& m_connection;
    std::string_view m_sql;
    std::unique_ptr<SQLite::Statement> m_statement;
};

} // namespace halvane::server
