#pragma once

#include "KnownContents.h"
#include "LocalTree.h"
#include "Uploads.h"

#include <QHash>
#include <QSet>

namespace halvane::host {

//! Keeps what became of each local path of an upload, and tells at the end what is missing and why. Paths are
//! those of LocalTree. A value; no thread of its own.
class HALVANE_HOST_EXPORT UploadAccount {
public:
    //! The last word on a path counts. \a sha256: of the version on the server that has the content, if one
    //! has.
    void setDone(const QString& path, UploadedFile::Outcome outcome, const QString& sha256 = QString());
    void setFailed(const QString& path, const orx::Error& error);
    //! It was given up, by a person or because another one failed.
    void setCanceled(const QString& path);
    //! Unless the error is that of something in the directory, what is in it and has no word of its own did
    //! not go up for that reason.
    void setFolderFailed(const QString& path, const orx::Error& error);
    //! The server has the folder of a directory, whatever becomes of what is in it.
    void setFolderMade(const QString& path) { m_foldersMade.insert(path); }
    //! The folder of the server that a directory that was asked for became.
    void setFolder(const QString& source, const RemoteItem& folder);

    bool isKnown(const QString& path) const { return m_entries.contains(path); }
    int doneCount() const { return m_done; }
    //! What a later run of \a tree may rely on: the stamps of what is on the server; of what this run has not
    //! got to, what \a before says.
    KnownContents::ByPath knownContents(const LocalTree& tree, const KnownContents::ByPath& before) const;

    //! Every path that was there when the run began (\a before), is there at its end (\a now) or got a word.
    //! The trees are those of the same sources. \a wasStopped: the run ended early, which is the reason for
    //! what was not tried.
    UploadReport report(const QList<LocalTree>& before, const QList<LocalTree>& now, bool wasStopped) const;

private:
    friend class UploadReckoning;
    enum class Word { Uploaded, Unchanged, Skipped, Failed, Canceled };
    struct Entry {
        Word word = Word::Failed;
        orx::Error error;
        QString sha256;
    };

    QHash<QString, Entry> m_entries;
    QHash<QString, orx::Error> m_folderErrors;
    QSet<QString> m_foldersMade;
    QHash<QString, RemoteItem> m_folders;
    int m_done = 0;
};

} // namespace halvane::host
