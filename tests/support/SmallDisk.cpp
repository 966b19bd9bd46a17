#include "SmallDisk.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <mutex>
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

} // namespace

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

int statvfs(const char* path, struct statvfs* room) noexcept {
    using Function = int (*)(const char*, struct statvfs*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statvfs"));
    const int result = real(path, room);
    if (result == 0)
        orx::testing::limit(path, *room);
    return result;
}

int statvfs64(const char* path, struct statvfs64* room) noexcept {
    using Function = int (*)(const char*, struct statvfs64*);
    static const auto real = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "statvfs64"));
    const int result = real(path, room);
    if (result == 0)
        orx::testing::limit(path, *room);
    return result;
}
}
// NOLINTEND
