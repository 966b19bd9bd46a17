#pragma once

#include "Uploads.h"

#include <Error.h>

#include <QSet>

#include <optional>

namespace halvane::host {

//! Remembers, in the configuration directory, which local paths the last run of the same upload left (server,
//! user, target and paths are the same), so that a retry knows what it must not take for complete. Thread:
//! any; blocks on the disk.
class HALVANE_HOST_EXPORT UnfinishedUploads {
public:
    //! Of the connection's server and user.
    explicit UnfinishedUploads(const TreeUploadRequest& request);

    //! What failed or was given up the last time; nothing when that is not known, since the run was killed.
    //! Empty when the last run left nothing, or there was none.
    std::optional<QSet<QString>> lastPaths() const;
    //! A run begins: until it has told how it ended, nothing is known.
    orx::Error begin() const;
    orx::Error end(const QStringList& unfinished) const;

private:
    orx::Error write(const QByteArray& text) const;

    QString m_path;
};

} // namespace halvane::host
