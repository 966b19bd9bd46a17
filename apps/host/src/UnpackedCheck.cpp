#include "UnpackedCheck.h"

#include <ContentCheck.h>
#include <PackedPaths.h>

#include <QFile>
#include <QSet>

#include <sys/stat.h>

namespace halvane::host {

using orx::vonk::VonkEntry;

namespace {

bool isDirectory(const QString& path) {
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool isFileOf(const QString& path, qint64 size) {
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 && S_ISREG(info.st_mode) &&
           info.st_size == size;
}

} // namespace

bool isRecordOf(QHash<QString, QString> checksums, const QList<VonkEntry>& entries) {
    for (const VonkEntry& entry : entries)
        if (entry.isFile() && checksums.take(entry.path) != QString::fromLatin1(entry.sha256))
            return false;
    return std::none_of(checksums.keyBegin(), checksums.keyEnd(),
                        [](const QString& path) { return path.startsWith(orx::vonk::contentPrefix()); });
}

UnpackedCheck::UnpackedCheck(const QString& path, const QList<VonkEntry>& entries)
    : m_path(path), m_entries(entries) {}

UnpackedCheck::~UnpackedCheck() = default;

QString UnpackedCheck::placeOf(const QString& entryPath) const {
    const qsizetype slash = entryPath.indexOf(u'/');
    return slash < 0 ? m_path : m_path + entryPath.mid(slash);
}

bool UnpackedCheck::hasShape() const {
    // Not every format lists directories.
    QSet<QString> directories;
    for (const VonkEntry& entry : m_entries) {
        const QString path = placeOf(entry.path);
        if (entry.isFile() ? !isFileOf(path, entry.size) : !isDirectory(path))
            return false;
        for (qsizetype slash = entry.path.indexOf(u'/'); slash >= 0;
             slash = entry.path.indexOf(u'/', slash + 1))
            directories.insert(placeOf(entry.path.left(slash)));
    }
    return std::all_of(directories.begin(), directories.end(), isDirectory);
}

std::optional<bool> UnpackedCheck::isSame(qint64 bytes) {
    if (!std::exchange(m_begun, true) && !hasShape())
        return false;
    for (; m_next < m_entries.size(); ++m_next) {
        const VonkEntry& entry = m_entries[m_next];
        if (!entry.isFile())
            continue;
        if (bytes <= 0)
            return std::nullopt;
        if (!m_file)
            m_file = std::make_unique<orx::ContentCheck>(placeOf(entry.path), entry.size, entry.sha256);
        const std::optional<bool> same = m_file->isSame(bytes);
        if (!same || !*same)
            return same;
        bytes -= entry.size;
        m_file.reset();
    }
    return true;
}

} // namespace halvane::host
