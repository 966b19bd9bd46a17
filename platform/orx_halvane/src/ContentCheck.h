#pragma once

#include "orx_halvane_export.h"

#include <ContentHash.h>

#include <QString>

#include <optional>

namespace orx {

//! Whether a file that is there has a certain content. Links are not followed. Blocks on the disk; thread:
//! one at a time, a worker.
class ORX_HALVANE_EXPORT ContentCheck {
public:
    //! \a sha256: hexadecimal.
    ContentCheck(const QString& path, qint64 size, const QByteArray& sha256);
    ~ContentCheck();
    ContentCheck(const ContentCheck&) = delete;
    ContentCheck& operator=(const ContentCheck&) = delete;

    //! Reads up to \a bytes more; nothing while there is more to read. A file that cannot be read, or is
    //! none, is another content.
    std::optional<bool> isSame(qint64 bytes);

private:
    std::optional<bool> begin();

    const QString m_path;
    const qint64 m_size;
    const QByteArray m_sha256;
    int m_file = -1;
    qint64 m_hashed = 0;
    ContentHash m_hash;
};

} // namespace orx
