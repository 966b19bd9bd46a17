#pragma once

#include "WorkWatch.h"

#include <Result.h>

#include <QString>

#include <memory>

namespace orx::vonk {

//! Room on a disk that something being written will take, so that what is written side by side is not begun
//! with the same free bytes. Held until it is destroyed; what was written counts no more.
class DiskRoom {
public:
    //! \a bytes on the file system of \a directory for \a wanted. When they would be there but for the room
    //! that others of this process hold, waits until those have finished. Thread: any; not from within the
    //! progress of one that holds room.
    //!
    //! ErrorCode::StorageFull when fewer are free; FileNotWritable when that cannot be told; Canceled.
    static Result<DiskRoom> take(const QString& directory, qint64 bytes, const QString& wanted,
                                 const WorkWatch& watch);
    ~DiskRoom();
    DiskRoom(DiskRoom&&) noexcept;
    DiskRoom& operator=(DiskRoom&&) noexcept;

    void written(qint64 bytes);

private:
    struct Held;
    explicit DiskRoom(std::unique_ptr<Held> held);

    std::unique_ptr<Held> d;
};

} // namespace orx::vonk
