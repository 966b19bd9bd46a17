#pragma once

#include "halvane_host_export.h"

#include <VonkMetadata.h>

#include <QHash>

#include <memory>
#include <optional>

namespace orx {
class ContentCheck;
}

namespace halvane::host {

//! Whether the cache recorded \a checksums, by their paths in the unpacked copy of a packed acquisition, of a
//! copy of the acquisition that holds \a entries: of these files and of no others.
HALVANE_HOST_EXPORT bool isRecordOf(QHash<QString, QString> checksums,
                                    const QList<orx::vonk::VonkEntry>& entries);

//! Whether everything that one file or directory of a packed acquisition holds is at a path, with the same
//! content. What else is in a directory there does not count, nor do times; links are not followed. Blocks on
//! the disk; thread: one at a time, a worker.
class HALVANE_HOST_EXPORT UnpackedCheck {
public:
    //! \a path is where the entry itself would be, \a entries are it and what is below it, with paths that
    //! begin with its name.
    UnpackedCheck(const QString& path, const QList<orx::vonk::VonkEntry>& entries);
    ~UnpackedCheck();
    UnpackedCheck(const UnpackedCheck&) = delete;
    UnpackedCheck& operator=(const UnpackedCheck&) = delete;

    //! Reads up to about \a bytes more; nothing while there is more to read.
    std::optional<bool> isSame(qint64 bytes);

private:
    //! Whether all directories and nothing but files of the right sizes are where they should be.
    bool hasShape() const;
    QString placeOf(const QString& entryPath) const;

    const QString m_path;
    const QList<orx::vonk::VonkEntry> m_entries;
    bool m_begun = false;
    qsizetype m_next = 0;
    std::unique_ptr<orx::ContentCheck> m_file;
};

} // namespace halvane::host
