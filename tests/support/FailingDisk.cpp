#include "FailingDisk.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace orx::testing {
namespace {

struct State {
    std::mutex mutex;
    std::string directory;
    int left = 0;
    int error = 0;
    FailingDisk::Lasts lasts = FailingDisk::Lasts::Once;
    FailingDisk::Calls calls = FailingDisk::Calls::ThatWrite;
    std::string failed;
};

std::atomic<bool> isArmed = false;
//! Set by the first one; accessed by atomic builtins only.
bool hasBeen = false;

State& state() {
    static State& only = *new State;
    return only;
}

std::string pathOf(int descriptor) {
    std::array<char, PATH_MAX> path = {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t size = ::readlink(link.c_str(), path.data(), path.size());
    return size > 0 ? std::string(path.data(), size_t(size)) : std::string();
}

std::string pathAt(int directory, const char* name) {
    return name[0] == '/' || directory == AT_FDCWD ? name : pathOf(directory) + '/' + name;
}

//! Sets errno when this call is the one.
bool fails(const char* call, const std::string& path, bool isRenaming = false,
           FailingDisk::Calls kind = FailingDisk::Calls::ThatWrite) {
    State& now = state();
    const std::lock_guard lock(now.mutex);
    if (kind != now.calls || path.compare(0, now.directory.size(), now.directory) != 0)
        return false;
    const bool isTheOne = now.left-- == 0;
    const bool isLasting = now.lasts == FailingDisk::Lasts::ForGood ||
                           (now.lasts == FailingDisk::Lasts::FromThenOn && !isRenaming);
    const bool failsAgain = !now.failed.empty() && isLasting;
    if (!isTheOne && !failsAgain)
        return false;
    if (now.failed.empty())
        now.failed = call;
    errno = now.error;
    return true;
}

std::string directory() {
    const std::lock_guard lock(state().mutex);
    return state().directory;
}

bool makesFile(int flags) {
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

bool failsToOpen(const char* call, const std::string& path, int flags) {
    const bool isMaking = makesFile(flags);
    if (!isMaking && (flags & O_DIRECTORY) != 0)
        return path == directory() && fails(call, path, false, FailingDisk::Calls::ThatOpenADirectory);
    if (!isMaking && ((flags & O_ACCMODE) != O_RDONLY))
        return false;
    const auto kind = isMaking ? FailingDisk::Calls::ThatWrite : FailingDisk::Calls::ThatOpenToRead;
    return fails(call, path, false, kind);
}

bool isWritable(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

template <typename Function>
Function* next(Function*, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

FailingDisk::FailingDisk(const std::string& directory, int failing, int error, Lasts lasts, Calls calls) {
    State& now = state();
    const std::lock_guard lock(now.mutex);
    now.directory = directory;
    now.left = failing;
    now.error = error;
    now.lasts = lasts;
    now.calls = calls;
    now.failed.clear();
    __atomic_store_n(&hasBeen, true, __ATOMIC_SEQ_CST);
    isArmed = true;
}

FailingDisk::~FailingDisk() {
    isArmed = false;
}

std::string FailingDisk::failed() const {
    const std::lock_guard lock(state().mutex);
    return state().failed;
}

} // namespace orx::testing

// The names are those of the C library.
// NOLINTBEGIN
using orx::testing::fails;
using orx::testing::failsToOpen;
using orx::testing::hasBeen;
using orx::testing::isArmed;
using orx::testing::isWritable;
using orx::testing::makesFile;
using orx::testing::next;
using orx::testing::pathAt;
using orx::testing::pathOf;

extern "C" {

ssize_t write(int descriptor, const void* bytes, size_t count) {
    static auto* const real = next(&::write, "write");
    return isArmed && fails("write", pathOf(descriptor)) ? -1 : real(descriptor, bytes, count);
}

int fsync(int descriptor) {
    static auto* const real = next(&::fsync, "fsync");
    return isArmed && fails("fsync", pathOf(descriptor)) ? -1 : real(descriptor);
}

int close(int descriptor) {
    static auto* const real = next(&::close, "close");
    const bool isFailing = isArmed && isWritable(descriptor) && fails("close", pathOf(descriptor));
    const int error = errno;
    const int result = real(descriptor);
    if (!isFailing)
        return result;
    errno = error;
    return -1;
}

int open(const char* path, int flags, ...) {
    static auto* const real = next(&::open, "open");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = makesFile(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return isArmed && failsToOpen("open", path, flags) ? -1 : real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    static auto* const real = next(&::open64, "open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = makesFile(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return isArmed && failsToOpen("open", path, flags) ? -1 : real(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    static auto* const real = next(&::openat, "openat");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = makesFile(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool isFailing = isArmed && failsToOpen("openat", pathAt(directory, path), flags);
    return isFailing ? -1 : real(directory, path, flags, mode);
}

// The thread sanitizer makes the directory of its reports by this function before it can watch any.
__attribute__((no_sanitize("thread"))) int mkdir(const char* path, mode_t mode) {
    if (!__atomic_load_n(&hasBeen, __ATOMIC_SEQ_CST))
        return int(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
    static auto* const real = next(&::mkdir, "mkdir");
    return isArmed && fails("mkdir", path) ? -1 : real(path, mode);
}

int mkdirat(int directory, const char* path, mode_t mode) {
    static auto* const real = next(&::mkdirat, "mkdirat");
    return isArmed && fails("mkdirat", pathAt(directory, path)) ? -1 : real(directory, path, mode);
}

int futimens(int descriptor, const timespec times[2]) noexcept {
    static auto* const real = next(&::futimens, "futimens");
    return isArmed && fails("futimens", pathOf(descriptor)) ? -1 : real(descriptor, times);
}

int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept {
    static auto* const real = next(&::linkat, "linkat");
    const bool isFailing = isArmed && fails("linkat", pathAt(toDirectory, to), true);
    return isFailing ? -1 : real(fromDirectory, from, toDirectory, to, flags);
}

int rename(const char* from, const char* to) noexcept {
    static auto* const real = next(&::rename, "rename");
    return isArmed && fails("rename", to, true) ? -1 : real(from, to);
}

int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to,
              unsigned int flags) noexcept {
    static auto* const real = next(&::renameat2, "renameat2");
    const bool isFailing = isArmed && fails("renameat2", pathAt(toDirectory, to), true);
    return isFailing ? -1 : real(fromDirectory, from, toDirectory, to, flags);
}
}
// NOLINTEND
