#pragma once

#include "PackInput.h"
#include "PackedFile.h"
#include "VonkMetadata.h"

#include <QByteArray>
#include <QList>

#include <sys/stat.h>
#include <vector>

namespace orx::vonk {

//! What lies on the disk to be packed, as it was when it was listed.
class PackSource {
public:
    //! Lists everything. ErrorCode::NotFound, FileNotReadable (also for links, devices and names that are not
    //! valid text), InvalidArgument for paths that a packed acquisition cannot hold.
    static Result<PackSource> list(const PackInput& input);

    //! In the order of the archive; the digests are empty.
    const QList<VonkEntry>& entries() const { return m_entries; }
    QString localPath(qsizetype entry) const;
    //! Opens a file of the list. ErrorCode::FileChanged when it is not what it was.
    Result<Descriptor> open(qsizetype entry) const;
    //! Reads all of \a buffer. ErrorCode::FileChanged when the file ends before.
    Error read(qsizetype entry, const Descriptor& file, qint64 offset, std::span<char> buffer) const;
    //! ErrorCode::FileChanged when the open file is not what it was.
    Error checkUnchanged(qsizetype entry, const Descriptor& file) const;
    //! ErrorCode::FileChanged when something came, went or changed since the list was made.
    Error checkUnchanged(const PackInput& input) const;

private:
    class Lister;
    struct Stamp {
        quint64 device = 0;
        quint64 inode = 0;
        qint64 size = 0;
        PackedTime modified;
        //! Of files: moves also when a time is set back.
        PackedTime changed;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };
    struct Found {
        VonkEntry entry;
        QByteArray localPath;
        Stamp stamp;
    };
    static Stamp stampOf(const struct stat& info);
    Error changed(qsizetype entry) const;

    QList<VonkEntry> m_entries;
    std::vector<QByteArray> m_localPaths;
    std::vector<Stamp> m_stamps;
};

} // namespace orx::vonk
