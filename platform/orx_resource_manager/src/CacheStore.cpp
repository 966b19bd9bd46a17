#include "CacheStore.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutexLocker>
#include <QUuid>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sqlite3.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

using namespace CacheFiles;

namespace {

//! In the state directory. Enough for SQLite's shared memory and the first removals.
constexpr const char* kReserveName = "reserve";
constexpr off_t kReserveBytes = 1024 * 1024;

//! In the state directory: what lies in the cache's directories was made by it.
constexpr const char* kMarkName = "is-a-cache";
constexpr std::string_view kMarkText =
    "The directories here and in ../content are a cache: what is in them may be removed at any time.\n";

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

QString databasePath(const QString& rootDir) {
    return rootDir + QStringLiteral("/state/cache.sqlite");
}

CacheRoot::Identity identityFrom(const struct stat& status) {
    return {status.st_dev, status.st_ino};
}

bool isAt(const QString& path, const CacheRoot::Identity& identity) {
    struct stat named {};
    return ::stat(QFile::encodeName(path).constData(), &named) == 0 && identityFrom(named) == identity;
}

bool isFile(int directory, const char* name) {
    struct stat status {};
    return ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

//! Whether \a name in \a parent is a directory that holds something.
Result<bool> holdsSomething(int parent, const char* name, const QString& shown) {
    const auto directory = openDirectory(parent, name, shown);
    if (directory.hasError())
        return directory.error().is(ErrorCode::NotFound) ? Result<bool>(false) : directory.error();
    const Error error = forEachName(directory->get(), shown,
                                    [](const QByteArray&) { return Error(ErrorCode::AlreadyExists, {}); });
    return error.hasError() && !error.is(ErrorCode::AlreadyExists) ? Result<bool>(error) : error.hasError();
}

Error leaveMark(int top, int state, const QString& rootDir) {
    const CacheDescriptor mark(::openat(state, kMarkName, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    // For people: that it is there is what counts.
    if (!mark.isOpen() || ::pwrite(mark.get(), kMarkText.data(), kMarkText.size(), 0) < 0)
        return systemError("Could not make the cache in \"%1\"", rootDir);
    ORX_RETURN_ON_ERROR(flush(mark.get(), rootDir));
    ORX_RETURN_ON_ERROR(flush(state, rootDir));
    return flush(top, rootDir);
}

//! By SQLite's own judgement; one that it could not come to is none.
bool isSound(const QString& path) {
    try {
        SQLite::Database database(QFile::encodeName(path).toStdString(), SQLite::OPEN_READWRITE, 10'000);
        return std::string(database.execAndGet("PRAGMA quick_check(1)").getText()) == "ok";
    } catch (const SQLite::Exception& exception) {
        return exception.getErrorCode() != SQLITE_CORRUPT && exception.getErrorCode() != SQLITE_NOTADB;
    }
}

} // namespace

const QLoggingCategory& cacheLog() {
    static const QLoggingCategory category("orx.cache");
    return category;
}

CacheStore::CacheStore(const QString& rootDir)
    : m_rootDir(QDir::cleanPath(rootDir))
    , m_quick(databasePath(m_rootDir), [this](auto& path, auto& why) { return setAsideDatabase(path, why); })
    , m_work(databasePath(m_rootDir), [this](auto& path, auto& why) { return setAsideDatabase(path, why); }) {
    // A worker may be the last to let go of this object: it shares no text with the thread that made it.
    m_rootDir.detach();
}

CacheStore::~CacheStore() {
    if (const Error error = writeUses(); error.hasError())
        qCWarning(cacheLog).noquote() << error.errorMessage();
}

bool CacheStore::isMissing(const Error& error) {
    return error.is(ErrorCode::NotFound) || error.is(ErrorDomain::OperatingSystem, ENOENT);
}

QString CacheStore::contentDir() const {
    return m_rootDir + QStringLiteral("/content");
}

QString CacheStore::stagingDir() const {
    return m_rootDir + QStringLiteral("/state/staging");
}

QString CacheStore::placePath(const CacheSubPath& place) const {
    return contentDir() + u'/' + place.text();
}

Result<CacheSubPath> CacheStore::parse(const QString& subPath) const {
    return CacheSubPath::parse(subPath, QFile::encodeName(contentDir()).size());
}

Error CacheStore::busy(const QString& subPath) {
    return Error(
        ErrorCode::Busy,
        translated("\"%1\" in the cache is being used. Try again when that has ended.").arg(subPath));
}

bool CacheStore::isStillThere(const CacheRoot& root) const {
    return isAt(stagingDir(), root.stagingIdentity) && isAt(contentDir(), root.contentIdentity);
}

//! Whatever has no record is removed from a cache: nothing that somebody else put there may be taken for it.
Error CacheStore::checkIsOurs(int top) const {
    // Another process that makes the cache just then leaves the mark before anything else.
    const auto content = holdsSomething(top, "content", contentDir());
    const auto state = holdsSomething(top, "state", m_rootDir + QStringLiteral("/state"));
    if (content.hasError() || state.hasError())
        return content.hasError() ? content.error() : state.error();
    if (!*content && !*state)
        return Error();
    const auto opened = openDirectory(top, "state", m_rootDir);
    // Caches of the first releases have no mark.
    const bool isOurs = opened && (isFile(opened->get(), kMarkName) ||
                                   (isFile(opened->get(), "locks") && isFile(opened->get(), "cache.sqlite")));
    return isOurs
               ? Error()
               : Error(ErrorCode::InvalidArgument,
                       translated("\"%1\" is no cache, but there is something in its \"%2\". Let the "
                                  "cache use another directory, or move that away.")
                           .arg(m_rootDir, *content ? QStringLiteral("content") : QStringLiteral("state")));
}

Error CacheStore::openRoot(CacheRoot& root) const {
    if (!QDir().mkpath(QFileInfo(m_rootDir).path()))
        return systemError("Could not create the directory of the cache \"%1\"", m_rootDir);
    if (::mkdir(QFile::encodeName(m_rootDir).constData(), 0700) != 0 && errno != EEXIST)
        return systemError("Could not create the directory of the cache \"%1\"", m_rootDir);
    const CacheDescriptor top(
        ::open(QFile::encodeName(m_rootDir).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!top.isOpen())
        return systemError("Could not open the directory of the cache \"%1\"", m_rootDir);
    const auto ensure = [](CacheDescriptor& directory, int parent, const char* name, const QString& shown) {
        auto opened = ensureDirectory(parent, name, shown);
        if (opened.hasError())
            return std::move(opened).error();
        directory = std::move(*opened);
        return Error();
    };
    ORX_RETURN_ON_ERROR(checkIsOurs(top.get()));
    ORX_RETURN_ON_ERROR(ensure(root.state, top.get(), "state", m_rootDir + QStringLiteral("/state")));
    const Error unmarked =
        isFile(root.state.get(), kMarkName) ? Error() : leaveMark(top.get(), root.state.get(), m_rootDir);
    // A cache of the first releases is known by its records, and pruning makes room for the mark.
    if (unmarked.hasError() &&
        !(unmarked.is(ErrorCode::StorageFull) && isFile(root.state.get(), "cache.sqlite")))
        return unmarked;
    ORX_RETURN_ON_ERROR(ensure(root.content, top.get(), "content", contentDir()));
    ORX_RETURN_ON_ERROR(ensure(root.staging, root.state.get(), "staging", stagingDir()));
    struct stat content {
    }, staging{};
    if (::fstat(root.content.get(), &content) != 0 || ::fstat(root.staging.get(), &staging) != 0)
        return systemError("Could not look at the directories of the cache \"%1\"", m_rootDir);
    root.contentIdentity = identityFrom(content);
    root.stagingIdentity = identityFrom(staging);
    CacheDescriptor locks(
        ::openat(root.state.get(), "locks", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct flock probe {};
    probe.l_type = F_RDLCK;
    probe.l_whence = SEEK_SET;
    probe.l_len = 1;
    if (!locks.isOpen() || ::fcntl(locks.get(), F_OFD_GETLK, &probe) != 0)
        return systemError("Could not use locks in the cache \"%1\"; let it use a local disk", m_rootDir);
    root.locks = std::make_shared<CacheLocks>(std::move(locks));
    return Error();
}

Result<std::shared_ptr<CacheRoot>> CacheStore::root() {
    const QMutexLocker lock(&m_mutex);
    if (m_root && isStillThere(*m_root))
        return m_root;
    auto fresh = std::make_shared<CacheRoot>();
    ORX_RETURN_ON_ERROR(openRoot(*fresh));
    m_root = fresh;
    return fresh;
}

//! Called while the connection that met the damage is closed.
bool CacheStore::setAsideDatabase(const QString& path, const QString& reason) {
    const auto opened = root();
    if (opened.hasError())
        return false;
    const auto lock = (*opened)->locks->waitExclusive(CacheLocks::kDatabase);
    if (!lock)
        return false;
    // Another process or connection may have been first.
    if (isSound(path))
        return true;
    const QString aside = path + QStringLiteral(".damaged-%1").arg(QDateTime::currentMSecsSinceEpoch());
    const QByteArray from = QFile::encodeName(path);
    const QByteArray to = QFile::encodeName(aside);
    if (std::rename(from.constData(), to.constData()) != 0)
        return false;
    std::rename((from + "-wal").constData(), (to + "-wal").constData());
    ::unlink((from + "-shm").constData());
    qCWarning(cacheLog).noquote() << translated(
                                         "The records of the cache were damaged (%1) and are now at \"%2\". "
                                         "What the cache holds is fetched again.")
                                         .arg(reason, aside);
    return true;
}

Result<CacheDescriptor> CacheStore::openParent(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    QByteArrayList above = place.components();
    above.removeLast();
    return openDirectories((*opened)->content.get(), above, placePath(place));
}

namespace {

//! Why what lies at a place is not what its record tells; empty when it is. A link in a directory is a damage
//! of it, one at the place an error.
Result<QString> differenceAt(int parent, const QByteArray& name, const QString& shown,
                             const CacheRecords::Record& record, CachePayload::Depth depth) {
    auto disk = CachePayload::look(parent, name, shown, CachePayload::Depth::Top);
    if (disk && disk->type == PathType::Dir && depth == CachePayload::Depth::Everything) {
        disk = CachePayload::look(parent, name, shown, depth);
        if (disk.hasError() && disk.error().is(ErrorCode::InvalidArgument))
            return disk.errorMessage();
    }
    if (disk.hasError())
        return std::move(disk).error();
    return record.entry.isDamaged ? translated("its content is damaged")
                                  : record.payload.differenceFrom(*disk);
}

} // namespace

//! One look at an entry that is recorded.
struct CacheStore::Look {
    //! Taken before the record was read.
    Identity seen;
    CacheRecords::Record record;
    //! Empty when the entry is whole.
    Result<QString> difference;
    bool isWhole() const { return difference && difference->isEmpty(); }
    //! What it says when the entry is not.
    Error told(const CacheSubPath& place) const;
};

Result<CacheStore::Look> CacheStore::lookOnce(const CacheSubPath& place, CachePayload::Depth depth) {
    const bool isQuick = depth == CachePayload::Depth::Top;
    const Identity seen = isQuick ? Identity() : identityAt(place);
    auto record = (isQuick ? m_quick : m_work).find(place.text(), depth);
    if (record.hasError())
        return std::move(record).error();
    const auto parent = openParent(place);
    Result<QString> difference =
        parent ? differenceAt(parent->get(), place.name(), placePath(place), *record, depth)
               : Result<QString>(parent.error());
    return Look{seen, std::move(*record), std::move(difference)};
}

namespace {

bool isOther(const CachePayload& payload, const QString& expected) {
    return !expected.isEmpty() && payload.type == PathType::File &&
           expected.compare(QLatin1String(payload.sha256), Qt::CaseInsensitive) != 0;
}

Error other(const CacheSubPath& place, const CachePayload& payload, const QString& expected) {
    return Error(ErrorCode::NotFound,
                 translated("\"%1\" in the cache is another content (SHA-256 %2) than the server has (%3).")
                     .arg(place.text(), QString::fromLatin1(payload.sha256), expected.toLower()));
}

} // namespace

Error CacheStore::Look::told(const CacheSubPath& place) const {
    if (difference.hasError())
        return difference.error();
    return Error(ErrorCode::NotFound,
                 translated("\"%1\" in the cache is not whole: %2.").arg(place.text(), *difference));
}

Result<CacheRecords::Record> CacheStore::valid(const CacheSubPath& place, CachePayload::Depth depth,
                                               const QString& expected, const CancelFlag* cancel) {
    if (const auto opened = root(); opened.hasError())
        return opened.error();
    for (int attempt = 1; attempt <= kLooks; ++attempt) {
        auto look = lookOnce(place, depth);
        if (look.hasError())
            return std::move(look).error();
        if (look->isWhole() && isOther(look->record.payload, expected))
            return other(place, look->record.payload, expected);
        if (look->isWhole())
            return std::move(look->record);
        if (depth == CachePayload::Depth::Top)
            return look->told(place);
        const auto held = holdUnchanged(place, look->seen, look->record, cancel);
        if (held.hasError())
            return held.error();
        if (!*held)
            continue;
        // So that a look at its top shows it, too.
        if (look->difference && !look->record.entry.isDamaged && look->record.payload.type == PathType::Dir)
            if (const Error error = m_work.setDamaged(look->record); error.hasError())
                qCWarning(cacheLog).noquote() << error.errorMessage();
        return look->told(place);
    }
    return busy(place.text());
}

bool CacheStore::isAlone(const CacheSubPath& place) {
    const auto parent = openParent(place);
    if (parent.hasError())
        return false;
    return !forEachName(parent->get(), placePath(place), [&](const QByteArray& name) {
                return name == place.name() ? Error() : Error(ErrorCode::AlreadyExists, QString());
            }).hasError();
}

std::optional<CacheLock> CacheStore::tryUse(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError()) {
        qCWarning(cacheLog).noquote() << opened.errorMessage();
        return std::nullopt;
    }
    return (*opened)->locks->tryShared(CacheLocks::offset(place.key(), CacheLocks::kUse));
}

std::optional<CacheLock> CacheStore::waitUse(const CacheSubPath& place) {
    const auto opened = root();
    if (opened.hasError()) {
        qCWarning(cacheLog).noquote() << opened.errorMessage();
        return std::nullopt;
    }
    return (*opened)->locks->waitShared(CacheLocks::offset(place.key(), CacheLocks::kUse));
}

void CacheStore::noteUse(const CacheSubPath& place) {
    const QMutexLocker lock(&m_mutex);
    m_uses[place.text()] = QDateTime::currentMSecsSinceEpoch();
}

Error CacheStore::writeUses() {
    // Who finds nothing to write must find it written.
    const QMutexLocker writing(&m_usesMutex);
    QHash<QString, qint64> uses;
    {
        const QMutexLocker lock(&m_mutex);
        uses.swap(m_uses);
    }
    Error error = uses.isEmpty() ? Error() : m_work.setUsed(uses);
    if (error.hasError()) {
        // For the next time, without what was used since.
        const QMutexLocker lock(&m_mutex);
        uses.insert(m_uses);
        m_uses.swap(uses);
    }
    return error;
}

Error CacheStore::markDamaged(const CacheSubPath& place, const FileCopy::Stamp& seen) {
    const auto opened = root();
    if (opened.hasError())
        return opened.error();
    const auto lock = (*opened)->locks->waitExclusive(CacheLocks::offset(place.key(), CacheLocks::kPlace));
    if (!lock)
        return busy(place.text());
    const auto now = FileCopy::stampOf(placePath(place));
    const auto record = m_work.find(place.text());
    if (isMissing(now.error()) || isMissing(record.error()) || (now && *now != seen))
        return Error();
    if (now.hasError() || record.hasError())
        return now.hasError() ? now.error() : record.error();
    return m_work.setDamaged(*record);
}

void CacheStore::keepReserve() {
    const auto opened = root();
    if (opened.hasError())
        return;
    const CacheDescriptor file(
        ::openat((*opened)->state.get(), kReserveName, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat status {};
    if (file.isOpen() && ::fstat(file.get(), &status) == 0 && status.st_size == kReserveBytes)
        return;
    // Without room for it there is none; the next time there may be.
    if (!file.isOpen() || ::posix_fallocate(file.get(), 0, kReserveBytes) != 0)
        releaseReserve();
}

bool CacheStore::releaseReserve() {
    const auto opened = root();
    return opened && ::unlinkat((*opened)->state.get(), kReserveName, 0) == 0;
}

Error CacheStore::compare(const CachePayload& payload, const QString& expected, const QString& shown) {
    if (!isOther(payload, expected))
        return Error();
    return Error(ErrorCode::ChecksumMismatch,
                 translated("The content of \"%1\" for the cache is not what the server has (SHA-256 %2 "
                            "instead of %3); it was not kept.")
                     .arg(shown, QString::fromLatin1(payload.sha256), expected.toLower()));
}

} // namespace orx
