#include "SmallDisk.h"

#include <algorithm>
#include <condition_variable>
#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <vector>

namespace orx::testing {
namespace {

struct Disk {
    std::string directory;
    std::int64_t bytes = 0;
};

struct State {
    std::mutex mutex;
    std::vector<Disk> disks;
};

State& state() {
    static State& only = *new State;
    return only;
}

//! Files come and go meanwhile.
std::int64_t bytesIn(const std::string& directory) {
    namespace fs = std::filesystem;
    std::int64_t bytes = 0;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        const bool isFile = entry->is_regular_file(gone);
        const auto size = isFile ? entry->file_size(gone) : 0;
        bytes += gone ? 0 : std::int64_t(size);
    }
    return bytes;
}

template <typename Room>
void limit(const char* path, Room& room) {
    const std::lock_guard lock(state().mutex);
    for (auto disk = state().disks.crbegin(); disk != state().disks.crend(); ++disk) {
        if (std::string(path).compare(0, disk->directory.size(), disk->directory) != 0)
            continue;
        const std::int64_t free = disk->bytes - bytesIn(disk->directory);
        room.f_frsize = 1;
        room.f_bavail = std::uint64_t(std::max<std::int64_t>(0, free));
        return;
    }
}

struct Hung {
    std::mutex mutex;
    std::condition_variable changed;
    std::string directory; //!< empty for none
    bool isHanging = false;
    int askers = 0;

    bool has(const char* path) const {
        return !directory.empty() && std::string(path).compare(0, directory.size(), directory) == 0;
    }
};

Hung& hung() {
    static Hung& only = *new Hung;
    return only;
}

void awaitAnswer(const char* path) {
    std::unique_lock lock(hung().mutex);
    if (!hung().has(path))
        return;
    ++hung().askers;
    hung().changed.notify_all();
    hung().changed.wait(lock, [] { return !hung().isHanging; });
    --hung().askers;
}

void moveToOwnDisk(const char* path, dev_t& device) {
    constexpr dev_t own = ~dev_t(0) - 1;
    const std::lock_guard lock(hung().mutex);
    if (hung().has(path))
        device = own;
}

} // namespace

HungDisk::HungDisk(const std::string& directory) {
    const std::lock_guard lock(hung().mutex);
    hung().directory = directory;
}

HungDisk::~HungDisk() {
    answer();
    const std::lock_guard lock(hung().mutex);
    hung().directory.clear();
}

void HungDisk::hang() {
    const std::lock_guard lock(hung().mutex);
    hung().isHanging = true;
}

void HungDisk::awaitAsker() {
    std::unique_lock lock(hung().mutex);
    hung().changed.wait(lock, [] { return hung().askers > 0; });
}

void HungDisk::answer() {
    const std::lock_guard lock(hung().mutex);
    hung().isHanging = false;
    hung().changed.notify_all();
}

SmallDisk::SmallDisk(const std::string& directory, std::int64_t bytes) {
    const std::lock_guard lock(state().mutex);
    state().disks.push_back({directory, bytes});
}

SmallDisk::~SmallDisk() {
    const std::lock_guard lock(state().mutex);
    state().disks.pop_back();
}

} // namespace orx::testing

// The names are those of the C library.
// NOLINTBEGIN
extern "C" {

int stat(const char* path, struct stat* info) noexcept {
    using Function = int (*)(const char*, struct stat*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "stat"));
    const int result = real(path, info);
    if (result == 0)
        orx::testing::moveToOwnDisk(path, info->st_dev);
    return result;
}

int stat64(const char* path, struct stat64* info) noexcept {
    using Function = int (*)(const char*, struct stat64*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "stat64"));
    const int result = real(path, info);
    if (result == 0)
        orx::testing::moveToOwnDisk(path, info->st_dev);
    return result;
}

int statvfs(const char* path, struct statvfs* room) noexcept {
    using Function = int (*)(const char*, struct statvfs*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statvfs"));
    const int result = real(path, room);
    if (result == 0)
        orx::testing::limit(path, *room);
    orx::testing::awaitAnswer(path);
    return result;
}

int statvfs64(const char* path, struct statvfs64* room) noexcept {
    using Function = int (*)(const char*, struct statvfs64*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statvfs64"));
    const int result = real(path, room);
    if (result == 0)
        orx::testing::limit(path, *room);
    orx::testing::awaitAnswer(path);
    return result;
}
}
// NOLINTEND
