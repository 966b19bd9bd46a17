#pragma once

#include "RemoteItem.h"

#include <Error.h>

#include <QStringList>

#include <optional>

namespace halvane::host {

//! What becomes of a file that is to come down where something else is. A file that has the very content
//! already stays under every one of them, and is no clash.
enum class IfExists {
    Ask,       //!< somebody is asked; with nobody to ask it is Fail
    Overwrite, //!< the new file takes the place of the old one
    Skip,      //!< the old file stays, and that is no failure
    Rename,    //!< the new file gets a free name
    Fail       //!< the old file stays, and that is a failure
};

//! What `get` is asked for.
struct DownloadRequest {
    //! Remote paths or references of files (of one of their versions perhaps) and folders.
    QStringList sources;
    //! An existing directory, into which everything goes. For a single file without a name: else the path of
    //! the file to be. For anything else: else a directory to be made in an existing one.
    QString targetPath;
    //! What the only source is to be called there; empty: its own name.
    QString name;
    IfExists ifExists = IfExists::Ask;
    //! Packed acquisitions come as the packed files that they are, not as what they hold.
    bool packed = false;
    //! From the cache where it is there, else into it first.
    bool useCache = true;
    //! What the cache may hold at most; a larger file is not brought into it.
    std::optional<qint64> maxCachedBytes;
};

//! What came of a file that did not fail.
struct DownloadedFile {
    enum class Outcome {
        Downloaded, //!< it was written to the path
        Unchanged,  //!< what is at the path has its content already
        Skipped     //!< something else is at the path and stays, as asked for
    };
    //! In the version that came, or would have.
    RemoteItem item;
    //! Absolute. Of several entries, into which a packed acquisition unfolds, the first.
    QString path;
    Outcome outcome = Outcome::Downloaded;
    //! It was in the cache; no content was fetched for it.
    bool fromCache = false;
    //! It got a free name, since its own was taken.
    bool isRenamed = false;
    orx::Warnings warnings;
};

//! What came of a folder with everything in it.
struct DownloadedFolder {
    RemoteItem item;
    //! Absolute; of the directory that holds its content.
    QString path;
    int files = 0;
    int downloaded = 0;
    int unchanged = 0;
    int skipped = 0;
    //! Files and folders that failed.
    int failed = 0;
    //! Listed files that were not tried any more.
    int notTried = 0;
};

//! A file or folder that did not come down.
struct DownloadFailure {
    //! The source that it belongs to, as it was asked for.
    QString source;
    //! What failed: its absolute local path, or the source where there is none.
    QString path;
    orx::Error error;
};

//! How far a download is. Totals grow while folders are listed.
struct DownloadState {
    int filesDone = 0;
    int filesTotal = 0;
    qint64 bytesDone = 0;
    qint64 bytesTotal = 0;
    bool areTotalsKnown = false;
};

} // namespace halvane::host
