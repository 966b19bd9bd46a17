#include "DiskRoom.h"

#include "PackedFile.h"
#include "PackedText.h"
#include "StagedFile.h"

#include <WorkerPool.h>

#include <QAbstractEventDispatcher>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <utility>

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
    //! All bytes that were ever written, and how often some were given back.
    qint64 written = 0;
    quint64 returns = 0;
    std::deque<std::weak_ptr<RoomWish>> line;
    //! Some thread answers those in line, and only that one.
    bool isServed = false;
};

//! Nobody looks at a disk with the mutex held: one that does not answer must not stop what is on others.
struct Disks {
    std::mutex mutex;
    std::map<dev_t, Disk> all;
};

Disks& disks() {
    // Never destroyed: a thread may still write while the program ends.
    static Disks& only = *new Disks;
    return only;
}

Result<dev_t> deviceOf(const QString& directory) {
    struct stat info = {};
    if (::stat(encodedPath(directory).constData(), &info) != 0)
        return writeFailure(errno, directory);
    return info.st_dev;
}

Result<qint64> freeIn(const QString& directory) {
    struct statvfs room = {};
    if (::statvfs(encodedPath(directory).constData(), &room) != 0)
        return writeFailure(errno, directory);
    const double available = double(room.f_bavail) * double(room.f_frsize);
    constexpr double most = double(std::numeric_limits<qint64>::max() / 2);
    return qint64(std::min(available, most));
}

//! What was free, and how far everything was before that was asked.
struct Look {
    qint64 free = 0;
    qint64 written = 0;
    quint64 returns = 0;
};

Result<Look> lookAt(const QString& directory, dev_t device) {
    Look look;
    {
        const std::lock_guard lock(disks().mutex);
        const Disk& disk = disks().all[device];
        look.written = disk.written;
        look.returns = disk.returns;
    }
    const auto free = freeIn(directory);
    ORX_RETURN_ON_ERROR(free.error());
    look.free = *free;
    return look;
}

enum class Fit { Yes, No, LookAgain };

//! With the mutex held. What was written since the look is planned no more, and may have been free then.
Fit fitOf(const Disk& disk, const Look& look, qint64 bytes) {
    const qint64 most = look.free - disk.planned;
    if (bytes <= most - (disk.written - look.written))
        return Fit::Yes;
    return bytes <= most || disk.returns != look.returns ? Fit::LookAgain : Fit::No;
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

    // With the mutex held:
    void plan(qint64 bytes) {
        planned += bytes;
        Disk& disk = disks().all[device];
        disk.planned += bytes;
        disk.plannedTemporary += content == Content::Temporary ? bytes : 0;
    }
    void wrote(qint64 bytes) {
        plan(-std::min(bytes, planned));
        disks().all[device].written += bytes;
        if (content == Content::Temporary)
            keep(bytes);
    }
    void keep(qint64 bytes) {
        temporary += bytes;
        disks().all[device].temporary += bytes;
    }
    void giveBackRest() {
        plan(-planned);
        ++disks().all[device].returns;
    }

    //! Plans \a more bytes, \a bytes in all, if they are free.
    Error planMore(const QString& directory, qint64 more, qint64 bytes, const QString& wanted);

    static std::shared_ptr<DiskRoom> make(dev_t device, Content content);
    static void serve(dev_t device);
    static bool beginToServe(dev_t device);
    static void serveLine(dev_t device);
    static std::shared_ptr<RoomWish> firstInLine(dev_t device);
    static std::optional<GivenRoom> answer(const RoomWish& wish, dev_t device, const Look& look, Fit fit);
};

std::shared_ptr<DiskRoom> DiskRoom::Private::make(dev_t device, Content content) {
    const std::shared_ptr<DiskRoom> room(new DiskRoom);
    room->d->device = device;
    room->d->content = content;
    return room;
}

Error DiskRoom::Private::planMore(const QString& directory, qint64 more, qint64 bytes,
                                  const QString& wanted) {
    for (;;) {
        const auto look = lookAt(directory, device);
        ORX_RETURN_ON_ERROR(look.error());
        const std::lock_guard lock(disks().mutex);
        const Disk& disk = disks().all[device];
        const Fit fit = fitOf(disk, *look, more);
        if (fit == Fit::No)
            return noRoom(directory, bytes, wanted, std::max<qint64>(0, look->free - disk.planned));
        if (fit == Fit::Yes) {
            plan(more);
            return {};
        }
    }
}

// ---- those in line

//! A thread with an event loop waits for no disk.
void DiskRoom::Private::serve(dev_t device) {
    if (!beginToServe(device))
        return;
    if (QAbstractEventDispatcher::instance())
        WorkerPool::instance().submit([device] { serveLine(device); }, nullptr, {});
    else
        serveLine(device);
}

//! False when there is nobody in line, or who serves them already.
bool DiskRoom::Private::beginToServe(dev_t device) {
    const std::lock_guard lock(disks().mutex);
    Disk& disk = disks().all[device];
    return !disk.line.empty() && !std::exchange(disk.isServed, true);
}

//! Answers those who come first, as long as there is an answer. Who gives room back meanwhile leaves the line
//! to this: nobody is sent to wait by a look that is older than that.
void DiskRoom::Private::serveLine(dev_t device) {
    while (auto first = firstInLine(device)) {
        const QString directory = first->directory;
        first.reset(); // its owner may give up before the disk answers
        const auto look = lookAt(directory, device);
        std::optional<GivenRoom> given;
        {
            const std::lock_guard lock(disks().mutex);
            Disk& disk = disks().all[device];
            first = disk.line.front().lock();
            if (first) {
                const Fit fit = look ? fitOf(disk, *look, first->bytes) : Fit::No;
                if (fit == Fit::LookAgain)
                    continue;
                given = look ? answer(*first, device, *look, fit) : GivenRoom(look.error());
                if (!given) {
                    disk.isServed = false;
                    return;
                }
            }
            disk.line.pop_front();
        }
        if (given)
            first->given(*given);
    }
}

//! Who gave up is no more in line.
std::shared_ptr<RoomWish> DiskRoom::Private::firstInLine(dev_t device) {
    const std::lock_guard lock(disks().mutex);
    Disk& disk = disks().all[device];
    for (; !disk.line.empty(); disk.line.pop_front()) {
        if (auto first = disk.line.front().lock())
            return first;
    }
    disk.isServed = false;
    return nullptr;
}

//! With the mutex held. None when it is worth waiting.
std::optional<GivenRoom> DiskRoom::Private::answer(const RoomWish& wish, dev_t device, const Look& look,
                                                   Fit fit) {
    if (fit == Fit::Yes) {
        const auto room = make(device, wish.content);
        room->d->plan(wish.bytes);
        return room;
    }
    const Disk& disk = disks().all[device];
    // What is just being written may be counted as planned still, and as free no more.
    const qint64 most = look.free + disk.temporary + disk.plannedTemporary;
    const bool isAlone = disk.planned == 0 && disk.temporary == 0;
    if (isAlone || wish.bytes > most)
        return noRoom(wish.directory, wish.bytes, wish.wanted, most);
    return std::nullopt;
}

void DiskRoom::ask(const std::shared_ptr<RoomWish>& wish) {
    const auto device = deviceOf(wish->directory);
    if (device.hasError()) {
        wish->given(device.error());
        return;
    }
    {
        const std::lock_guard lock(disks().mutex);
        wish->m_device = *device;
        disks().all[*device].line.push_back(wish);
    }
    if (Private::beginToServe(*device))
        Private::serveLine(*device);
}

// Who stood behind it may be first now.
RoomWish::~RoomWish() {
    if (m_device)
        DiskRoom::Private::serve(*m_device);
}

// ---- who has room

DiskRoom::DiskRoom() : d(std::make_unique<Private>()) {}

DiskRoom::~DiskRoom() {
    release();
}

Result<std::shared_ptr<DiskRoom>> DiskRoom::take(const QString& directory, qint64 bytes,
                                                 const QString& wanted) {
    const auto device = deviceOf(directory);
    ORX_RETURN_ON_ERROR(device.error());
    const auto room = Private::make(*device, Content::Stays);
    ORX_RETURN_ON_ERROR(room->d->planMore(directory, bytes, bytes, wanted));
    return room;
}

Error DiskRoom::growTo(const QString& directory, qint64 bytes, const QString& wanted) {
    qint64 more = 0;
    {
        const std::lock_guard lock(disks().mutex);
        more = bytes - d->planned;
    }
    return more > 0 ? d->planMore(directory, more, bytes, wanted) : Error();
}

void DiskRoom::written(qint64 bytes) {
    const std::lock_guard lock(disks().mutex);
    d->wrote(bytes);
}

void DiskRoom::finish() {
    {
        const std::lock_guard lock(disks().mutex);
        d->giveBackRest();
    }
    Private::serve(d->device);
}

void DiskRoom::release() {
    {
        const std::lock_guard lock(disks().mutex);
        d->giveBackRest();
        d->keep(-d->temporary);
    }
    Private::serve(d->device);
}

} // namespace orx::vonk
