#pragma once

#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace orx {

//! Finds what in a cache's content seems to be neither an entry nor on the way to one, while others go on
//! bringing content. Every directory on the way to entries is opened and read once, some at a time: most of
//! the time goes into waiting for them. A search is made once.
class CacheLeftovers {
public:
    //! \a entries: the sub-paths of all entries as the file system holds them, sorted by their bytes.
    explicit CacheLeftovers(std::vector<std::string> entries) : m_entries(std::move(entries)) {}

    struct Problem {
        std::string path;
        int number = 0; //!< errno
    };

    //! Looks at all that is below the open directory \a content.
    void search(int content);
    //! Sub-paths, in no order.
    const std::vector<std::string>& found() const { return m_found; }
    //! Directories that could not be looked into.
    const std::vector<Problem>& problems() const { return m_problems; }

private:
    using Entries = std::span<const std::string>;
    struct Way;
    enum class Threads { Some, ThisOne };

    void visit(int directory, const std::string& path, Entries below, Threads threads);
    void descend(int directory, const Way& way, Threads threads);
    void keep(std::string path);
    void keepProblem(std::string path, int number);

    const std::vector<std::string> m_entries;
    std::mutex m_mutex;
    std::vector<std::string> m_found;
    std::vector<Problem> m_problems;
};

} // namespace orx
