// The tables of the catalogue.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace halvane::server {

class SqliteConnection;

inline constexpr int schemaVersion = 2;

// Makes all tables, the root folder and the settings in one transaction.
void createSchema(SqliteConnection& connection,
                  const std::vector<std::pair<std::string, std::string>>& settings);

// Throws ApiError with a message for the operator when the database is not a catalogue of this version.
void requireSchema(SqliteConnection& connection, const std::string& path);

// Brings a catalogue of an earlier version up to this one, in one transaction; leaves all others alone. Only
// while no server works with it: one of an earlier version would not keep up what is added.
void upgradeSchema(SqliteConnection& connection);

} // namespace halvane::server
