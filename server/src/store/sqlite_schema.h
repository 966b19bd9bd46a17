// The tables of the catalogue.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace halvane::server {

class SqliteConnection;

inline constexpr int schemaVersion = 1;

// Makes all tables, the root folder and the settings in one transaction.
void createSchema(SqliteConnection& connection,
                  const std::vector<std::pair<std::string, std::string>>& settings);

// Throws ApiError with a message for the operator when the database is not a catalogue of this version.
void requireSchema(SqliteConnection& connection, const std::string& path);

} // namespace halvane::server
