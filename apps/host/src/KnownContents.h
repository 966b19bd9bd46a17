#pragma once

#include "halvane_host_export.h"

#include <Error.h>

#include <QByteArray>
#include <QHash>
#include <QString>

namespace halvane::host {

//! A local file, packed acquisition or raw data that the server was seen to have.
struct KnownContent {
    //! LocalStamp of before it was read.
    QByteArray stamp;
    //! Of the version on the server that has the content; of raw data the packed one.
    QString sha256;
    bool operator==(const KnownContent&) const = default;
};

//! Remembers, in the configuration directory, what of a path that was put the connection's server was seen to
//! have, so that a retry needs not read again what has not been touched since. What is not in it is not
//! known: whatever happens to it, nothing is taken for complete that is not. Thread: any; blocks on the disk.
class HALVANE_HOST_EXPORT KnownContents {
public:
    //! By absolute path.
    using ByPath = QHash<QString, KnownContent>;

    //! \a source: absolute; of the connection's server and user.
    explicit KnownContents(const QString& source);

    //! Nothing when there is no record, or none that can be read.
    ByPath read() const;
    //! In the place of what was there.
    orx::Error write(const ByPath& contents) const;

private:
    const QString m_source;
    QString m_path;
};

} // namespace halvane::host
