#pragma once

#include "orx_common_ms_reader_export.h"

#include <Result.h>

#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <sys/types.h>

namespace orx::vonk {

struct RoomWish;

//! Room on a disk that something being written will take, so that what is written side by side is not begun
//! with the same free bytes. Held until it is destroyed; what was written is not free anyway and counts no
//! more. A disk that does not answer keeps those who take() or ask() there, and nobody else: room is given
//! back without looking at a disk, on a thread with an event loop at least. Thread: any.
class ORX_COMMON_MS_READER_EXPORT DiskRoom {
public:
    //! What becomes of what is written: Temporary is removed before the room is destroyed, so that it is
    //! worth waiting for.
    enum class Content { Stays, Temporary };

    //! \a bytes on the file system of \a directory for \a wanted, without waiting for anybody.
    //!
    //! ErrorCode::StorageFull when fewer are free beside what others of this process hold; FileNotWritable
    //! when that cannot be told.
    static Result<std::shared_ptr<DiskRoom>> take(const QString& directory, qint64 bytes,
                                                  const QString& wanted);
    //! The same, but what others hold or will remove is waited for, first come, first served on each file
    //! system, and without a thread. StorageFull when it were too little also then. Looks at the disk on this
    //! thread, for others in line too.
    static void ask(const std::shared_ptr<RoomWish>& wish);

    ~DiskRoom();
    Q_DISABLE_COPY_MOVE(DiskRoom)

    //! Makes it large enough for \a bytes more than was written. Errors: as take().
    Error growTo(const QString& directory, qint64 bytes, const QString& wanted);
    void written(qint64 bytes);
    //! Nothing more will be written.
    void finish();
    //! The same, and what was written is gone, or nobody knows when it will be.
    void release();

private:
    friend struct RoomWish;
    struct Private;
    DiskRoom();

    const std::unique_ptr<Private> d;
};

//! What somebody waits for. The waiting ends with the object, which only who waits keeps.
struct ORX_COMMON_MS_READER_EXPORT RoomWish {
    RoomWish() = default;
    ~RoomWish();
    Q_DISABLE_COPY_MOVE(RoomWish)

    QString directory;
    qint64 bytes = 0;
    QString wanted;
    DiskRoom::Content content = DiskRoom::Content::Stays;
    //! Called once, on any thread.
    std::function<void(const Result<std::shared_ptr<DiskRoom>>&)> given;

private:
    friend class DiskRoom;
    //! Where it is in line.
    std::optional<dev_t> m_device;
};

} // namespace orx::vonk
