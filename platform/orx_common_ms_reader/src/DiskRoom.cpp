#include "DiskRoom.h"

#include "PackedFile.h"
#include "PackedText.h"
#include "StagedFile.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace orx::vonk {

namespace {

struct Holdings {
    std::mutex mutex;
    std::condition_variable released;
    //! Bytes by file system.
    std::map<dev_t, qint64> bytes;
};

Holdings& holdings() {
    // Never destroyed: a thread may still write while the program ends.
    static Holdings& all = *new Holdings;
    return all;
}

struct Disk {
    dev_t device = 0;
    qint64 available = 0;
};

Result<Disk> diskOf(const QString& directory) {
    const QByteArray path = encodedPath(directory);
    struct stat info = {};
    struct statvfs room = {};
    if (::stat(path.constData(), &info) != 0 || ::statvfs(path.constData(), &room) != 0)
        return writeFailure(errno, directory);
    const double available = double(room.f_bavail) * double(room.f_frsize);
    constexpr double most = double(std::numeric_limits<qint64>::max() / 2);
    return Disk{info.st_dev, qint64(std::min(available, most))};
}

Error noRoom(const QString& directory, qint64 bytes, const QString& wanted, qint64 available) {
    return Error(ErrorCode::StorageFull,
                 translated("There is no room for \"%1\": it may take %2 MiB, and %3 MiB are free in \"%4\".")
                     .arg(wanted)
                     .arg(bytes / (1024 * 1024) + 1)
                     .arg(available / (1024 * 1024))
                     .arg(directory));
}

} // namespace

struct DiskRoom::Held {
    Held(dev_t on, qint64 count) : device(on), bytes(count) { holdings().bytes[device] += bytes; }
    ~Held() {
        giveBack(bytes);
        holdings().released.notify_all();
    }
    Q_DISABLE_COPY_MOVE(Held)

    void giveBack(qint64 count) {
        const std::lock_guard lock(holdings().mutex);
        bytes -= count;
        holdings().bytes[device] -= count;
    }

    dev_t device;
    qint64 bytes;
};

DiskRoom::DiskRoom(std::unique_ptr<Held> held) : d(std::move(held)) {}
DiskRoom::~DiskRoom() = default;
DiskRoom::DiskRoom(DiskRoom&&) noexcept = default;
DiskRoom& DiskRoom::operator=(DiskRoom&&) noexcept = default;

Result<DiskRoom> DiskRoom::take(const QString& directory, qint64 bytes, const QString& wanted,
                                const WorkWatch& watch) {
    Holdings& all = holdings();
    std::unique_lock lock(all.mutex);
    for (;;) {
        const auto disk = diskOf(directory);
        ORX_RETURN_ON_ERROR(disk.error());
        if (bytes > disk->available)
            return noRoom(directory, bytes, wanted, disk->available);
        if (bytes <= disk->available - all.bytes[disk->device])
            return DiskRoom(std::make_unique<Held>(disk->device, bytes));
        ORX_RETURN_ON_ERROR(watch.check());
        all.released.wait_for(lock, std::chrono::milliseconds(20));
    }
}

void DiskRoom::written(qint64 bytes) {
    d->giveBack(std::min(bytes, d->bytes));
}

} // namespace orx::vonk
