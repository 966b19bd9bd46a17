#pragma once

#include "halvane_host_export.h"

#include <QByteArray>
#include <QString>

#include <chrono>

namespace halvane::host {

//! What the file system says of a file, or of raw data with everything that belongs to it: names, sizes,
//! times of modification and of status change, inodes. While it is the same the content is the same, provided
//! that nothing had changed just before it was taken: clocks of file systems have ticks.
struct HALVANE_HOST_EXPORT LocalStamp {
    using Time = std::chrono::system_clock::time_point;

    //! Empty when it could not be taken.
    QByteArray text;
    //! The last change of anything in it.
    Time changedAt;

    //! Reads no content. Blocks; thread: any.
    static LocalStamp of(const QString& path, bool isRawData);
    //! Whether a change after \a taken would give another stamp.
    bool isReliable(Time taken) const;
};

} // namespace halvane::host
