#include "CacheSweeper.h"

#include "CacheLeftovers.h"

#include <QDateTime>
#include <QFile>
#include <QThread>
#include <QUuid>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

namespace orx {

using namespace CacheFiles;

namespace {

constexpr qint64 kDayMs = 24 * 60 * 60 * 1000;
//! In the state directory; its time is that of the last sweep.
constexpr const char* kSweptName = "swept";
//! Leftovers for which the lock of the sweep is held at a time, and the time in between, in which those who
//! look for the lock every 2 ms find it.
constexpr qsizetype kTakenAtOnce = 64;
constexpr unsigned long kPauseMs = 5;

//! By a clock that may have been wrong when the time was taken: what lies far ahead is as old as what lies
//! far back.
bool isWithinADay(const struct stat& status) {
    return std::llabs(QDateTime::currentMSecsSinceEpoch() - modifiedNs(status) / 1'000'000) < kDayMs;
}

//! Whether a directory or something in it was touched within a day.
bool isFresh(int parent, const QByteArray& name) {
    struct stat status {};
    if (::fstatat(parent, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (isWithinADay(status))
        return true;
    if (!S_ISDIR(status.st_mode))
        return false;
    const auto directory = openDirectory(parent, name, QString());
    // Ends at the first one.
    const auto look = [&](const QByteArray& entry) {
        return isFresh(directory->get(), entry) ? Error(ErrorCode::AlreadyExists, QString()) : Error();
    };
    return directory && forEachName(directory->get(), QString(), look).is(ErrorCode::AlreadyExists);
}

//! Of a name in the staging directory.
bool isOfFetch(const QByteArray& name) {
    return name.startsWith("fill-");
}

//! Adds what its removal gives back, as far as it can be looked at, to \a bytes: files that have other names
//! stay. The first error; what is gone meanwhile is none.
Error addBytesOf(int parent, const QByteArray& name, const QString& shown, qint64& bytes) {
    struct stat status {};
    if (::fstatat(parent, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Error() : systemError("Could not look at \"%1\"", shown);
    if (!S_ISDIR(status.st_mode)) {
        bytes += status.st_nlink == 1 ? status.st_size : 0;
        return Error();
    }
    const auto directory = openDirectory(parent, name, shown);
    if (directory.hasError())
        return CacheStore::isMissing(directory.error()) ? Error() : directory.error();
    Error first;
    const Error listed = forEachName(directory->get(), shown, [&](const QByteArray& child) {
        Error error = addBytesOf(directory->get(), child, shown + u'/' + QFile::decodeName(child), bytes);
        if (error.hasError() && !first.hasError())
            first = std::move(error);
        return Error();
    });
    return first.hasError() ? first : listed;
}

Result<QByteArrayList> namesIn(int directory, const QString& shown) {
    QByteArrayList names;
    ORX_RETURN_ON_ERROR(forEachName(directory, shown, [&](const QByteArray& name) {
        names << name;
        return Error();
    }));
    return names;
}

bool isKept(const struct stat& status) {
    return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode);
}

std::vector<std::string> encoded(const QStringList& subPaths) {
    std::vector<std::string> paths;
    paths.reserve(size_t(subPaths.size()));
    for (const QString& subPath : subPaths)
        paths.push_back(QFile::encodeName(subPath).toStdString());
    std::sort(paths.begin(), paths.end());
    return paths;
}

} // namespace

void CacheSweeper::note(const Error& error) {
    if (error.hasError() && !m_report.problems.contains(error.errorMessage()))
        m_report.problems << error.errorMessage();
}

bool CacheSweeper::isDue(const CacheRoot& root) const {
    struct stat status {};
    return ::fstatat(root.state.get(), kSweptName, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
           !isWithinADay(status);
}

void CacheSweeper::markSwept(const CacheRoot& root) {
    const CacheDescriptor file(
        ::openat(root.state.get(), kSweptName, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.isOpen() || ::futimens(file.get(), nullptr) != 0)
        note(systemError("Could not write \"%1\"", m_store.rootDir() + QStringLiteral("/state/swept")));
}

void CacheSweeper::sweepIfDue() {
    const auto root = m_store.root();
    note(root.error());
    if (root && isDue(**root))
        sweep();
}

void CacheSweeper::sweep() {
    const auto root = m_store.root();
    note(root.error());
    if (root.hasError())
        return;
    takeContent(**root);
    sweepStaging();
}

void CacheSweeper::takeContent(const CacheRoot& root) {
    const auto subPaths = m_store.records().subPaths();
    note(subPaths.error());
    if (subPaths.hasError())
        return;
    CacheLeftovers leftovers(encoded(*subPaths));
    leftovers.search(root.content.get());
    for (const CacheLeftovers::Problem& problem : leftovers.problems()) {
        errno = problem.number;
        note(systemError("Could not look into the directory \"%1\"",
                         m_store.contentDir() + u'/' + QFile::decodeName(problem.path.c_str())));
    }
    QByteArrayList found;
    for (const std::string& path : leftovers.found())
        found << QByteArray::fromStdString(path);
    for (qsizetype at = 0; at < found.size(); at += kTakenAtOnce) {
        // For those who wait to bring content.
        if (at > 0)
            QThread::msleep(kPauseMs);
        const auto lock = root.locks->tryExclusive(CacheLocks::kSweep);
        // Somebody brings content just then: the next time.
        if (!lock)
            return;
        take(root, found.mid(at, kTakenAtOnce));
    }
    markSwept(root);
}

//! What of \a paths seems to be left over.
QByteArrayList CacheSweeper::leftoversOf(const CacheRoot& root, const QByteArrayList& paths) {
    QStringList subPaths;
    for (const QByteArray& path : paths)
        subPaths << QFile::decodeName(path);
    const auto ties = m_store.records().ties(subPaths);
    note(ties.error());
    QByteArrayList found;
    for (qsizetype i = 0; ties && i < paths.size(); ++i) {
        QByteArrayList above = paths.at(i).split('/');
        const QByteArray name = above.takeLast();
        const auto parent = openDirectories(root.content.get(), above, subPaths.at(i));
        struct stat status {};
        if (!parent || ::fstatat(parent->get(), name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        const auto tie = (*ties)[size_t(i)];
        const bool isInTheWay = tie == CacheRecords::Tie::Above && !S_ISDIR(status.st_mode);
        if (tie == CacheRecords::Tie::None || !isKept(status) || isInTheWay)
            found << paths.at(i);
    }
    return found;
}

//! What of \a paths is left over, now that nobody brings content. Each at once, whatever its size, so that
//! nobody waits for long.
QByteArrayList CacheSweeper::take(const CacheRoot& root, const QByteArrayList& paths) {
    QByteArrayList taken;
    for (const QByteArray& path : leftoversOf(root, paths)) {
        const QString shown = m_store.contentDir() + u'/' + QFile::decodeName(path);
        QByteArrayList above = path.split('/');
        const QByteArray name = above.takeLast();
        const auto parent = openDirectories(root.content.get(), above, shown);
        if (!parent)
            continue;
        const QByteArray gone = "gone-" + QUuid::createUuid().toByteArray(QUuid::Id128);
        if (::renameat(parent->get(), name.constData(), root.staging.get(), gone.constData()) == 0)
            taken << gone;
        else if (errno != ENOENT)
            note(systemError("Could not take \"%1\" out of the cache", shown));
    }
    return taken;
}

//! Takes one leftover when nobody brings it there. Of one that is no directory the lock of its place tells
//! that.
Error CacheSweeper::takeBeside(const CacheRoot& root, const QByteArray& path, QByteArrayList& taken) {
    const QString subPath = QFile::decodeName(path);
    struct stat status {};
    const bool isGone =
        ::fstatat(root.content.get(), path.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    if (isGone)
        return Error();
    std::optional<CacheLock> sweep;
    std::optional<CacheLock> atPlace;
    // None for what cannot be the name of an entry.
    const auto place = m_store.parse(subPath);
    if (S_ISDIR(status.st_mode)) {
        sweep = root.locks->waitExclusive(CacheLocks::kSweep);
        if (!sweep)
            return CacheStore::busy(subPath);
    } else if (place) {
        atPlace = root.locks->waitExclusive(CacheLocks::offset(place->key(), CacheLocks::kPlace));
        if (!atPlace)
            return CacheStore::busy(subPath);
    }
    taken += take(root, {path});
    return Error();
}

Error CacheSweeper::clearBeside(const CacheSubPath& place) {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    const auto parent = m_store.openParent(place);
    // Who asks for the entry is told what else is wrong with the way to it.
    if (parent.hasError())
        return Error();
    const auto names = namesIn(parent->get(), m_store.placePath(place));
    if (names.hasError())
        return names.error();
    QByteArrayList paths;
    QByteArrayList path = place.components();
    for (const QByteArray& name : *names) {
        path.last() = name;
        if (name != place.name())
            paths << path.join('/');
    }
    if (paths.isEmpty())
        return Error();
    QByteArrayList taken;
    Error error;
    for (const QByteArray& leftover : leftoversOf(**root, paths))
        if (Error kept = takeBeside(**root, leftover, taken); kept.hasError())
            error = std::move(kept);
    if (!error.hasError() && !m_report.problems.isEmpty())
        error = Error(ErrorCode::General, m_report.problems.join(u' '));
    for (const QByteArray& gone : taken)
        note(removeTree((*root)->staging.get(), gone, m_store.stagingDir() + u'/' + QFile::decodeName(gone)));
    return error;
}

QString CacheSweeper::shownInStaging(const QByteArray& name) const {
    return m_store.stagingDir() + u'/' + QFile::decodeName(name);
}

Result<qint64> CacheSweeper::unfinishedBytes() {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    const auto names = namesIn((*root)->staging.get(), m_store.stagingDir());
    if (names.hasError())
        return names.error();
    qint64 bytes = 0;
    for (const QByteArray& name : *names)
        if (isOfFetch(name))
            ORX_RETURN_ON_ERROR(addBytesOf((*root)->staging.get(), name, shownInStaging(name), bytes));
    return bytes;
}

//! The names are "fill-", "add-" and "gone-" with the key of their lock.
void CacheSweeper::sweepStaging() {
    const auto opened = m_store.root();
    const auto names = opened ? namesIn((*opened)->staging.get(), m_store.stagingDir())
                              : Result<QByteArrayList>(opened.error());
    note(names.error());
    if (names.hasError())
        return;
    const CacheRoot& root = **opened;
    m_report.unfinishedBytes = 0;
    for (const QByteArray& name : *names) {
        const auto lock =
            root.locks->tryExclusive(CacheLocks::offset(name.mid(name.indexOf('-') + 1), CacheLocks::kFill));
        const bool isUnfinished = isOfFetch(name) && (!lock || isFresh(root.staging.get(), name));
        qint64 bytes = 0;
        const Error counted = addBytesOf(root.staging.get(), name, shownInStaging(name), bytes);
        if (!lock || (isUnfinished && m_unfinished == ResourceCache::Unfinished::Kept)) {
            m_report.unfinishedBytes += isUnfinished ? bytes : 0;
            note(counted);
            continue;
        }
        const Error error = removeTree(root.staging.get(), name, shownInStaging(name));
        note(error);
        m_report.leftoverBytes += error.hasError() ? 0 : bytes;
    }
}

} // namespace orx
