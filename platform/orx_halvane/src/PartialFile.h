#pragma once

#include "orx_halvane_export.h"

#include <ContentHash.h>
#include <HeldFile.h>
#include <Result.h>

#include <QDateTime>

#include <functional>

namespace orx {

//! A download on the disk: a hidden partial file beside the target that grows, is locked against others, and
//! becomes the target when it is whole. What is at the target stays as it is until then. Every byte of the
//! partial file is hashed once. Blocks on the disk; thread: one at a time, a worker.
//!
//! The partial file stays when this object goes, for a later run to resume, unless it is empty.
class ORX_HALVANE_EXPORT PartialFile {
public:
    struct Location {
        QString directory;
        QString targetName;
        QString partialName;
        //! Whether a file at the target may be replaced.
        bool overwrite = false;
        //! Whether publish() flushes; else whoever takes the file on from the target does.
        bool flush = true;
    };
    //! What the whole must be.
    struct Expected {
        qint64 size = 0;
        //! Hexadecimal.
        QByteArray sha256;
        //! Becomes the file's modification time when valid.
        QDateTime modified;
    };

    explicit PartialFile(const Location& location);
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    //! Opens the partial file of an earlier run or makes one, and locks it. Fails with ErrorCode::NotFound
    //! for a missing directory, ErrorCode::AlreadyExists for a target that may not or (a directory) cannot be
    //! replaced, ErrorCode::Busy when another download holds the partial file, else with the system's error.
    //! Nothing is made in these cases.
    Error open();
    //! Bytes that are there.
    qint64 size() const { return m_size; }
    //! Hashes up to \a bytes more of what an earlier run left; true when all of it is hashed.
    Result<bool> hashMore(qint64 bytes);
    //! ENOSPC when the file system has no room for \a totalSize bytes in all.
    Error checkRoom(qint64 totalSize) const;
    //! Throws away what is there.
    Error startOver();
    //! Writes \a data after what is there. A full disk is ENOSPC with a message that says what to do; what
    //! was written stays and counts.
    Error append(const QByteArray& data);
    //! Verifies, flushes and renames to the target, flushes the directory (where Location says so), and
    //! closes the file, which ends its use. Fails with ErrorCode::ChecksumMismatch (the partial file is empty
    //! then), or ErrorCode::AlreadyExists when something is at the target by now that may not be replaced
    //! (the partial file stays). \a mayReplace, when there is one, is asked right before the renaming:
    //! ErrorCode::FileChanged when it says no (the partial file stays, too).
    Error publish(const Expected& expected, const std::function<bool()>& mayReplace = {});

private:
    Error openDirectory();
    Error checkTarget() const;
    Error openPartial();
    //! Whether it is a second name of a file, as a publication that was killed may leave it: nothing is
    //! written into that.
    bool isAlsoElsewhere() const;
    Error rename();
    Error renameWithoutReplacing();
    Error noRoom(qint64 missing) const;
    Error system(const char* text) const;
    QString targetPath() const;

    Location m_location;
    int m_directory = -1;
    HeldFile m_file;
    qint64 m_size = 0;
    qint64 m_hashed = 0;
    qint64 m_writtenBack = 0;
    bool m_published = false;
    ContentHash m_hash;
};

} // namespace orx
