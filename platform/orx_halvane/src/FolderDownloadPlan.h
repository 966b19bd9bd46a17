#pragma once

#include "HalvaneItems.h"

#include <deque>
#include <optional>

namespace orx {

//! What of a folder's tree is to be listed and fetched next, and where everything goes. Keeps the breadth and
//! the memory bounded: a bounded number of folders are listed and of files fetched at a time, and listing
//! pauses while too many files wait. A file that waits costs about three hundred bytes. Pure; one thread.
class ORX_HALVANE_EXPORT FolderDownloadPlan {
public:
    struct Limits {
        int listings = 4;
        int files = 8;
        int waitingFiles = 50'000;
    };
    struct Folder {
        int id = -1;
        //! Below the target directory, with "/" between its parts.
        QString path;
    };
    struct File {
        int id = -1;
        int version = 0;
        qint64 size = 0;
        //! Hexadecimal, as bytes to take less room; empty when the listing did not say.
        QByteArray sha256;
        QDateTime sourceModifiedAt;
        //! Of this version: when it was made, and what it is called beside its name.
        QDateTime modifiedAt;
        QString alias;
        //! On the server and in the target.
        QString name;
        QString localName;
        //! Of a packed acquisition: what its content is to be called when it is a single file; empty: as it
        //! calls itself, which nothing else in the directory is called as far as names tell.
        QString contentName;
        //! Of the folder it is in.
        QString directory;
        QString path() const { return directory.isEmpty() ? localName : directory + u'/' + localName; }
    };
    //! An item that cannot come down, and everything below it. The path is for people: control characters are
    //! written out.
    struct Refused {
        QString path;
        Error error;
    };

    FolderDownloadPlan() = default;
    explicit FolderDownloadPlan(const Limits& limits) : m_limits(limits) {}

    //! Where the walk begins. An empty path is the target directory itself.
    void begin(const Folder& root);
    //! The next folder to list; it occupies a slot until listed() or notListed().
    std::optional<Folder> takeFolder();
    //! The next file to fetch, in the order of the listings; it occupies a slot until fileEnded().
    std::optional<File> takeFile();
    //! What is in \a folder. Returns the items that are left out: those whose names may not or cannot be used
    //! here, and folders that were met before (a tree has no cycles). The others have names of their own in
    //! the directory.
    QList<Refused> listed(const Folder& folder, const QList<HalvaneFolderTreeNodeSPtr>& folders,
                          const QList<HalvaneFileItemSPtr>& files);
    void notListed();
    void fileEnded();
    //! Listed folders that are not taken yet; the last listing's are at the end.
    const std::vector<Folder>& waitingFolders() const { return m_folders; }

    //! Nothing more will be taken.
    void stop();
    //! Nothing is under way and nothing waits.
    bool isDone() const;
    //! Whether totalBytes() and totalFiles() will not grow any more.
    bool isWholeTreeKnown() const { return m_folders.empty() && m_listing == 0; }
    //! Whether listing waits for files to be fetched.
    bool isListingPaused() const;
    //! Of the files that were listed and not refused.
    qint64 totalBytes() const { return m_totalBytes; }
    int totalFiles() const { return m_totalFiles; }
    //! Files that stop() left out.
    int droppedFiles() const { return m_droppedFiles; }

private:
    Error checkFolder(const HalvaneFolderTreeNode& folder) const;

    Limits m_limits;
    //! Last in, first out: deep trees keep it short.
    std::vector<Folder> m_folders;
    std::deque<File> m_files;
    QSet<int> m_known;
    int m_listing = 0;
    int m_fetching = 0;
    qint64 m_totalBytes = 0;
    int m_totalFiles = 0;
    int m_droppedFiles = 0;
    bool m_stopped = false;
};

} // namespace orx
