#include "CacheAdditions.h"

#include "CacheKeeper.h"

#include <WorkerPool.h>

#include <QCoreApplication>
#include <QFile>
#include <QUuid>

#include <algorithm>
#include <thread>

namespace orx {

using namespace CacheFiles;

//! A content that a writer makes at its place; guarded by the mutex of the additions, but for what has its
//! own.
class CacheAdditions::Writing {
public:
    Writing(const CacheSubPath& at, const Expected& is, Cancel by)
        : place(at)
        , expected(is)
        , cancel(std::move(by))
        , directory("add-" + QUuid::createUuid().toByteArray(QUuid::Id128)) {}

    const CacheSubPath place;
    const Expected expected;
    const Cancel cancel;
    //! Below the staging directory; the writer makes the content in it, under the name of the place.
    const QByteArray directory;
    const std::thread::id writer = std::this_thread::get_id();
    //! Keep fills of the entry waiting, and the sweep from taking the directory for a leftover.
    std::optional<CacheLock> fill;
    std::optional<CacheLock> staging;
    //! The writer and the works it deferred to.
    int parts = 1;
    Error error;
};

void CacheAdditions::enqueue(Job job) {
    {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
        if (std::exchange(m_isServed, true))
            return;
    }
    WorkerPool::instance().submit([self = shared_from_this()] { self->serve(); }, nullptr, {});
}

//! Thread: worker.
void CacheAdditions::serve() {
    std::unique_lock lock(m_mutex);
    while (!m_jobs.empty()) {
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        m_isWorking = true;
        lock.unlock();
        const Error error = job.work(*job.cancel);
        const QString subPath = job.subPath;
        job = {}; // with the source it holds
        ended(subPath, error);
        lock.lock();
        m_isWorking = false;
        m_changed.notify_all();
    }
    m_isServed = false;
}

void CacheAdditions::ended(const QString& subPath, const Error& error) {
    if (error.hasError() && !error.isCanceled())
        qCWarning(cacheLog).noquote()
            << QCoreApplication::translate("orx::ResourceCache", "\"%1\" was not put into the cache: %2")
                   .arg(subPath, error.errorMessage());
    for (const QString& warning : error.warnings())
        qCWarning(cacheLog).noquote() << warning;
    const std::lock_guard lock(m_mutex);
    if (error.hasError() && !error.isCanceled())
        m_failures << error.errorMessage();
    --m_pending;
    for (const auto& inbox : m_waiting)
        inbox->post([] {});
}

void CacheAdditions::addCopy(const CacheSubPath& place, const std::shared_ptr<CacheSource>& source,
                             const Expected& expected) {
    Job job;
    {
        const std::lock_guard lock(m_mutex);
        ++m_pending;
        job.cancel = m_cancel;
    }
    job.subPath = place.text();
    job.work = [this, place, expected, source](const CancelFlag& cancel) {
        return copy(place, *source, expected, cancel);
    };
    // At once, not at its turn only; what was found out is told then.
    if (source->isDirectory())
        WorkerPool::instance().submit(
            [source, cancel = job.cancel] { [[maybe_unused]] const Error later = source->list(*cancel); },
            nullptr, {});
    enqueue(std::move(job));
}

Error CacheAdditions::copy(const CacheSubPath& place, CacheSource& source, const Expected& expected,
                           const CancelFlag& cancel) {
    if (cancel)
        return Error(ErrorCode::Canceled, QString());
    ORX_RETURN_ON_ERROR(source.list(cancel));
    ORX_RETURN_ON_ERROR(source.checkFits(expected.limits.maxBytes));
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    const QByteArray key = QUuid::createUuid().toByteArray(QUuid::Id128);
    const auto lock = (*root)->locks->tryExclusive(CacheLocks::offset(key, CacheLocks::kFill));
    if (!lock)
        return CacheStore::busy(place.text());
    const Error error = copyInto(**root, "add-" + key, place, source, expected, cancel);
    const Error swept = removeTree((*root)->staging.get(), "add-" + key, m_store->stagingDir());
    if (swept.hasError())
        qCWarning(cacheLog).noquote() << swept.errorMessage();
    if (!error.hasError())
        CacheKeeper(*m_store).keepUp(expected.limits);
    return error;
}

Error CacheAdditions::copyInto(const CacheRoot& root, const QByteArray& staging, const CacheSubPath& place,
                               CacheSource& source, const Expected& expected, const CancelFlag& cancel) {
    const auto directory = ensureDirectory(root.staging.get(), staging, m_store->stagingDir());
    if (directory.hasError())
        return directory.error();
    const auto payload = source.copyTo(directory->get(), place.name(), m_store->placePath(place), cancel);
    if (payload.hasError())
        return payload.error();
    ORX_RETURN_ON_ERROR(CacheStore::compare(*payload, expected.sha256, place.text()));
    ORX_RETURN_ON_ERROR(payload->flush(directory->get(), place.name(), place.text()));
    if (cancel)
        return Error(ErrorCode::Canceled, QString());
    return m_store->seal(place, directory->get(), place.name(), *payload);
}

//! On the caller's thread, which may be an event loop: it waits for nobody.
Error CacheAdditions::beginWriting(Writing& writing) {
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    CacheLocks& locks = *(*root)->locks;
    writing.fill = locks.tryExclusive(CacheLocks::offset(writing.place.key(), CacheLocks::kFill));
    if (writing.fill)
        writing.staging = locks.tryExclusive(
            CacheLocks::offset(writing.directory.mid(qsizetype(sizeof "add-") - 1), CacheLocks::kFill));
    if (!writing.staging)
        return CacheStore::busy(writing.place.text());
    return ensureDirectory((*root)->staging.get(), writing.directory, m_store->stagingDir()).error();
}

Error CacheAdditions::addWritten(const CacheSubPath& place, const std::function<Error()>& writer,
                                 const Expected& expected) {
    Cancel cancel;
    {
        const std::lock_guard lock(m_mutex);
        cancel = m_cancel;
    }
    const auto writing = std::make_shared<Writing>(place, expected, std::move(cancel));
    ORX_RETURN_ON_ERROR(beginWriting(*writing));
    {
        const std::lock_guard lock(m_mutex);
        ++m_pending;
        m_writers.insert(place.text(), writing);
    }
    const Error error = writer();
    {
        const std::lock_guard lock(m_mutex);
        m_writers.remove(place.text());
    }
    endPart(writing, error);
    return error;
}

std::shared_ptr<CacheAdditions::Writing> CacheAdditions::beginPart(const QString& subPath) {
    const std::lock_guard lock(m_mutex);
    auto writing = m_writers.value(subPath);
    if (writing)
        ++writing->parts;
    return writing;
}

void CacheAdditions::endPart(const std::shared_ptr<Writing>& writing, const Error& error) {
    {
        const std::lock_guard lock(m_mutex);
        if (!writing->error.hasError())
            writing->error = error;
        if (--writing->parts > 0)
            return;
    }
    enqueue({writing->place.text(),
             [this, writing](const CancelFlag& cancel) { return sealWritten(*writing, cancel); },
             writing->cancel});
}

std::optional<QString> CacheAdditions::writersPath(const CacheSubPath& place) {
    const std::lock_guard lock(m_mutex);
    const auto writing = m_writers.value(place.text());
    if (!writing || writing->writer != std::this_thread::get_id())
        return std::nullopt;
    return m_store->stagingDir() + u'/' + QString::fromLatin1(writing->directory) + u'/' +
           QFile::decodeName(place.name());
}

QString CacheAdditions::acknowledged(const Writing& writing) {
    return writing.expected.sha256;
}

bool CacheAdditions::isDropped(const Writing& writing) {
    return *writing.cancel;
}

Error CacheAdditions::sealFrom(int staging, const Writing& writing, const CancelFlag& cancel) {
    ORX_RETURN_ON_ERROR(writing.error);
    if (cancel)
        return Error(ErrorCode::Canceled, QString());
    const QByteArray& name = writing.place.name();
    const QString shown = m_store->placePath(writing.place);
    auto payload = CachePayload::look(staging, name, shown);
    if (payload.hasError())
        return std::move(payload).error();
    ORX_RETURN_ON_ERROR(payload->hash(staging, name, shown, &cancel));
    ORX_RETURN_ON_ERROR(CacheStore::compare(*payload, writing.expected.sha256, writing.place.text()));
    ORX_RETURN_ON_ERROR(payload->flush(staging, name, shown));
    return m_store->seal(writing.place, staging, name, *payload);
}

Error CacheAdditions::sealWritten(Writing& writing, const CancelFlag& cancel) {
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    const auto staging = openDirectory((*root)->staging.get(), writing.directory, m_store->stagingDir());
    const Error error = staging ? sealFrom(staging->get(), writing, cancel) : staging.error();
    const Error swept = removeTree((*root)->staging.get(), writing.directory, m_store->stagingDir());
    if (swept.hasError())
        qCWarning(cacheLog).noquote() << swept.errorMessage();
    writing.staging.reset();
    writing.fill.reset();
    if (!error.hasError())
        CacheKeeper(*m_store).keepUp(writing.expected.limits);
    return error;
}

QStringList CacheAdditions::wait() {
    const auto inbox = OwnerInbox::ofThisThread();
    {
        const std::lock_guard lock(m_mutex);
        m_waiting.push_back(inbox);
    }
    inbox->waitUntil(
        [this] {
            const std::lock_guard lock(m_mutex);
            return m_pending == 0;
        },
        std::nullopt);
    const std::lock_guard lock(m_mutex);
    m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), inbox));
    return std::exchange(m_failures, {});
}

void CacheAdditions::drop() {
    std::deque<Job> jobs;
    {
        const std::lock_guard lock(m_mutex);
        *std::exchange(m_cancel, std::make_shared<CancelFlag>(false)) = true;
        jobs.swap(m_jobs);
    }
    // Cancelled, they clear up what they have.
    for (const Job& job : jobs)
        ended(job.subPath, job.work(*job.cancel));
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return !m_isWorking; });
}

} // namespace orx
