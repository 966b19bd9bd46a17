#include "DirectoryNames.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace orx {

std::optional<DirectoryNames> DirectoryNames::of(const QByteArray& directory) {
    const int descriptor =
        ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0)
        return std::nullopt;
    DIR* opened = ::fdopendir(descriptor);
    if (!opened) {
        const int reason = errno;
        ::close(descriptor);
        errno = reason;
        return std::nullopt;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opened, &::closedir);
    DirectoryNames names;
    for (int count = 0; count < MAX_ENTRIES; ++count) {
        errno = 0;
        const dirent* entry = ::readdir(stream.get()); // NOLINT(concurrency-mt-unsafe): the stream is ours
        if (!entry) {
            if (errno != 0)
                return std::nullopt;
            break;
        }
        const QByteArray name(entry->d_name);
        names.m_byLowerCase.emplace(QFile::decodeName(name).toLower(), name);
    }
    return names;
}

std::vector<QByteArray> DirectoryNames::find(const QString& name) const {
    const QByteArray exact = QFile::encodeName(name);
    std::vector<QByteArray> found;
    const auto [first, last] = m_byLowerCase.equal_range(name.toLower());
    std::transform(first, last, std::back_inserter(found), [](const auto& entry) { return entry.second; });
    std::stable_partition(found.begin(), found.end(), [&](const QByteArray& each) { return each == exact; });
    return found;
}

std::vector<QByteArray> DirectoryNames::findIf(const std::function<bool(const QString&)>& accepts) const {
    std::vector<QByteArray> found;
    for (const auto& [lowerCase, name] : m_byLowerCase) {
        if (accepts(lowerCase))
            found.push_back(name);
    }
    return found;
}

} // namespace orx
