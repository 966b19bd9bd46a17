#pragma once

#include "DuplicateDownload.h"
#include "HalvaneTask.h"

#include <HalvaneResourceReference.h>
#include <MirroringInterface.h>
#include <PathImpl.h>

#include <optional>

namespace orx {

//! A file or folder of a tree that did not come down.
struct ORX_HALVANE_EXPORT HalvaneDownloadFailure {
    //! In the target directory, with "/" between its parts; for an item whose name cannot be used here, its
    //! name on the server.
    QString path;
    Error error;
};

//! Brings a folder of the server with everything in it into a directory: walks the tree and runs one task per
//! file, which createFileDownloadTask() makes. Directories are made when their folder is listed, empty ones
//! too; existing ones are used, links are not followed.
//!
//! Names: each folder gets a directory of its own. Of several items of one folder that share a name, the
//! folder with the smallest id keeps it, else the file with the smallest; the others get free names that tell
//! their ids (`run (file 12).mzML`), the same in every run. An item whose name is dangerous or impossible
//! here is left out, with everything below it, as a failure that names it.
//!
//! Failures: one does not stop the others. The task ends with the first, its message naming the item and
//! counting the failures, and with the others as warnings (as many as a person may read); failures() has them
//! all. The task gives up early when going on is pointless: nobody is logged in, nobody answers, or several
//! downloads in a row failed because of the network or a full disk.
//!
//! Breadth: at most 4 folders are listed and 8 files fetched at a time, and file tasks are made when a slot
//! is free. Progress: thousandths of the bytes of the whole tree, from when all of it has been listed (or so
//! much that listing waits for the downloads); it never falls and reaches the maximum with success only.
//! Bytes as such: HalvaneTransferMonitor.
//!
//! Cancelled or destroyed: nothing more is made; what came down completely stays.
//!
//! What came down is durable when the task ends, also when it was cancelled; when it is destroyed before,
//! when that is done. A single file is whole before that, but its name may be lost when the power fails: what
//! a file task copies when it ends is flushed with its directory, which is flushed once for many files. A
//! directory that cannot be flushed is a failure like that of an item, and stops nothing.
class ORX_HALVANE_EXPORT HalvaneDownloadFolderTaskBase : public HalvaneComplexTask {
    Q_OBJECT
public:
    //! The folder becomes \a targetDirPath/NAME by the name of \a reference, which must be one path
    //! component; with \a contentOnly its content goes into \a targetDirPath itself, whatever its name is
    //! (the root has none that a directory could have). \a targetDirPath is made when it is missing.
    HalvaneDownloadFolderTaskBase(const QSharedPointer<HalvaneFolderResourceReference>& reference,
                                  const QString& targetDirPath, bool contentOnly, QObject* parent = nullptr);
    ~HalvaneDownloadFolderTaskBase() override;

    //! For the file tasks that are made from now on; none unless set.
    void setDuplicatePolicy(std::optional<DuplicateDownloadPolicy> policy);
    //! Where the content of the folder goes.
    QString folderPath() const;
    //! In the order in which they came.
    QList<HalvaneDownloadFailure> failures() const;
    //! Files that were listed, and those of them that came down.
    int fileCount() const;
    int downloadedFileCount() const;
    //! Of the files that were listed, and of what came down of them.
    qint64 totalBytes() const;
    qint64 doneBytes() const;
    //! Whether everything has been listed: fileCount() and totalBytes() will not grow any more.
    bool isWholeTreeKnown() const;

protected:
    //! The task that brings \a fileReference as \a name into \a targetDir, which exists. \a name is empty for
    //! what comes under its own names; see namesContent(). Called once per file; the result is owned, run and
    //! deleted here, and its progress taken as the part of the file that is done. Null is a failure of that
    //! file.
    virtual Task* createFileDownloadTask(const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                         const PathImpl<PathType::Dir>& targetDir, const QString& name,
                                         std::optional<DuplicateDownloadPolicy> policy) = 0;

    //! Whether the name for a packed acquisition is one for what it holds, the default: none where its own
    //! names may be used, and of several of one name in a folder one that tells which it is, without the
    //! extension of packed files. Else the name is that of the packed file.
    virtual bool namesContent() const;

    //! A directory will be made at \a path for a folder of the server. Told before any file beside it is
    //! fetched. Nothing by default.
    virtual void onFolderListed(int folderId, const QString& path);

    //! Listing waits while so many listed files wait to be fetched; 50,000 unless set. Before the run.
    void setMostWaitingFiles(int files);

    //! When everything came down, what else is in the directory of the folder is removed. Before the run.
    void removeWhatIsNotListed();

    Error initialize() override;
    Error doFinish() override;
    void cancelDescendants() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

//! The plain folder download: each file by a HalvaneDownloadFileTask. Replaces files at the target only under
//! DuplicateDownloadPolicy::Overwrite; under every other policy a file whose name is taken fails with
//! ErrorCode::AlreadyExists, since there is nobody to ask.
class ORX_HALVANE_EXPORT HalvaneDownloadFolderTask : public HalvaneDownloadFolderTaskBase,
                                                     public MirroringInterface {
    Q_OBJECT
public:
    using HalvaneDownloadFolderTaskBase::HalvaneDownloadFolderTaskBase;

    //! For the cache's directories. The history is not told.
    void setMirroring() override;

protected:
    //! False: it is the name of the directory that the acquisition is unpacked to.
    bool namesContent() const override;
    Task* createFileDownloadTask(const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                 const PathImpl<PathType::Dir>& targetDir, const QString& name,
                                 std::optional<DuplicateDownloadPolicy> policy) override;

private:
    bool m_isMirroring = false;
};

} // namespace orx
