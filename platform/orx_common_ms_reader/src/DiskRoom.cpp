#include "DiskRoom.h"

#include "PackedFile.h"
#include "PackedText.h"
#include "StagedFile.h"

#include <QList>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace orx::vonk {

namespace {

using GivenRoom = Result<std::shared_ptr<DiskRoom>>;

//! What this process does on one file system.
struct Disk {
    //! Bytes that are still to be written.
    qint64 planned = 0;
    //! Bytes that were written and will be removed, and those that are still to be written before that.
    qint64 temporary = 0;
    qint64 plannedTemporary = 0;
    std::deque<std::weak_ptr<RoomWish>> line;
};

struct Disks {
    std::mutex mutex;
    std::map<dev_t, Disk> all;
};

Disks& disks() {
    // Never destroyed: a thread may still write while the program ends.
    static Disks& only = *new Disks;
    return only;
}

struct Free {
    dev_t device = 0;
    qint64 bytes = 0;
};

Result<Free> freeOn(const QString& directory) {
    const QByteArray path = encodedPath(directory);
    struct stat info = {};
    struct statvfs room = {};
    if (::stat(path.constData(), &info) != 0 || ::statvfs(path.constData(), &room) != 0)
        return writeFailure(errno, directory);
    const double available = double(room.f_bavail) * double(room.f_frsize);
    constexpr double most = double(std::numeric_limits<qint64>::max() / 2);
    return Free{info.st_dev, qint64(std::min(available, most))};
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

struct DiskRoom::Private {
    dev_t device = 0;
    Content content = Content::Stays;
    qint64 planned = 0;
    qint64 temporary = 0;

    void plan(qint64 bytes) {
        planned += bytes;
        Disk& disk = disks().all[device];
        disk.planned += bytes;
        disk.plannedTemporary += content == Content::Temporary ? bytes : 0;
    }
    void wrote(qint64 bytes) {
        plan(-std::min(bytes, planned));
        if (content == Content::Temporary)
            keep(bytes);
    }
    void keep(qint64 bytes) {
        temporary += bytes;
        disks().all[device].temporary += bytes;
    }

    static std::shared_ptr<DiskRoom> make(dev_t device, Content content, qint64 bytes) {
        const std::shared_ptr<DiskRoom> room(new DiskRoom);
        room->d->device = device;
        room->d->content = content;
        room->d->plan(bytes);
        return room;
    }
    //! With the mutex held. None when it is worth waiting.
    static std::optional<GivenRoom> answer(const RoomWish& wish) {
        const auto free = freeOn(wish.directory);
        if (free.hasError())
            return free.error();
        const Disk& disk = disks().all[free->device];
        if (wish.bytes <= free->bytes - disk.planned)
            return make(free->device, wish.content, wish.bytes);
        // What is just being written may be counted as planned still, and as free no more.
        const qint64 most = free->bytes + disk.temporary + disk.plannedTemporary;
        const bool isAlone = disk.planned == 0 && disk.temporary == 0;
        if (isAlone || wish.bytes > most)
            return noRoom(wish.directory, wish.bytes, wish.wanted, most);
        return std::nullopt;
    }
    static void serve(dev_t device);
    static void serveAll();
};

//! Answers those who come first, as long as there is an answer.
void DiskRoom::Private::serve(dev_t device) {
    for (;;) {
        std::shared_ptr<RoomWish> first;
        std::optional<GivenRoom> given;
        {
            const std::lock_guard lock(disks().mutex);
            auto& line = disks().all[device].line;
            if (line.empty())
                return;
            first = line.front().lock();
            if (first) {
                given = answer(*first);
                if (!given)
                    return;
            }
            line.pop_front();
        }
        if (first)
            first->given(*given);
    }
}

void DiskRoom::Private::serveAll() {
    QList<dev_t> devices;
    {
        const std::lock_guard lock(disks().mutex);
        for (const auto& [device, disk] : disks().all) {
            if (!disk.line.empty())
                devices.append(device);
        }
    }
    for (const dev_t device : devices)
        serve(device);
}

// Who stood behind it may be first now.
RoomWish::~RoomWish() {
    DiskRoom::Private::serveAll();
}

DiskRoom::DiskRoom() : d(std::make_unique<Private>()) {}

DiskRoom::~DiskRoom() {
    release();
}

Result<std::shared_ptr<DiskRoom>> DiskRoom::take(const QString& directory, qint64 bytes,
                                                 const QString& wanted) {
    const auto free = freeOn(directory);
    ORX_RETURN_ON_ERROR(free.error());
    const std::lock_guard lock(disks().mutex);
    const qint64 available = free->bytes - disks().all[free->device].planned;
    if (bytes > available)
        return noRoom(directory, bytes, wanted, std::max<qint64>(0, available));
    return Private::make(free->device, Content::Stays, bytes);
}

void DiskRoom::ask(const std::shared_ptr<RoomWish>& wish) {
    const auto free = freeOn(wish->directory);
    if (free.hasError()) {
        wish->given(free.error());
        return;
    }
    {
        const std::lock_guard lock(disks().mutex);
        disks().all[free->device].line.push_back(wish);
    }
    Private::serve(free->device);
}

Error DiskRoom::growTo(const QString& directory, qint64 bytes, const QString& wanted) {
    const auto free = freeOn(directory);
    ORX_RETURN_ON_ERROR(free.error());
    const std::lock_guard lock(disks().mutex);
    const qint64 more = bytes - d->planned;
    const qint64 available = free->bytes - disks().all[d->device].planned;
    if (more > 0 && more > available)
        return noRoom(directory, bytes, wanted, std::max<qint64>(0, available));
    d->plan(std::max<qint64>(0, more));
    return {};
}

void DiskRoom::written(qint64 bytes) {
    const std::lock_guard lock(disks().mutex);
    d->wrote(bytes);
}

void DiskRoom::finish() {
    {
        const std::lock_guard lock(disks().mutex);
        d->plan(-d->planned);
    }
    Private::serve(d->device);
}

void DiskRoom::release() {
    {
        const std::lock_guard lock(disks().mutex);
        d->plan(-d->planned);
        d->keep(-d->temporary);
    }
    Private::serve(d->device);
}

} // namespace orx::vonk
