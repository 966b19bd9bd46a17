#pragma once

#include "CacheFiles.h"

#include <QHash>
#include <QMutex>

#include <memory>
#include <optional>

namespace orx {

class CacheLocks;

//! A lock that is held until the object goes. Movable. Thread: any.
class CacheLock {
public:
    CacheLock() = default;
    CacheLock(CacheLock&& other) noexcept = default;
    CacheLock& operator=(CacheLock&& other) noexcept;
    ~CacheLock();
    bool isHeld() const { return m_locks != nullptr; }

private:
    friend class CacheLocks;
    CacheLock(std::shared_ptr<CacheLocks> locks, qint64 offset)
        : m_locks(std::move(locks)), m_offset(offset) {}
    std::shared_ptr<CacheLocks> m_locks;
    qint64 m_offset = 0;
};

//! Advisory locks on single bytes of one file, which go with the process that holds them. One open file of
//! the process holds all of them (a lock costs no descriptor), so that what the threads of the process hold
//! is counted here. Thread: any.
class CacheLocks : public std::enable_shared_from_this<CacheLocks> {
public:
    //! Shared by those who read an entry, exclusive for who removes it.
    static constexpr int kUse = 0;
    //! Exclusive for who fetches an entry or makes a staging directory.
    static constexpr int kFill = 1;
    //! Exclusive while what lies at an entry's place and its record are exchanged: short.
    static constexpr int kPlace = 2;
    //! Shared by who brings content to its place, exclusive for who takes content without record away: short.
    static constexpr qint64 kSweep = 0;
    //! Exclusive for who sets a damaged database aside.
    static constexpr qint64 kDatabase = 1;

    explicit CacheLocks(CacheDescriptor file) : m_file(std::move(file)) {}

    //! The byte that stands for the lock \a which of what has the key \a key (hexadecimal digits). Different
    //! keys share a byte about never, and then merely find each other busy.
    static qint64 offset(const QByteArray& key, int which);
    //! None when somebody else holds it in a way that excludes this.
    std::optional<CacheLock> tryShared(qint64 offset);
    std::optional<CacheLock> tryExclusive(qint64 offset);
    //! For workers: waits up to a minute for a lock that others hold for a short time only. None when it was
    //! in vain, or \a cancel became true.
    std::optional<CacheLock> waitShared(qint64 offset);
    std::optional<CacheLock> waitExclusive(qint64 offset, const CacheFiles::CancelFlag* cancel = nullptr);

private:
    friend class CacheLock;
    bool setLock(qint64 offset, short type);
    void release(qint64 offset);

    QMutex m_mutex;
    CacheDescriptor m_file;
    //! Number of shared holders, or kExclusive.
    QHash<qint64, int> m_held;
};

} // namespace orx
