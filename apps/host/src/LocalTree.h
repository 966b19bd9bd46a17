#pragma once

#include "halvane_host_export.h"

#include <UploadFileInputValidation.h>

#include <QList>
#include <QString>
#include <QStringList>

#include <stop_token>

namespace halvane::host {

//! What lies at a local path, as an upload takes it.
struct HALVANE_HOST_EXPORT LocalEntry {
    enum class Kind {
        File,
        Packed,    //!< a packed acquisition
        RawData,   //!< a file or directory that is packed before it is sent
        Directory, //!< becomes a folder; its entries follow it
        None       //!< is not uploaded
    };
    //! Absolute.
    QString path;
    Kind kind = Kind::None;
    //! Of the content; what is below a directory that is raw data, 0 for other directories.
    qint64 bytes = 0;
    //! Why it is not taken; of directories, nothing below them is listed then.
    orx::UploadRefusal refusal = orx::UploadRefusal::None;
    //! A directory that cannot be listed: a sentence; else empty.
    QString problem;
    //! LocalStamp of what is uploaded, when it is reliable and was taken.
    QByteArray stamp;

    bool isUpload() const {
        return refusal == orx::UploadRefusal::None && kind != Kind::Directory && kind != Kind::None;
    }
    //! The name on the server.
    QString serverName() const;
    //! A word for people and scripts.
    QString kindName() const;
};

//! One of the paths that were asked for.
struct HALVANE_HOST_EXPORT LocalTree {
    //! Absolute.
    QString source;
    //! Itself first, every directory before its entries; in the order of names.
    QList<LocalEntry> entries;
    //! What somebody might not expect of it, a sentence each: two entries that go up under one name, a
    //! directory of raw data that goes up as a folder for its name, raw data that is not packed since
    //! something of it is missing.
    QStringList remarks;

    const LocalEntry& root() const { return entries.first(); }

    //! The source of the tree that \a path gives.
    static QString sourceOf(const QString& path);
    //! Looks at \a path and everything below. What was named itself is taken whatever the rules for names
    //! say, a link as what it points to. Blocks; thread: any. Incomplete when it was asked to stop.
    static LocalTree scan(const QString& path, const std::stop_token& stop = {});
    static QList<LocalTree> scan(const QStringList& paths, const std::stop_token& stop = {});
    //! Gives every upload its stamp: what is read of it later is what the stamp stands for, as long as it is
    //! the same. Blocks; thread: any.
    void takeStamps(const std::stop_token& stop = {});
};

//! The same path with the name of what is there at its end, when it is a directory whose path says none:
//! "run.d/", "run.d/.", "." and "..". Blocks for a look.
HALVANE_HOST_EXPORT QString namedPath(const QString& path);

//! Why what looks like raw data is not packed but goes up as it is, a sentence or two with the path; empty
//! for everything else. Blocks for a look.
HALVANE_HOST_EXPORT QString remarkOnDoubtfulData(const QString& path);

} // namespace halvane::host
