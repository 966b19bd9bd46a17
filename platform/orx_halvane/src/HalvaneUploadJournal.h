#pragma once

#include "HalvaneFileUploadParameters.h"

#include <QDateTime>

#include <utility>
#include <vector>

namespace orx {

//! One upload that was begun and whose result is not yet recorded.
struct ORX_HALVANE_EXPORT HalvaneUploadRecord {
    //! Row of the journal; -1 before it was written.
    qint64 rowId = -1;
    QString serverKey;
    QString userName;
    //! Used for opening and for finalising.
    QByteArray idempotencyKey;
    //! -1 until the server has answered.
    int uploadId = -1;
    //! Canonical.
    QString localPath;
    qint64 size = -1;
    //! Modification time of the local file in nanoseconds since the epoch.
    qint64 modifiedNs = 0;
    HalvaneResourceReference::ItemType targetItemType = HalvaneResourceReference::ItemType::Folder;
    int targetId = -1;
    HalvaneResourceReference::ItemType originalTargetItemType = HalvaneResourceReference::ItemType::Folder;
    int originalTargetId = -1;
    QString targetFileName;
    //! A packed copy in a temporary directory: matched by content and target, never by path or time.
    bool temporary = false;
};

//! The journal of open uploads in the configuration directory: durable, shared by all processes under the
//! database's lock. A record belongs to the process that works on it (process id, its start time and the
//! boot) until it is released, removed, or that process is gone. Blocks on the disk: call it on a worker.
//! Thread: any.
class ORX_HALVANE_EXPORT HalvaneUploadJournal {
public:
    //! Finds the newest record of the same unchanged file (server, user, path, size, time) for the same
    //! target and name that no living process holds, and makes it this process's; else writes a new one with
    //! a fresh key. \a wanted gives everything but key and upload id.
    static Result<HalvaneUploadRecord> acquire(const HalvaneUploadRecord& wanted);
    //! Stores the upload id.
    static Error setUploadId(qint64 rowId, int uploadId);
    //! Gives the record up for others (or a later run of this process) to resume.
    static Error release(qint64 rowId);
    //! The result is recorded (or the upload is gone): removes the record.
    static Error remove(qint64 rowId);
    enum class End { Release, Remove };
    //! The same for several, with one flush.
    static Error end(const std::vector<std::pair<End, qint64>>& records);
    //! Records of an unchanged local file and its original target that no living process holds, newest first.
    //! \a targetFileName must match.
    static Result<QList<HalvaneUploadRecord>> unsettled(const HalvaneUploadRecord& wanted);
    //! True when a file of another size or modification time than the record's is at its path. A file that
    //! has gone has not changed, and neither has a temporary copy, which has another time with every run.
    static bool isChanged(const HalvaneUploadRecord& record);
    //! The record that describes uploading the file of \a parameters as it is now: canonical path, size and
    //! time from the disk. Fails when it cannot be read.
    static Result<HalvaneUploadRecord> describe(const HalvaneFileUploadParameters& parameters);
};

} // namespace orx
