#include "CacheLeftovers.h"

#include "CacheFiles.h"
#include "CacheParallel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace orx {

namespace {

//! Directories in one that are worth the threads.
constexpr size_t kMany = 64;

enum class Kind { File, Directory, Other };

struct Named {
    std::string name;
    ino_t inode = 0;
    Kind kind = Kind::Other;
};

Kind kindOf(mode_t mode) {
    return S_ISREG(mode) ? Kind::File : S_ISDIR(mode) ? Kind::Directory : Kind::Other;
}

//! None of what is gone by now.
std::optional<Kind> kindOf(int directory, const dirent64& entry) {
    if (entry.d_type != DT_UNKNOWN)
        return kindOf(DTTOIF(entry.d_type));
    // Not every file system tells it with the name.
    struct stat status {};
    if (::fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return kindOf(status.st_mode);
}

//! Reads all of a directory that was just opened; 0 or errno.
int namesIn(int directory, std::vector<Named>& names) {
    alignas(dirent64) std::array<char, 32768> block;
    for (;;) {
        const ssize_t got = ::getdents64(directory, block.data(), block.size());
        if (got <= 0)
            return got == 0 ? 0 : errno;
        for (ssize_t at = 0; at < got;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(block.data() + at);
            at += entry->d_reclen;
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            if (const auto kind = kindOf(directory, *entry))
                names.push_back({entry->d_name, entry->d_ino, *kind});
        }
    }
}

} // namespace

//! A directory on the way to entries.
struct CacheLeftovers::Way {
    std::string name;
    ino_t inode = 0;
    std::string path;
    Entries below;
};

void CacheLeftovers::search(int content) {
    const CacheDescriptor own(::openat(content, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (own.isOpen())
        visit(own.get(), std::string(), m_entries, Threads::Some);
    else
        keepProblem(std::string(), errno);
}

void CacheLeftovers::visit(int directory, const std::string& path, Entries below, Threads threads) {
    std::vector<Named> names;
    if (const int failure = namesIn(directory, names); failure != 0)
        return keepProblem(path, failure);
    std::vector<Way> ways;
    for (Named& named : names) {
        std::string child = path.empty() ? named.name : path + '/' + named.name;
        const auto at = std::lower_bound(below.begin(), below.end(), child);
        const bool isEntry = at != below.end() && *at == child;
        // What lies below begins with the sub-path and "/"; "0" is the character after it.
        const auto first = std::lower_bound(at, below.end(), child + '/');
        const auto last = std::lower_bound(first, below.end(), child + '0');
        if (isEntry ? named.kind == Kind::Other : first == last || named.kind != Kind::Directory)
            keep(std::move(child));
        else if (!isEntry)
            ways.push_back({std::move(named.name), named.inode, std::move(child), Entries(first, last)});
    }
    // About as they lie on the disk.
    std::sort(ways.begin(), ways.end(), [](const Way& a, const Way& b) { return a.inode < b.inode; });
    if (threads == Threads::Some && ways.size() >= kMany)
        return inParallel(ways.size(), [&](size_t i) { descend(directory, ways[i], Threads::ThisOne); });
    for (const Way& way : ways)
        descend(directory, way, threads);
}

void CacheLeftovers::descend(int directory, const Way& way, Threads threads) {
    const CacheDescriptor child(
        ::openat(directory, way.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (child.isOpen())
        return visit(child.get(), way.path, way.below, threads);
    if (errno == ENOTDIR || errno == ELOOP)
        return keep(way.path); // something else is there by now
    if (errno != ENOENT)
        keepProblem(way.path, errno);
}

void CacheLeftovers::keep(std::string path) {
    const std::lock_guard lock(m_mutex);
    m_found.push_back(std::move(path));
}

void CacheLeftovers::keepProblem(std::string path, int number) {
    const std::lock_guard lock(m_mutex);
    m_problems.push_back({std::move(path), number});
}

} // namespace orx
