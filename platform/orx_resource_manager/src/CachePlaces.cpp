// How content comes to its place in a cache, and goes from it.
#include "CacheStore.h"

#include <FileTime.h>

#include <QCoreApplication>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orx {

using namespace CacheFiles;

namespace {

//! Directories above a place may be removed, being empty, just when they are to be used.
constexpr int kAttempts = 20;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

} // namespace

namespace {

//! Whether both tell of the same content, brought at the same time.
bool isSameContent(const CacheRecords::Record& a, const CacheRecords::Record& b) {
    return a.id == b.id && a.entry.addedAt == b.entry.addedAt && a.payload.sha256 == b.payload.sha256 &&
           a.payload.bytes == b.payload.bytes && a.payload.modifiedNs == b.payload.modifiedNs;
}

} // namespace

CacheStore::Identity CacheStore::identityAt(const CacheSubPath& place) {
    const auto parent = openParent(place);
    struct stat status {};
    if (!parent || ::fstatat(parent->get(), place.name().constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    return {status.st_dev, status.st_ino, nanosecondsOf(status.st_ctim)};
}

Result<std::optional<CacheLock>> CacheStore::holdUnchanged(const CacheSubPath& place, const Identity& seen,
                                                           const CacheRecords::Record& record,
                                                           const CancelFlag* cancel) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    auto lock = (*opened)->locks->waitExclusive(CacheLocks::offset(place.key(), CacheLocks::kPlace), cancel);
    if (!lock)
        return busy(place.text());
    const auto now = m_work.find(place.text());
    if (now.hasError())
        return now.error();
    if (!isSameContent(*now, record) || identityAt(place) != seen)
        return std::optional<CacheLock>();
    return std::optional(std::move(*lock));
}

Result<CacheDescriptor> CacheStore::ensureParent(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    QByteArrayList above = place.components();
    above.removeLast();
    for (int attempt = 1;; ++attempt) {
        auto parent = ensureDirectories((*opened)->content.get(), above, placePath(place));
        if (parent || attempt == kAttempts || !isMissing(parent.error()))
            return parent;
    }
}

Error CacheStore::seal(const CacheSubPath& place, int staging, const QByteArray& name,
                       const CachePayload& payload) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    CacheLocks& locks = *(*opened)->locks;
    const auto sweep = locks.waitShared(CacheLocks::kSweep);
    const auto lock =
        sweep ? locks.waitExclusive(CacheLocks::offset(place.key(), CacheLocks::kPlace)) : std::nullopt;
    if (!lock)
        return busy(place.text());
    const auto taken = m_work.isTaken(place.text());
    if (taken.hasError())
        return taken.error();
    if (*taken)
        return m_work.put(place.text(), payload, CacheRecords::Durability::Flushed); // tells why not
    return exchange(place, staging, name, payload);
}

namespace {

//! For file systems that cannot exchange: for a moment there is nothing at the place.
int swapByRenames(int from, const char* name, int to, const char* there) {
    const QByteArray aside = QByteArray(".aside-") + QUuid::createUuid().toByteArray(QUuid::Id128);
    const bool wasThere = ::renameat(to, there, from, aside.constData()) == 0;
    if (!wasThere && errno != ENOENT)
        return errno;
    if (::renameat(from, name, to, there) != 0) {
        const int failure = errno;
        if (wasThere)
            ::renameat(from, aside.constData(), to, there);
        return failure;
    }
    if (!wasThere || ::renameat(from, aside.constData(), from, name) == 0)
        return 0;
    const int failure = errno;
    ::renameat(to, there, from, name);
    ::renameat(from, aside.constData(), to, there);
    return failure;
}

//! Exchanges two names, the second of which may be free. Called the other way round it undoes itself. Returns
//! 0 or errno.
int swapNames(int from, const char* name, int to, const char* there) {
    if (::renameat2(from, name, to, there, RENAME_EXCHANGE) == 0)
        return 0;
    if (errno == ENOENT && ::renameat2(from, name, to, there, RENAME_NOREPLACE) == 0)
        return 0;
    const bool isUnknown = errno == EINVAL || errno == ENOSYS || errno == ENOTSUP;
    return isUnknown ? swapByRenames(from, name, to, there) : errno;
}

} // namespace

namespace {

//! Who pinned a file is told that another one has taken its place; empty when none has.
QString replacedPinned(const CacheSubPath& place, const CacheRecords::Record& before,
                       const CachePayload& now) {
    if (before.entry.policy != ResourceCleanupPolicy::Keep || before.payload.sha256.isEmpty() ||
        now.sha256.isEmpty() || before.payload.sha256 == now.sha256)
        return {};
    return translated("\"%1\" in the cache is pinned, and another content has taken the place of what was "
                      "pinned (SHA-256 %2 instead of %3).")
        .arg(place.text(), QString::fromLatin1(now.sha256), QString::fromLatin1(before.payload.sha256));
}

} // namespace

Error CacheStore::exchange(const CacheSubPath& place, int staging, const QByteArray& name,
                           const CachePayload& payload) {
    const QString shown = placePath(place);
    const char* there = place.name().constData();
    const auto recorded = m_work.find(place.text());
    if (recorded.hasError() && !recorded.error().is(ErrorCode::NotFound))
        return recorded.error();
    for (int attempt = 1;; ++attempt) {
        const auto parent = ensureParent(place);
        if (parent.hasError())
            return parent.error();
        const int failure = swapNames(staging, name.constData(), parent->get(), there);
        if ((failure == ENOENT || failure == EEXIST) && attempt < kAttempts)
            continue;
        errno = failure;
        if (failure != 0)
            return systemError("Could not bring \"%1\" to its place in the cache", shown);
        // Without an old content or record that could come back, nothing can be taken for what it is not.
        const bool isNew =
            !recorded && ::faccessat(staging, name.constData(), F_OK, AT_SYMLINK_NOFOLLOW) != 0;
        Error error = isNew ? Error() : flush(parent->get(), shown);
        if (!error.hasError())
            error = m_work.put(place.text(), payload,
                               isNew ? CacheRecords::Durability::Relaxed : CacheRecords::Durability::Flushed);
        if (error.hasError() && swapNames(parent->get(), there, staging, name.constData()) != 0)
            qCWarning(cacheLog).noquote() << systemError("Could not bring back \"%1\"", shown).errorMessage();
        const QString replaced =
            recorded && !error.hasError() ? replacedPinned(place, *recorded, payload) : QString();
        if (!replaced.isEmpty())
            error.addWarning(replaced);
        return error;
    }
}

Error CacheStore::flushWay(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    QByteArrayList above = place.components();
    do {
        above.removeLast();
        const auto directory = openDirectories((*opened)->content.get(), above, placePath(place));
        if (directory.hasError())
            return isMissing(directory.error()) ? Error() : directory.error();
        ORX_RETURN_ON_ERROR(flush(directory->get(), placePath(place)));
    } while (!above.isEmpty());
    return Error();
}

Error CacheStore::clearPlace(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    const QByteArrayList& components = place.components();
    std::vector<CacheDescriptor> way;
    const auto directory = [&](size_t depth) {
        return depth == 0 ? (*opened)->content.get() : way[depth - 1].get();
    };
    while (way.size() + 1 < size_t(components.size())) {
        const QByteArray& name = components.at(qsizetype(way.size()));
        auto next = openDirectory(directory(way.size()), name, placePath(place));
        if (next.hasError())
            return isMissing(next.error()) ? Error() : std::move(next).error();
        way.push_back(std::move(*next));
    }
    ORX_RETURN_ON_ERROR(removeTree(directory(way.size()), place.name(), placePath(place)));
    // One that is not empty, or used by now, ends it.
    for (size_t depth = way.size(); depth > 0; --depth)
        if (::unlinkat(directory(depth - 1), components.at(qsizetype(depth) - 1).constData(), AT_REMOVEDIR) !=
            0)
            break;
    return Error();
}

namespace {

Error noEntry(const CacheSubPath& place) {
    return Error(ErrorCode::InvalidArgument,
                 translated("\"%1\" is no entry of the cache.").arg(place.text()));
}

} // namespace

Error CacheStore::remove(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    CacheLocks& locks = *(*opened)->locks;
    const auto use = locks.tryExclusive(CacheLocks::offset(place.key(), CacheLocks::kUse));
    const auto lock =
        use ? locks.waitExclusive(CacheLocks::offset(place.key(), CacheLocks::kPlace)) : std::nullopt;
    if (!lock)
        return busy(place.text());
    const auto taken = m_work.isTaken(place.text());
    if (taken.hasError())
        return taken.error();
    if (*taken)
        return noEntry(place);
    const auto record = m_work.find(place.text());
    if (record.hasError() && !record.error().is(ErrorCode::NotFound))
        return record.error();
    if (record)
        ORX_RETURN_ON_ERROR(m_work.remove(record->id));
    return clearPlace(place);
}

} // namespace orx
