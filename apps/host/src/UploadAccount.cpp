#include "UploadAccount.h"

#include "UploadReckoning.h"

namespace halvane::host {

using orx::Error;

void UploadAccount::setDone(const QString& path, UploadedFile::Outcome outcome, const QString& sha256) {
    using Outcome = UploadedFile::Outcome;
    ++m_done;
    const Word word = outcome == Outcome::Uploaded    ? Word::Uploaded
                      : outcome == Outcome::Unchanged ? Word::Unchanged
                                                      : Word::Skipped;
    m_entries.insert(path, {word, Error(), word == Word::Skipped ? QString() : sha256});
}

void UploadAccount::setFailed(const QString& path, const Error& error) {
    m_entries.insert(path, {Word::Failed, error, QString()});
}

void UploadAccount::setCanceled(const QString& path) {
    if (!m_entries.contains(path))
        m_entries.insert(path, {Word::Canceled, Error(), QString()});
}

void UploadAccount::setFolderFailed(const QString& path, const Error& error) {
    m_folderErrors.insert(path, error);
}

void UploadAccount::setFolder(const QString& source, const RemoteItem& folder) {
    m_folders.insert(source, folder);
    setFolderMade(source);
}

KnownContents::ByPath UploadAccount::knownContents(const LocalTree& tree,
                                                   const KnownContents::ByPath& before) const {
    KnownContents::ByPath known;
    for (const LocalEntry& entry : tree.entries) {
        const QString sha256 = m_entries.value(entry.path).sha256;
        if (!sha256.isEmpty() && !entry.stamp.isEmpty())
            known.insert(entry.path, {entry.stamp, sha256});
        else if (const auto old = before.constFind(entry.path); sha256.isEmpty() && old != before.constEnd())
            known.insert(entry.path, *old);
    }
    return known;
}

UploadReport UploadAccount::report(const QList<LocalTree>& before, const QList<LocalTree>& now,
                                   bool wasStopped) const {
    UploadReport report;
    for (qsizetype i = 0; i < before.size(); ++i)
        report.trees.append(UploadReckoning(*this, before[i], now[i], wasStopped).addTo(report));
    return report;
}

} // namespace halvane::host
