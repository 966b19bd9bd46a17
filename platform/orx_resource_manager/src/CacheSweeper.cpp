#include "CacheSweeper.h"

#include <QDateTime>
#include <QFile>
#include <QUuid>

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

//! By a clock that may have been wrong when the time was taken: what lies far ahead is as old as what lies
//! far back.
bool isWithinADay(const struct stat& status) {
    return std::llabs(QDateTime::currentMSecsSinceEpoch() - modifiedNs(status) / 1'000'000) < kDayMs;
}

//! Whether a directory or something directly in it was touched within a day.
bool isFresh(int parent, const QByteArray& name) {
    bool isAnyFresh = false;
    const auto see = [&isAnyFresh](int directory, const QByteArray& entry) {
        struct stat status {};
        isAnyFresh =
            isAnyFresh || (::fstatat(directory, entry.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                           isWithinADay(status));
        return Error();
    };
    Error ignored = see(parent, name);
    if (const auto directory = openDirectory(parent, name, QString()))
        ignored = forEachName(directory->get(), QString(),
                              [&](const QByteArray& entry) { return see(directory->get(), entry); });
    return isAnyFresh;
}

//! What its removal gives back: files that have other names stay.
qint64 bytesOf(int parent, const QByteArray& name) {
    struct stat status {};
    if (::fstatat(parent, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return 0;
    if (!S_ISDIR(status.st_mode))
        return status.st_nlink == 1 ? status.st_size : 0;
    qint64 bytes = 0;
    if (const auto directory = openDirectory(parent, name, QString())) {
        const Error ignored = forEachName(directory->get(), QString(), [&](const QByteArray& child) {
            bytes += bytesOf(directory->get(), child);
            return Error();
        });
    }
    return bytes;
}

Result<QByteArrayList> namesIn(int directory, const QString& shown) {
    QByteArrayList names;
    ORX_RETURN_ON_ERROR(forEachName(directory, shown, [&](const QByteArray& name) {
        names << name;
        return Error();
    }));
    return names;
}

//! Takes away what is neither an entry nor on the way to one.
class ContentSweep {
public:
    ContentSweep(const std::vector<CacheRecords::Record>& records, int staging,
                 std::function<void(const Error&)> note)
        : m_staging(staging), m_note(std::move(note)) {
        for (const CacheRecords::Record& record : records) {
            const QByteArray path = QFile::encodeName(record.entry.subPath);
            m_entries.insert(path);
            for (auto end = path.lastIndexOf('/'); end > 0; end = path.lastIndexOf('/', end - 1))
                m_above.insert(path.left(end));
        }
    }

    void sweep(int directory, const QByteArray& prefix, const QString& shown) const {
        const auto names = namesIn(directory, shown);
        m_note(names.error());
        if (names.hasError())
            return;
        for (const QByteArray& name : *names) {
            const QByteArray path = prefix + name;
            const QString childShown = shown + u'/' + QFile::decodeName(name);
            if (m_entries.contains(path))
                continue;
            const auto child = m_above.contains(path) ? openDirectory(directory, name, childShown)
                                                      : Result<CacheDescriptor>(CacheDescriptor());
            if (child && child->isOpen())
                sweep(child->get(), path + '/', childShown);
            else
                take(directory, name, childShown);
        }
    }

private:
    //! At once, whatever its size, so that nobody who brings content waits for long.
    void take(int directory, const QByteArray& name, const QString& shown) const {
        const QByteArray gone = "gone-" + QUuid::createUuid().toByteArray(QUuid::Id128);
        if (::renameat(directory, name.constData(), m_staging, gone.constData()) != 0 && errno != ENOENT)
            m_note(systemError("Could not take \"%1\" out of the cache", shown));
    }

    QSet<QByteArray> m_entries;
    QSet<QByteArray> m_above;
    int m_staging;
    std::function<void(const Error&)> m_note;
};

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
    const auto lock = root.locks->tryExclusive(CacheLocks::kSweep);
    // Somebody brings content just then: the next time.
    if (!lock)
        return;
    const auto records = m_store.records().all();
    note(records.error());
    if (records.hasError())
        return;
    ContentSweep(*records, root.staging.get(), [this](const Error& error) {
        note(error);
    }).sweep(root.content.get(), QByteArray(), m_store.contentDir());
    markSwept(root);
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
    for (const QByteArray& name : *names) {
        const auto lock =
            root.locks->tryExclusive(CacheLocks::offset(name.mid(name.indexOf('-') + 1), CacheLocks::kFill));
        if (!lock || (name.startsWith("fill-") && isFresh(root.staging.get(), name)))
            continue;
        const qint64 bytes = bytesOf(root.staging.get(), name);
        const Error error =
            removeTree(root.staging.get(), name, m_store.stagingDir() + u'/' + QFile::decodeName(name));
        note(error);
        m_report.leftoverBytes += error.hasError() ? 0 : bytes;
    }
}

} // namespace orx
