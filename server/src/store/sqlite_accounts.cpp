// The accounts of the SQLite catalogue.
#include "store/sqlite_access.h"
#include "store/sqlite_catalog.h"
#include "store/sqlite_schema.h"

#include <sqlite3.h>

namespace halvane::server {

namespace {

Id lastId(SqliteConnection& connection) {
    return connection.database().getLastInsertRowid();
}

std::optional<Id> groupOfName(SqliteConnection& connection, const std::string& name) {
    Query query(connection, "SELECT id FROM groups WHERE name = ?1");
    query.bind(name);
    if (!query.next())
        return std::nullopt;
    return query.integer(0);
}

Id requireGroup(SqliteConnection& connection, const std::string& name) {
    const auto id = groupOfName(connection, name);
    if (!id)
        throw ApiError(ErrorCode::BadRequest,
                       "There is no group named '" + name + "'; add it with 'halvane-server group add'.");
    return *id;
}

void countAccessChange(SqliteConnection& connection) {
    connection.execute("UPDATE settings SET value = value + 1 WHERE name = 'access_change'");
}

std::vector<Group> groupsOf(SqliteConnection& connection, Id user) {
    Query query(connection, "SELECT g.id, g.name FROM memberships m JOIN groups g ON g.id = m.group_id"
                            " WHERE m.user_id = ?1 ORDER BY g.id");
    query.bind(user);
    std::vector<Group> groups;
    while (query.next())
        groups.push_back({query.integer(0), query.text(1)});
    return groups;
}

} // namespace

std::optional<Caller> findCaller(SqliteConnection& connection, const Sha256Digest& tokenHash, TimeMs now) {
    Query query(connection,
                "SELECT u.id, u.name, u.is_admin, t.expires_at FROM tokens t JOIN users u ON u.id = t.user_id"
                " WHERE t.hash = ?1 AND t.expires_at > ?2");
    if (!query.bind(std::span<const unsigned char>(tokenHash), now).next())
        return std::nullopt;
    return Caller{query.integer(0), query.text(1), query.integer(2) != 0,
                  groupsOf(connection, query.integer(0)), query.integer(3)};
}

SqliteCatalog::SqliteCatalog(const std::string& path) : m_path(path), m_writer(path) {
    read([&](SqliteConnection& connection) { requireSchema(connection, path); });
}

void SqliteCatalog::create(const std::string& path,
                           const std::vector<std::pair<std::string, std::string>>& settings) {
    SqliteConnection connection(path, true);
    try {
        createSchema(connection, settings);
    } catch (const SQLite::Exception& error) {
        throw connection.translated(error);
    }
}

void SqliteCatalog::upgrade(const std::string& path) {
    SqliteConnection connection(path);
    try {
        upgradeSchema(connection);
    } catch (const SQLite::Exception& error) {
        throw connection.translated(error);
    }
}

void SqliteCatalog::read(const std::function<void(SqliteConnection&)>& work) {
    std::unique_ptr<SqliteConnection> connection;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idleReaders.empty()) {
            connection = std::move(m_idleReaders.back());
            m_idleReaders.pop_back();
        }
    }
    if (!connection)
        connection = std::make_unique<SqliteConnection>(m_path);
    try {
        Query(*connection, "BEGIN").run();
        work(*connection);
        Query(*connection, "COMMIT").run();
    } catch (const SQLite::Exception& error) {
        throw connection->translated(error); // the connection is closed rather than used again
    } catch (const ApiError&) {
        connection->execute("ROLLBACK");
        const std::lock_guard lock(m_mutex);
        m_idleReaders.push_back(std::move(connection));
        throw;
    }
    const std::lock_guard lock(m_mutex);
    m_idleReaders.push_back(std::move(connection));
}

Id SqliteCatalog::createUser(const NewUser& user) {
    Id id = 0;
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        {
            Query known(connection, "SELECT 1 FROM users WHERE name = ?1");
            if (known.bind(user.name).next())
                throw ApiError(ErrorCode::BadRequest, "There is a user named '" + user.name + "' already.");
        }
        Query(connection,
              "INSERT INTO users (name, password_hash, is_admin, created_at) VALUES (?1, ?2, ?3, ?4)")
            .bind(user.name, user.passwordHash, user.isAdmin, currentTime())
            .run();
        id = lastId(connection);
        for (const std::string& group : user.groups)
            Query(connection, "INSERT OR IGNORE INTO memberships (user_id, group_id) VALUES (?1, ?2)")
                .bind(id, requireGroup(connection, group))
                .run();
        countAccessChange(connection);
    });
    return id;
}

Id SqliteCatalog::createGroup(const std::string& name) {
    Id id = 0;
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        if (groupOfName(connection, name))
            throw ApiError(ErrorCode::BadRequest, "There is a group named '" + name + "' already.");
        Query(connection, "INSERT INTO groups (name) VALUES (?1)").bind(name).run();
        id = lastId(connection);
    });
    return id;
}

void SqliteCatalog::grant(Id folder, const std::string& group, PrivilegeSet privileges) {
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        {
            Query known(connection, "SELECT 1 FROM folders WHERE id = ?1");
            if (!known.bind(folder).next())
                throw ApiError(ErrorCode::NotFound,
                               "There is no folder with the id " + std::to_string(folder) + ".");
        }
        Query(connection, "INSERT INTO grants (folder_id, group_id, privileges) VALUES (?1, ?2, ?3)"
                          " ON CONFLICT (folder_id, group_id) DO UPDATE SET privileges = excluded.privileges")
            .bind(folder, requireGroup(connection, group), privileges.bits())
            .run();
        countAccessChange(connection);
    });
}

std::optional<Credentials> SqliteCatalog::credentials(const std::string& userName) {
    std::optional<Credentials> result;
    read([&](SqliteConnection& connection) {
        Query query(connection, "SELECT id, password_hash FROM users WHERE name = ?1");
        if (query.bind(userName).next())
            result = Credentials{query.integer(0), query.text(1)};
    });
    return result;
}

void SqliteCatalog::addToken(const Sha256Digest& hash, Id user, TimeMs expires) {
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        Query(connection, "INSERT INTO tokens (hash, user_id, expires_at) VALUES (?1, ?2, ?3)")
            .bind(std::span<const unsigned char>(hash), user, expires)
            .run();
    });
}

void SqliteCatalog::revokeToken(const Sha256Digest& hash) {
    m_writer.run(Durability::Flushed, [&](SqliteConnection& connection) {
        Query(connection, "DELETE FROM tokens WHERE hash = ?1")
            .bind(std::span<const unsigned char>(hash))
            .run();
    });
}

std::optional<Caller> SqliteCatalog::callerOfToken(const Sha256Digest& hash, TimeMs now) {
    std::optional<Caller> result;
    read([&](SqliteConnection& connection) { result = findCaller(connection, hash, now); });
    return result;
}

Caller SqliteCatalog::caller(Id user) {
    Caller result;
    read([&](SqliteConnection& connection) {
        Query query(connection, "SELECT id, name, is_admin FROM users WHERE id = ?1");
        if (!query.bind(user).next())
            throw ApiError(ErrorCode::NotFound, "There is no user with the id " + std::to_string(user) + ".");
        result =
            Caller{query.integer(0), query.text(1), query.integer(2) != 0, groupsOf(connection, user), 0};
    });
    return result;
}

std::vector<Group> SqliteCatalog::groups(const Caller& caller) {
    if (!caller.isAdmin)
        return caller.groups;
    std::vector<Group> result;
    read([&](SqliteConnection& connection) {
        Query query(connection, "SELECT id, name FROM groups ORDER BY id");
        while (query.next())
            result.push_back({query.integer(0), query.text(1)});
    });
    return result;
}

std::string SqliteCatalog::setting(const std::string& name) {
    std::string value;
    read([&](SqliteConnection& connection) {
        Query query(connection, "SELECT value FROM settings WHERE name = ?1");
        if (query.bind(name).next())
            value = query.text(0);
    });
    return value;
}

} // namespace halvane::server
