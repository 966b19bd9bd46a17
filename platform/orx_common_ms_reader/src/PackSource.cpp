#include "PackSource.h"

#include "PackedPaths.h"
#include "PackedText.h"
#include "StagedFile.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::vonk {

namespace {

Error changedAt(const QString& path) {
    return Error(
        ErrorCode::FileChanged,
        translated("\"%1\" changed while it was packed; pack it again when nothing writes to it.").arg(path));
}

} // namespace

class PackSource::Lister {
public:
    Error listTop(const QString& path) {
        const QByteArray local = encodedPath(path);
        struct stat info = {};
        if (::stat(local.constData(), &info) != 0)
            return readFailure(errno, path);
        return add(local, contentPrefix(), info);
    }

    PackSource take() {
        std::sort(m_found.begin(), m_found.end(),
                  [](const Found& a, const Found& b) { return entryComesBefore(a.entry, b.entry); });
        PackSource source;
        for (Found& found : m_found) {
            source.m_entries.append(std::move(found.entry));
            source.m_localPaths.push_back(std::move(found.localPath));
            source.m_stamps.push_back(found.stamp);
        }
        return source;
    }

private:
    Error add(const QByteArray& local, const QString& parent, const struct stat& info) {
        const QByteArray name = local.mid(local.lastIndexOf('/') + 1);
        VonkEntry entry;
        entry.path = parent + QString::fromUtf8(name);
        if (entry.path.mid(parent.size()).toUtf8() != name)
            return Error(ErrorCode::FileNotReadable,
                         translated("\"%1\" cannot be packed: its name is not valid text; rename it.")
                             .arg(QFile::decodeName(local)));
        // Here, and not only in the end: a tree without an end would never be listed.
        ORX_RETURN_ON_ERROR(checkEntryPath(entry.path));
        const Stamp stamp = stampOf(info);
        entry.modified = stamp.modified;
        if (PackedTime::fromString(entry.modified.toString()) != entry.modified)
            return Error(
                ErrorCode::InvalidArgument,
                translated(
                    "\"%1\" cannot be packed: its time of modification is impossible; set another one.")
                    .arg(QFile::decodeName(local)));
        if (S_ISREG(info.st_mode)) {
            entry.size = info.st_size;
            m_found.push_back({std::move(entry), local, stamp});
            return {};
        }
        if (!S_ISDIR(info.st_mode))
            return Error(ErrorCode::FileNotReadable,
                         translated("\"%1\" cannot be packed: it is neither a file nor a directory.")
                             .arg(QFile::decodeName(local)));
        entry.type = VonkEntry::Type::Directory;
        const QString path = entry.path;
        m_found.push_back({std::move(entry), local, stamp});
        return addContent(local, path + QLatin1Char('/'));
    }

    Error addContent(const QByteArray& local, const QString& parent) {
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(local.constData()), &::closedir);
        if (!listing)
            return readFailure(errno, QFile::decodeName(local));
        for (;;) {
            errno = 0;
            const dirent* const item = ::readdir(listing.get());
            if (!item)
                return errno == 0 ? Error() : readFailure(errno, QFile::decodeName(local));
            const QByteArray name(item->d_name);
            if (name == "." || name == "..")
                continue;
            const QByteArray path = local + '/' + name;
            struct stat info = {};
            if (::lstat(path.constData(), &info) != 0)
                return readFailure(errno, QFile::decodeName(path));
            ORX_RETURN_ON_ERROR(add(path, parent, info));
        }
    }

    std::vector<Found> m_found;
};

Result<PackSource> PackSource::list(const PackInput& input) {
    Lister lister;
    ORX_RETURN_ON_ERROR(lister.listTop(input.path));
    for (const QString& companion : input.companions)
        ORX_RETURN_ON_ERROR(lister.listTop(companion));
    PackSource source = lister.take();
    ORX_RETURN_ON_ERROR(checkEntryPaths(source.m_entries));
    return source;
}

QString PackSource::localPath(qsizetype entry) const {
    return QFile::decodeName(m_localPaths[size_t(entry)]);
}

Result<Descriptor> PackSource::open(qsizetype entry) const {
    Descriptor file(::open(m_localPaths[size_t(entry)].constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.isOpen())
        return errno == ENOENT ? changed(entry) : readFailure(errno, localPath(entry));
    ORX_RETURN_ON_ERROR(checkUnchanged(entry, file));
    return file;
}

Error PackSource::read(qsizetype entry, const Descriptor& file, qint64 offset, std::span<char> buffer) const {
    const qint64 bytes = readFully(*file, buffer, offset);
    if (bytes < 0)
        return readFailure(errno, localPath(entry));
    return bytes == qint64(buffer.size()) ? Error() : changed(entry);
}

Error PackSource::checkUnchanged(qsizetype entry, const Descriptor& file) const {
    struct stat info = {};
    if (::fstat(*file, &info) != 0)
        return readFailure(errno, localPath(entry));
    return stampOf(info) == m_stamps[size_t(entry)] ? Error() : changed(entry);
}

Error PackSource::checkUnchanged(const PackInput& input) const {
    const Result<PackSource> again = list(input);
    if (again.hasError())
        return again.error().is(ErrorCode::NotFound) ? changedAt(input.path) : again.error();
    for (size_t i = 0; i < std::min(m_stamps.size(), again->m_stamps.size()); ++i) {
        if (m_stamps[i] != again->m_stamps[i] || m_localPaths[i] != again->m_localPaths[i])
            return changed(qsizetype(i));
    }
    return m_stamps.size() == again->m_stamps.size() ? Error() : changedAt(input.path);
}

PackSource::Stamp PackSource::stampOf(const struct stat& info) {
    const bool isDirectory = S_ISDIR(info.st_mode);
    const auto timeOf = [](const timespec& time) {
        return PackedTime{qint64(time.tv_sec), int(time.tv_nsec)};
    };
    return {quint64(info.st_dev), quint64(info.st_ino), isDirectory ? 0 : qint64(info.st_size),
            timeOf(info.st_mtim), isDirectory ? PackedTime() : timeOf(info.st_ctim)};
}

Error PackSource::changed(qsizetype entry) const {
    return changedAt(localPath(entry));
}

} // namespace orx::vonk
