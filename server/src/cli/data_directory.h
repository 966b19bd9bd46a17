// The directory that holds everything of one server: catalog.sqlite3, staging/, blobs/ and the lock file.
#pragma once

#include "auth/passwords.h"
#include "blobs/descriptor.h"

#include <memory>
#include <string>

namespace halvane::server {

class CatalogStore;

// Prepares an empty or missing directory, with one administrator. Throws ApiError when it holds something
// already.
void initialiseDataDirectory(const std::string& directory, const std::string& admin,
                             const std::string& password, const PasswordCost& cost);

// Throws ApiError that says how to prepare it when the directory is not.
void requirePrepared(const std::string& directory);

// Brings the catalogue of an earlier version up to this one; for who holds the lock of the directory.
void upgradeCatalog(const std::string& directory);

// The catalogue of a prepared directory; throws ApiError that says how to prepare it.
std::unique_ptr<CatalogStore> openCatalog(const std::string& directory);

// Held by the one server process of a directory; throws ApiError when another one has it.
Descriptor lockDataDirectory(const std::string& directory);

// Throws ApiError(InvalidName) or BadRequest for what no account may have.
void requireAccount(const std::string& name, const std::string& password);

} // namespace halvane::server
