#include "cli/data_directory.h"

#include "blobs/blob_store.h"
#include "core/errors.h"
#include "core/names.h"
#include "store/sqlite_catalog.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>

namespace halvane::server {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t maximumPasswordBytes = 1024;

std::string catalogPath(const std::string& directory) {
    return directory + "/catalog.sqlite3";
}

void requireEmptyDirectory(const std::string& directory) {
    std::error_code error;
    if (fs::exists(catalogPath(directory), error))
        throw ApiError(ErrorCode::BadRequest,
                       "'" + directory + "' is prepared already; serve it with 'halvane-server --data " +
                           directory + "'.");
    fs::create_directories(directory, error);
    if (error)
        throw systemError("create the data directory '" + directory + "'", error.value());
    const bool empty = fs::is_empty(directory, error);
    if (error)
        throw systemError("read the data directory '" + directory + "'", error.value());
    if (!empty)
        throw ApiError(ErrorCode::BadRequest,
                       "'" + directory + "' holds other files; give an empty or a new directory.");
}

} // namespace

void requireAccount(const std::string& name, const std::string& password) {
    requireValidName(name, "user name");
    if (password.empty() || password.size() > maximumPasswordBytes)
        throw ApiError(ErrorCode::BadRequest, "The password must have 1 to 1024 bytes.");
}

void initialiseDataDirectory(const std::string& directory, const std::string& admin,
                             const std::string& password, const PasswordCost& cost) {
    requireAccount(admin, password);
    requireEmptyDirectory(directory);
    BlobStore::create(directory);
    // The catalogue appears last and whole, so that a directory with one is prepared.
    const std::string temporary = catalogPath(directory) + ".new";
    SqliteCatalog::create(temporary, {{"password_memory_kib", std::to_string(cost.memoryKib)},
                                      {"password_passes", std::to_string(cost.passes)}});
    SqliteCatalog(temporary).createUser({admin, hashPassword(password, cost), true, {}});
    if (::rename(temporary.c_str(), catalogPath(directory).c_str()) != 0)
        throw systemError("create the catalogue in '" + directory + "'", errno);
    syncDirectoryAt(directory);
}

void requirePrepared(const std::string& directory) {
    std::error_code ignored;
    if (!fs::exists(catalogPath(directory), ignored))
        throw ApiError(ErrorCode::BadRequest,
                       "'" + directory +
                           "' is no prepared data directory; prepare it with 'halvane-server init --data " +
                           directory + " --admin NAME --password-stdin'.");
}

void upgradeCatalog(const std::string& directory) {
    SqliteCatalog::upgrade(catalogPath(directory));
}

std::unique_ptr<CatalogStore> openCatalog(const std::string& directory) {
    requirePrepared(directory);
    return std::make_unique<SqliteCatalog>(catalogPath(directory));
}

Descriptor lockDataDirectory(const std::string& directory) {
    const std::string path = directory + "/lock";
    Descriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
    if (!lock.isOpen())
        throw systemError("open '" + path + "'", errno);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        throw ApiError(ErrorCode::BadRequest, "Another halvane-server serves '" + directory + "' already.");
    return lock;
}

} // namespace halvane::server
