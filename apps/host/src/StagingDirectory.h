#pragma once

#include "halvane_host_export.h"

#include <Error.h>
#include <HeldFile.h>

#include <QString>

namespace halvane::host {

//! The hidden directory beside a target in which an acquisition is fetched and unpacked without the cache.
//! One run at a time holds it, by a file in it: nobody else writes there or removes it. What is in it when a
//! run lets go is for the next one; without anything in it it goes, too. Blocks on the disk; thread: one at a
//! time, any.
class HALVANE_HOST_EXPORT StagingDirectory {
public:
    //! \a lockName is a name that nothing else in it has.
    StagingDirectory(const QString& path, const QString& lockName);
    //! Lets go.
    ~StagingDirectory();
    StagingDirectory(const StagingDirectory&) = delete;
    StagingDirectory& operator=(const StagingDirectory&) = delete;

    QString path() const { return m_path; }
    bool isHeld() const { return m_lock.isOpen(); }
    //! Makes it, unless an earlier run left it, and holds it; nothing when it is held. ErrorCode::Busy when
    //! another run holds it.
    orx::Error hold();
    //! Removes it, which is held, with everything in it, and lets go.
    orx::Error remove();
    //! Removes what an earlier run left, if it did; not what another run holds, or might hold, where the file
    //! system knows no locks.
    orx::Error removeLeft();

private:
    //! Zero or an errno.
    int open(orx::HeldFile::Missing missing);
    //! Whether nothing is left, or what is left is of who came meanwhile.
    bool letGo();
    orx::Error failure(int reason, const char* text) const;

    const QString m_path;
    const QString m_lockName;
    int m_directory = -1;
    orx::HeldFile m_lock;
};

} // namespace halvane::host
