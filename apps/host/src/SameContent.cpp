#include "SameContent.h"

#include <PackInput.h>
#include <Vonk.h>
#include <VonkMetadata.h>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QHash>

namespace halvane::host {

using orx::vonk::PackInput;
using orx::vonk::Vonk;
using orx::vonk::VonkEntry;
using orx::vonk::VonkMetadata;

namespace {

// Local paths by their paths in a packed acquisition, as a packer would make it.
QHash<QString, QFileInfo> contentOf(const PackInput& input) {
    QHash<QString, QFileInfo> found;
    for (const QString& top : QStringList(input.path) + input.companions) {
        const QFileInfo info(top);
        const QString inside = QStringLiteral("content/") + info.fileName();
        found.insert(inside, info);
        if (!info.isDir())
            continue;
        QDirIterator below(top, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                           QDirIterator::Subdirectories);
        while (below.hasNext()) {
            const QFileInfo entry = below.nextFileInfo();
            found.insert(inside + u'/' + QDir(top).relativeFilePath(entry.filePath()), entry);
        }
    }
    return found;
}

bool isAlike(const VonkEntry& entry, const QFileInfo& info) {
    return entry.isFile() ? info.isFile() && info.size() == entry.size : info.isDir();
}

} // namespace

std::unique_ptr<SameContent> SameContent::ofFile(const QString& path, qint64 size, const QByteArray& sha256) {
    auto content = std::make_unique<SameContent>();
    content->m_path = path;
    content->m_parts.append({path, size, sha256});
    content->m_isLikely = !sha256.isEmpty() && QFileInfo(path).size() == size;
    return content;
}

std::unique_ptr<SameContent> SameContent::ofRawData(const QString& path, const QJsonObject& manifest) {
    auto content = std::make_unique<SameContent>();
    content->m_path = path;
    content->m_manifest = manifest;
    return content;
}

std::unique_ptr<SameContent> SameContent::ofOldPacked(const QString& path, const QJsonObject& manifest) {
    auto content = ofRawData(path, manifest);
    content->m_isOldPacked = true;
    return content;
}

bool SameContent::isOldPacked(const QString& path) {
    Vonk vonk(path);
    return !vonk.open().hasError() &&
           vonk.metadata().formatVersion.majorVersion() < orx::vonk::vonkVersion().majorVersion();
}

void SameContent::compareManifests() {
    const auto theirs = VonkMetadata::fromJson(*m_manifest);
    m_manifest.reset();
    Vonk vonk(m_path);
    m_isLikely = !theirs.hasError() && !vonk.open().hasError() && !vonk.validate().hasError();
    if (!m_isLikely)
        return;
    VonkMetadata ours = vonk.metadata();
    ours.formatVersion = theirs->formatVersion;
    m_isLikely = ours == *theirs;
}

void SameContent::listRawData() {
    const auto metadata = VonkMetadata::fromJson(*m_manifest);
    m_manifest.reset();
    const PackInput input = PackInput::fromMs(m_path);
    m_isLikely = !metadata.hasError() && input.refusal.isEmpty();
    if (!m_isLikely)
        return;
    const QHash<QString, QFileInfo> local = contentOf(input);
    m_isLikely = local.size() == metadata->entries.size();
    for (const VonkEntry& entry : metadata->entries) {
        const auto found = local.constFind(entry.path);
        m_isLikely = m_isLikely && found != local.constEnd() && isAlike(entry, *found);
        if (!m_isLikely)
            return;
        if (entry.isFile())
            m_parts.append({found->filePath(), entry.size, entry.sha256});
    }
}

bool SameContent::haveSizes() {
    if (m_manifest && m_isOldPacked)
        compareManifests();
    else if (m_manifest)
        listRawData();
    return m_isLikely;
}

std::optional<bool> SameContent::isSame(qint64 bytes) {
    if (!haveSizes())
        return false;
    // Small files share a step: there may be very many of them.
    for (qint64 read = 0; m_next < m_parts.size() && read < bytes;) {
        const Part& part = m_parts[m_next];
        // A link to a file is that file.
        if (!m_check)
            m_check = std::make_unique<orx::ContentCheck>(QFileInfo(part.path).canonicalFilePath(), part.size,
                                                          part.sha256);
        const std::optional<bool> same = m_check->isSame(bytes - read);
        if (!same)
            return std::nullopt;
        m_check.reset();
        if (!*same)
            return false;
        read += part.size + 1;
        ++m_next;
    }
    if (m_next < m_parts.size())
        return std::nullopt;
    return true;
}

} // namespace halvane::host
