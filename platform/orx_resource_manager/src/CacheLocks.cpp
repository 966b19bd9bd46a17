#include "CacheLocks.h"

#include <QDeadlineTimer>
#include <QMutexLocker>
#include <QThread>

#include <chrono>
#include <fcntl.h>

namespace orx {

namespace {

constexpr int kExclusive = -1;
constexpr unsigned long kPauseMs = 2;
constexpr std::chrono::milliseconds kPatience{60'000};

template <typename Try>
std::optional<CacheLock> insist(Try attempt, const CacheFiles::CancelFlag* cancel = nullptr) {
    const QDeadlineTimer deadline(kPatience);
    for (;;) {
        if (auto lock = attempt(); lock || deadline.hasExpired() || (cancel && *cancel))
            return lock;
        QThread::msleep(kPauseMs);
    }
}

struct flock byteAt(qint64 offset, short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = 1;
    return range;
}

} // namespace

CacheLock& CacheLock::operator=(CacheLock&& other) noexcept {
    std::swap(m_locks, other.m_locks);
    std::swap(m_offset, other.m_offset);
    return *this;
}

CacheLock::~CacheLock() {
    if (m_locks)
        m_locks->release(m_offset);
}

qint64 CacheLocks::offset(const QByteArray& key, int which) {
    // 60 bits of the key, two for the kind of lock, and an offset stays positive.
    return (qint64(key.left(15).toULongLong(nullptr, 16)) << 2) + which + 4;
}

bool CacheLocks::setLock(qint64 offset, short type) {
    struct flock range = byteAt(offset, type);
    return ::fcntl(m_file.get(), F_OFD_SETLK, &range) == 0;
}

std::optional<CacheLock> CacheLocks::tryShared(qint64 offset) {
    const QMutexLocker lock(&m_mutex);
    const int holders = m_held.value(offset);
    if (holders == kExclusive || (holders == 0 && !setLock(offset, F_RDLCK)))
        return std::nullopt;
    m_held[offset] = holders + 1;
    return CacheLock(shared_from_this(), offset);
}

std::optional<CacheLock> CacheLocks::tryExclusive(qint64 offset) {
    const QMutexLocker lock(&m_mutex);
    if (m_held.contains(offset) || !setLock(offset, F_WRLCK))
        return std::nullopt;
    m_held[offset] = kExclusive;
    return CacheLock(shared_from_this(), offset);
}

std::optional<CacheLock> CacheLocks::waitShared(qint64 offset) {
    return insist([&] { return tryShared(offset); });
}

std::optional<CacheLock> CacheLocks::waitExclusive(qint64 offset, const CacheFiles::CancelFlag* cancel) {
    return insist([&] { return tryExclusive(offset); }, cancel);
}

void CacheLocks::release(qint64 offset) {
    const QMutexLocker lock(&m_mutex);
    int& holders = m_held[offset];
    if (holders > 1) {
        --holders;
        return;
    }
    m_held.remove(offset);
    setLock(offset, F_UNLCK);
}

} // namespace orx
