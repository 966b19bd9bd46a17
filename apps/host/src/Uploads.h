#pragma once

#include "Downloads.h"
#include "RemoteItem.h"

#include <QStringList>

namespace halvane::host {

//! What becomes of a file whose name is taken in the target folder by another content. One that the server
//! has with the very content already is never sent again, whatever this says.
enum class IfTaken {
    Ask,        //!< somebody is asked; with nobody to ask it is Fail
    NewVersion, //!< the file on the server gets a new version
    KeepBoth,   //!< the new file gets a free name
    Skip,       //!< it is left out, and that is no failure
    Fail        //!< it is left out, and that is a failure
};

//! What `put` is asked for when it is more than one file.
struct TreeUploadRequest {
    //! Local files, packed acquisitions, raw data and directories.
    QStringList paths;
    //! A remote path or a reference of a folder.
    QString target;
    IfTaken ifTaken = IfTaken::NewVersion;
    //! Stop for a file of which the server has a newer version than this machine last had.
    bool checkVersion = false;
    //! One failure does not stop the others.
    bool keepGoing = false;
    //! What an earlier run saw on the server and nobody touched since is not read again.
    bool onlyMissing = false;
    //! Raw data files go up as the files that they are, and are not packed. For files only.
    bool asFile = false;
    bool keepInCache = true;
};

//! What came of a file that did not fail.
struct UploadedFile {
    enum class Outcome {
        Uploaded,
        Unchanged, //!< the server has its content already
        Skipped    //!< the name is taken and the file was left out, as asked for
    };
    //! On the server; what is there already when nothing was sent.
    RemoteItem item;
    //! Absolute.
    QString path;
    Outcome outcome = Outcome::Uploaded;
};

//! A local file or folder that did not go up.
using UploadFailure = DownloadFailure;

//! What was left out without a failure, and why.
struct LeftOutPath {
    QString source;
    QString path;
    //! A word for scripts: "hidden", "filter", "link", "special", "policy", "vanished", "not_tried",
    //! "unexplained".
    QString reason;
    //! A sentence.
    QString text;
};

//! What was not tried for one reason: a file, or a directory with everything in it.
struct NotTriedPath {
    QString path;
    bool isDirectory = false;
    //! 0 for a directory that holds none.
    int files = 1;
    //! A sentence.
    QString text;
};

//! What came of one of the paths that were asked for, with everything in it.
struct UploadedTree {
    //! Absolute.
    QString path;
    bool isFolder = false;
    //! Of the folder on the server; no id when there is none.
    RemoteItem folder;
    //! Files that were to go up, those that have vanished meanwhile among them.
    int files = 0;
    int uploaded = 0;
    int unchanged = 0;
    int skipped = 0;
    int failed = 0;
    //! Left out by a rule; of a directory its content does not count.
    int leftOut = 0;
    int notTried = 0;
    //! Neither uploaded nor reported by anybody; directories without files among them.
    int unexplained = 0;
};

//! What came of everything.
struct UploadReport {
    QList<UploadedTree> trees;
    QList<UploadFailure> failures;
    //! In the order of paths, each by itself.
    QList<LeftOutPath> leftOut;
    //! Those of it that were not tried, in as few lines as possible.
    QList<NotTriedPath> notTried;
    int unexplained = 0;
    //! Files that are on the server now.
    int done = 0;
};

//! How far an upload is.
struct UploadState {
    int filesDone = 0;
    int filesTotal = 0;
    qint64 bytesDone = 0;
    //! Without those of files that failed or were left out.
    qint64 bytesTotal = 0;
    bool areTotalsKnown = false;
    //! Local paths of uploads that run.
    QStringList running;
    //! Those that have begun and wait for others: for a turn to be packed, for room.
    int waiting = 0;
};

} // namespace halvane::host
