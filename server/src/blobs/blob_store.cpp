#include "blobs/blob_store.h"

#include "core/errors.h"
#include "core/random.h"
#include "core/times.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace halvane::server {

namespace {

constexpr std::size_t dayLength = 8;

std::string stagingDirectory(const std::string& data) {
    return data + "/staging";
}

std::string blobsDirectory(const std::string& data) {
    return data + "/blobs";
}

// Eight digits that grow with the time: names that are made one after another are neighbours in the
// catalogue's index.
std::string hexTimeOfDay(TimeMs time) {
    constexpr TimeMs day = 24LL * 60 * 60 * 1000;
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08x", static_cast<unsigned>(time % day));
    return text.data();
}

void makeDirectory(const std::string& path) {
    if (::mkdir(path.c_str(), 0750) != 0 && errno != EEXIST)
        throw systemError("create the directory '" + path + "'", errno);
}

Descriptor openExisting(const std::string& path, int flags) {
    Descriptor descriptor(::open(path.c_str(), flags | O_CLOEXEC));
    if (!descriptor.isOpen() && errno != ENOENT)
        throw systemError("open '" + path + "'", errno);
    return descriptor;
}

} // namespace

BlobStore::BlobStore(std::string dataDirectory) : m_directory(std::move(dataDirectory)) {}

void BlobStore::create(const std::string& dataDirectory) {
    makeDirectory(stagingDirectory(dataDirectory));
    makeDirectory(blobsDirectory(dataDirectory));
    syncDirectoryAt(dataDirectory);
}

std::string BlobStore::newName() {
    const TimeMs now = currentTime();
    const std::string date = isoText(now);
    return date.substr(0, 4) + date.substr(5, 2) + date.substr(8, 2) + '-' + hexTimeOfDay(now) + randomHex(8);
}

std::string BlobStore::stagedPath(const std::string& name) const {
    return stagingDirectory(m_directory) + '/' + name;
}

std::string BlobStore::directoryOf(const std::string& name) const {
    return blobsDirectory(m_directory) + '/' + name.substr(0, dayLength);
}

std::string BlobStore::blobPath(const std::string& name) const {
    return directoryOf(name) + '/' + name;
}

Descriptor BlobStore::openExistingStaged(const std::string& name) {
    Descriptor descriptor = openExisting(stagedPath(name), O_RDWR);
    return descriptor.isOpen() ? std::move(descriptor) : openExisting(blobPath(name), O_RDWR);
}

Descriptor BlobStore::openStagedDirectly(const std::string& name) {
    for (const std::string& path : {stagedPath(name), blobPath(name)})
        if (Descriptor descriptor(::open(path.c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC)); descriptor.isOpen())
            return descriptor;
    return {};
}

Descriptor BlobStore::openStaged(const std::string& name, std::int64_t size) {
    Descriptor existing = openExistingStaged(name);
    if (existing.isOpen())
        return existing;
    Descriptor descriptor(::open(stagedPath(name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640));
    if (!descriptor.isOpen())
        throw systemError("create the staging file '" + name + "'", errno);
    if (::ftruncate(descriptor.get(), size) != 0)
        throw systemError("set the size of the staging file '" + name + "'", errno);
    return descriptor;
}

Descriptor BlobStore::openBlob(const std::string& name) {
    return openExisting(blobPath(name), O_RDONLY);
}

void BlobStore::ensureDirectory(const std::string& directory) {
    const std::lock_guard lock(m_mutex);
    if (m_knownDirectories.contains(directory))
        return;
    makeDirectory(directory);
    syncDirectoryAt(blobsDirectory(m_directory));
    m_knownDirectories.insert(directory);
}

std::string BlobStore::place(const std::string& name) {
    std::string directory = directoryOf(name);
    ensureDirectory(directory);
    if (::rename(stagedPath(name).c_str(), blobPath(name).c_str()) == 0)
        return directory;
    if (errno == ENOENT && ::access(blobPath(name).c_str(), F_OK) == 0)
        return directory;
    throw systemError("move the content '" + name + "' into its place", errno);
}

void BlobStore::syncDirectory(const std::string& directory) {
    syncDirectoryAt(directory);
}

void BlobStore::discard(const std::string& name) {
    for (const std::string& path : {stagedPath(name), blobPath(name)})
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
            throw systemError("remove '" + path + "'", errno);
}

void BlobStore::forEachName(const std::function<void(const std::string&)>& visit) {
    namespace fs = std::filesystem;
    for (const std::string& root : {stagingDirectory(m_directory), blobsDirectory(m_directory)})
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root))
            if (std::error_code error; entry.is_regular_file(error))
                visit(entry.path().filename().string());
}

void writeAt(int descriptor, Bytes data, std::int64_t offset, const std::string& what) {
    while (!data.empty()) {
        const ssize_t written = ::pwrite(descriptor, data.data(), data.size(), offset);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            throw systemError("write to '" + what + "'", errno);
        data = data.subspan(static_cast<std::size_t>(written));
        offset += written;
    }
}

std::size_t writeDirectlyAt(int descriptor, Bytes data, std::int64_t offset, const std::string& what) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t written = ::pwrite(descriptor, data.data() + done, data.size() - done,
                                         offset + static_cast<std::int64_t>(done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written == 0 || (written < 0 && errno == EINVAL))
            break;
        if (written < 0)
            throw systemError("write to '" + what + "'", errno);
        done += static_cast<std::size_t>(written);
    }
    return done;
}

void readAt(int descriptor, std::span<std::byte> into, std::int64_t offset, const std::string& what) {
    while (!into.empty()) {
        const ssize_t got = ::pread(descriptor, into.data(), into.size(), offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            throw systemError("read from '" + what + "'", got < 0 ? errno : EIO);
        into = into.subspan(static_cast<std::size_t>(got));
        offset += got;
    }
}

void syncDirectoryAt(const std::string& path) {
    const Descriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.isOpen() || ::fsync(directory.get()) != 0)
        throw systemError("flush the directory '" + path + "'", errno);
}

} // namespace halvane::server
