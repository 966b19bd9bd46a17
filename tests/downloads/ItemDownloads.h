#pragma once

#include "CacheDownloads.h"

#include <ItemDownloadTask.h>

namespace orx::testing {

//! Single files as the host brings them into a directory.
class ItemDownloads : public CacheDownloads {
protected:
    using Wanted = halvane::host::ItemDownloadTask::Wanted;

    //! A new file on the server, and how it is wanted under its name.
    Wanted wanted(const QString& name, const QByteArray& content, bool useCache) const;
    //! A packed directory "run.d" of one file "fid" that cannot be compressed.
    static QByteArray packedRun(qsizetype held);
    //! A packed file of \a name that holds just \a content.
    static QByteArray packedFile(const QString& name, const QByteArray& content);
    static QByteArray sha256(const QByteArray& content);
};

} // namespace orx::testing
