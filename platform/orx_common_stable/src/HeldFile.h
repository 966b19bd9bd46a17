#pragma once

#include "orx_common_stable_export.h"

#include <QByteArray>

namespace orx {

//! A file that is there under its name and that nobody else holds: who writes to it, or removes it, holds it
//! first (flock(), which lasts until close() or the end of the process). Blocks on the disk; thread: any, one
//! at a time.
class ORX_COMMON_STABLE_EXPORT HeldFile {
public:
    enum class Missing { Make, Fail };

    HeldFile() = default;
    //! Closes.
    ~HeldFile();
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

    //! Opens \a name, relative to the open \a directory (or AT_FDCWD), for reading and writing, and closes
    //! what was open. Links are not followed. Zero or an errno: EWOULDBLOCK when somebody else holds it,
    //! ENOENT for a file that is missing.
    int open(int directory, const QByteArray& name, Missing missing);
    bool isOpen() const { return m_descriptor >= 0; }
    //! Of the open file, else -1.
    int descriptor() const { return m_descriptor; }
    //! False for an open file where the file system knows no locks, so that others may have it open, too.
    bool isLocked() const { return m_isLocked; }
    void close();

private:
    int openOnce(int directory, const QByteArray& name, Missing missing);
    //! False when it was renamed or removed before it was locked.
    bool isStillThere(int directory, const QByteArray& name) const;

    int m_descriptor = -1;
    bool m_isLocked = false;
};

} // namespace orx
