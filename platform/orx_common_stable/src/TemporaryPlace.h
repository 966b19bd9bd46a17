#pragma once

#include "orx_common_stable_export.h"

#include <QByteArray>

#include <sys/types.h>

namespace orx {

//! A hidden name beside a target, under which the file or directory that will take its place is made. It is
//! always the same name, `.NAME.orx-copy.part`, and locked as long as the object lives, so that what a killed
//! process left is told from what another one is making: the former is removed by who comes next. While
//! another one works, and where there are no locks, it is a random name. Blocks on the disk; thread: any.
class ORX_COMMON_STABLE_EXPORT TemporaryPlace {
public:
    TemporaryPlace() = default;
    //! Gives up the lock, and leaves what is there.
    ~TemporaryPlace();
    TemporaryPlace(const TemporaryPlace&) = delete;
    TemporaryPlace& operator=(const TemporaryPlace&) = delete;

    //! Makes an empty file for \a target, open for writing, or an empty directory; once per object. Zero or
    //! an errno.
    int makeFile(const QByteArray& target, mode_t mode);
    int makeDirectory(const QByteArray& target, mode_t mode);
    const QByteArray& path() const { return m_path; }
    //! Of what was made; closed with the object.
    int descriptor() const { return m_descriptor; }

    //! Removes what a killed process left for \a target. False when something is there that is in use, or
    //! that cannot be removed.
    static bool removeAbandoned(const QByteArray& target);
    //! Removes a directory with everything in it, also what is protected against its owner; as far as
    //! possible.
    static void removeTree(const QByteArray& directory);

private:
    enum class Kind { File, Directory };
    int make(Kind kind, const QByteArray& target, mode_t mode);
    int tryToMake(Kind kind, mode_t mode);
    //! Lost to somebody who removes what was made, or not to be had on this file system.
    enum class Lock { Taken, Lost, Impossible };
    Lock takeLock() const;
    void drop(Kind kind, bool isRemoved);

    QByteArray m_path;
    int m_descriptor = -1;
};

} // namespace orx
