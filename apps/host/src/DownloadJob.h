#pragma once

#include "ClashAnswerer.h"

#include <ComplexTask.h>

#include <QPointer>

#include <deque>
#include <memory>

namespace halvane::host {

class FolderDownloadTask;

//! Brings files and folders of the server to local paths, one source after the other, each file as
//! ItemDownloadTask does. One failure does not stop the others; the job ends with the first failure, and
//! failures() has them all. It gives up early when nothing else could succeed: nobody is logged in, nobody
//! answers, several in a row failed because of the network or a full disk. A target that cannot be is found
//! before any call (ErrorCode::FileNotWritable). Two sources that would come by one path fail before anything
//! is fetched when one of them is a folder: nothing is merged. Thread: that of the object.
class HALVANE_HOST_EXPORT DownloadJob : public orx::ComplexTask {
    Q_OBJECT
public:
    //! When somebody \a canBeAsked about clashes, answerer() asks.
    explicit DownloadJob(const DownloadRequest& request, bool canBeAsked = false, QObject* parent = nullptr);
    ~DownloadJob() override;

    ClashAnswerer& answerer() { return m_answerer; }

    //! Whether the only source is a file: as far as it is known, true before that.
    bool isSingleFile() const;
    QList<DownloadFailure> failures() const { return m_failures; }
    //! Files that did not fail.
    int doneFileCount() const { return m_doneFiles; }
    //! Folders that were asked for and are here with everything in them.
    int doneFolderCount() const { return m_doneFolders; }
    DownloadState state() const;

Q_SIGNALS:
    //! A file did not fail; \a isSource: it was asked for itself, not found in a folder.
    void fileDone(const halvane::host::DownloadedFile& file, bool isSource);
    //! A folder that was asked for has been gone through.
    void folderDone(const halvane::host::DownloadedFolder& folder);

protected:
    orx::Error initialize() override;
    orx::Error doFinish() override;

private:
    //! A source that is known by now.
    struct Item {
        QString source;
        RemoteItem remote;
        //! In the target directory; empty: the content of the folder goes into it.
        QString name;
    };

    orx::Error chooseTarget();
    void resolveNext();
    void onResolved(const QString& source, const RemoteItem& remote);
    orx::Result<QString> localNameOf(const RemoteItem& remote) const;
    void refuseSharedPaths();
    void makeTarget();
    void fetchNext();
    void fetchFile(const Item& item);
    void fetchFolder(const Item& item);
    void onFileDone(const DownloadedFile& file, bool isSource);
    void onFolderEnded(const Item& item, FolderDownloadTask& task, DownloadedFolder folder);
    void fail(const QString& source, const QString& path, const orx::Error& error);
    void countFailure(const orx::Error& error);
    //! The sources that are left fail with the error of the last one, which tells that they were not tried.
    void giveUp(const orx::Error& error);

    DownloadRequest m_request;
    //! A child, so that it outlives the subtasks.
    ClashAnswerer& m_answerer;
    QString m_targetDir;
    //! Of a single file whose path was given.
    QString m_targetName;
    bool m_targetIsMissing = false;
    std::deque<QString> m_unresolved;
    std::deque<Item> m_items;
    QList<DownloadFailure> m_failures;
    bool m_metFolder = false;
    int m_doneFiles = 0;
    int m_doneFolders = 0;
    //! Failures since something came that are those of the network or of a full disk.
    int m_failedInARow = 0;
    //! Of the sources that are files, and of the folders that have been gone through.
    int m_knownFiles = 0;
    qint64 m_knownBytes = 0;
    qint64 m_doneBytes = 0;
    //! Of the file that is under way.
    qint64 m_arrivedBytes = 0;
    QPointer<FolderDownloadTask> m_folder;
    DownloadedFolder m_folderCounts;
};

} // namespace halvane::host
