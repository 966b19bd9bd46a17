#pragma once

#include "LocalTree.h"
#include "Uploads.h"

#include <QHash>
#include <QSet>

namespace halvane::host {

//! Keeps what became of each local path of an upload, and tells at the end what is missing and why. Paths are
//! those of LocalTree. A value; no thread of its own.
class HALVANE_HOST_EXPORT UploadAccount {
public:
    //! The last word on a path counts.
    void setDone(const QString& path, UploadedFile::Outcome outcome);
    void setFailed(const QString& path, const orx::Error& error);
    //! It was given up, by a person or because another one failed.
    void setCanceled(const QString& path);
    //! What is in the directory and has no word of its own did not go up for that reason.
    void setFolderFailed(const QString& path, const orx::Error& error);
    //! The folder of the server that a directory that was asked for became.
    void setFolder(const QString& source, const RemoteItem& folder);

    bool isKnown(const QString& path) const { return m_entries.contains(path); }
    int doneCount() const { return m_done; }
    int failedCount() const { return m_failed; }
    //! Files that failed or were given up: what a later run looks at more closely.
    QStringList unfinishedPaths() const;

    //! \a trees: what is there at the end. \a wasStopped: the run ended early, which is the reason for what
    //! was not tried.
    UploadReport report(const QList<LocalTree>& trees, bool wasStopped) const;

private:
    enum class Word { Uploaded, Unchanged, Skipped, Failed, Canceled };
    struct Entry {
        Word word = Word::Failed;
        orx::Error error;
    };
    void set(const QString& path, Word word, const orx::Error& error = {});
    void addTo(UploadReport& report, UploadedTree& tree, const LocalEntry& entry, bool wasStopped) const;
    bool addKnown(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const;
    bool addRefused(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const;
    void addMissing(UploadReport& report, UploadedTree& tree, const LocalEntry& entry, bool wasStopped) const;
    void addFailedFolder(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const;
    //! The error of the innermost failed directory above \a path, within \a source.
    const orx::Error* folderErrorAbove(const QString& path) const;

    QHash<QString, Entry> m_entries;
    QHash<QString, orx::Error> m_folderErrors;
    //! Directories that have something below that failed by itself.
    QSet<QString> m_hasFailures;
    QHash<QString, RemoteItem> m_folders;
    int m_done = 0;
    int m_failed = 0;
};

} // namespace halvane::host
