#include "ResourceCache.h"

#include "CacheAdditions.h"
#include "CacheFillTask.h"
#include "CacheKeeper.h"
#include "CacheStore.h"
#include "CacheSweeper.h"

#include <WorkerPool.h>
#include <WorkerStepTask.h>

#include <QCoreApplication>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>

namespace orx {

namespace {

//! Shared with the fills, which may outlive the cache.
class Settings {
public:
    ResourceCache::Limits limits() const {
        const QMutexLocker lock(&m_mutex);
        return m_limits;
    }
    void setLimits(const ResourceCache::Limits& limits) {
        const QMutexLocker lock(&m_mutex);
        m_limits = limits;
    }
    void setChecksumSource(ResourceCache::ChecksumSource source) {
        const QMutexLocker lock(&m_mutex);
        m_checksumSource = std::move(source);
    }
    QString checksum(const ResourceReferenceSPtr& reference) const {
        ResourceCache::ChecksumSource source;
        {
            const QMutexLocker lock(&m_mutex);
            source = m_checksumSource;
        }
        return source && reference ? source(*reference) : QString();
    }

private:
    mutable QMutex m_mutex;
    ResourceCache::Limits m_limits;
    ResourceCache::ChecksumSource m_checksumSource;
};

} // namespace

// ---- leases and works of writers

struct ResourceCacheLease::Private {
    CacheLock lock;
    bool isWhole = false;
};

ResourceCacheLease::ResourceCacheLease() = default;
ResourceCacheLease::~ResourceCacheLease() = default;
ResourceCacheLease::ResourceCacheLease(ResourceCacheLease&&) noexcept = default;
ResourceCacheLease& ResourceCacheLease::operator=(ResourceCacheLease&&) noexcept = default;

bool ResourceCacheLease::isHeld() const {
    return d && d->lock.isHeld();
}

bool ResourceCacheLease::isWhole() const {
    return isHeld() && d->isWhole;
}

struct ResourceCacheWork::Private {
    std::shared_ptr<CacheAdditions> additions;
    std::shared_ptr<CacheAdditions::Writing> writing;
    QMutex mutex;
};

ResourceCacheWork::ResourceCacheWork() : d(std::make_unique<Private>()) {}

ResourceCacheWork::~ResourceCacheWork() {
    finished(Error(ErrorCode::General,
                   QCoreApplication::translate("orx::ResourceCache",
                                               "The work on the content for the cache was given up.")));
}

void ResourceCacheWork::finished(const Error& error) {
    std::shared_ptr<CacheAdditions::Writing> writing;
    {
        const QMutexLocker lock(&d->mutex);
        writing.swap(d->writing);
    }
    if (writing)
        d->additions->endPart(writing, error);
}

bool ResourceCacheWork::isCanceled() const {
    const QMutexLocker lock(&d->mutex);
    return !d->writing || CacheAdditions::isDropped(*d->writing);
}

QString ResourceCacheWork::sourceSha256() const {
    const QMutexLocker lock(&d->mutex);
    return d->writing ? CacheAdditions::acknowledged(*d->writing) : QString();
}

// ---- the cache

struct ResourceCache::Private {
    explicit Private(const QString& rootDir)
        : store(std::make_shared<CacheStore>(rootDir)), additions(std::make_shared<CacheAdditions>(store)) {}

    std::shared_ptr<Settings> settings = std::make_shared<Settings>();
    std::shared_ptr<CacheStore> store;
    std::shared_ptr<CacheAdditions> additions;

    CacheAdditions::Expected expected(const ResourceReferenceSPtr& reference) const {
        return {settings->checksum(reference), settings->limits()};
    }
    //! Of an entry that is whole and what the server said, as far as its top tells.
    std::optional<PathType> typeOf(const QString& subPath, const ResourceReferenceSPtr& reference) const {
        const auto place = store->parse(subPath);
        if (place.hasError())
            return std::nullopt;
        const auto record = store->valid(*place, CachePayload::Depth::Top, settings->checksum(reference));
        if (record.hasError() && !CacheStore::isMissing(record.error()))
            qCWarning(cacheLog).noquote() << record.errorMessage();
        return record ? std::optional(record->entry.type) : std::nullopt;
    }
};

ResourceCache::ResourceCache(const QString& rootDir) : d(std::make_unique<Private>(rootDir)) {}

ResourceCache::~ResourceCache() {
    d->additions->drop();
}

QString ResourceCache::rootDir() const {
    return d->store->rootDir();
}

void ResourceCache::setLimits(const Limits& limits) {
    d->settings->setLimits(limits);
}

void ResourceCache::setChecksumSource(ChecksumSource source) {
    d->settings->setChecksumSource(std::move(source));
}

Result<Path> ResourceCache::expectedPath(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    const auto written = d->additions->writersPath(*place);
    return Path(written ? *written : d->store->placePath(*place));
}

bool ResourceCache::contains(const QString& subPath, const ResourceReferenceSPtr& reference) const {
    return d->typeOf(subPath, reference).has_value();
}

std::optional<ResourceCacheLease> ResourceCache::lease(const QString& subPath,
                                                       const ResourceReferenceSPtr& reference) {
    const auto place = d->store->parse(subPath);
    auto lock = place ? d->store->tryUse(*place) : std::nullopt;
    const auto type = lock ? d->typeOf(subPath, reference) : std::nullopt;
    return type ? std::optional(leaseOf(*place, std::move(*lock), *type == PathType::File)) : std::nullopt;
}

std::optional<ResourceCacheLease> ResourceCache::leaseFilled(const QString& subPath) {
    const auto place = d->store->parse(subPath);
    auto lock = place ? d->store->tryUse(*place) : std::nullopt;
    return lock ? std::optional(leaseOf(*place, std::move(*lock), true)) : std::nullopt;
}

bool ResourceCache::isRecorded(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    return place && d->store->root() && d->store->quickRecords().find(subPath);
}

bool ResourceCache::isAlone(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    return place && d->store->isAlone(*place);
}

ResourceCacheLease ResourceCache::leaseOf(const CacheSubPath& place, CacheLock lock, bool isWhole) {
    d->store->noteUse(place);
    // Neither the record of the use nor its transaction holds the caller up.
    WorkerPool::instance().submit(
        [store = d->store] {
            if (const Error error = store->writeUses(); error.hasError())
                qCWarning(cacheLog).noquote() << error.errorMessage();
        },
        nullptr, {});
    ResourceCacheLease lease;
    lease.d = std::make_unique<ResourceCacheLease::Private>();
    lease.d->lock = std::move(lock);
    lease.d->isWhole = isWhole;
    return lease;
}

Result<ResourceCleanupPolicy> ResourceCache::cleanupPolicy(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    if (const auto root = d->store->root(); root.hasError())
        return root.error();
    const auto record = d->store->quickRecords().find(subPath);
    if (record.hasError() && record.error().is(ErrorCode::NotFound))
        return ResourceCleanupPolicy::Automatic;
    if (record.hasError())
        return record.error();
    return record->entry.policy;
}

Error ResourceCache::setCleanupPolicy(const QString& subPath, ResourceCleanupPolicy policy) {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    if (const auto root = d->store->root(); root.hasError())
        return root.error();
    if (policy == ResourceCleanupPolicy::Keep)
        ORX_RETURN_ON_ERROR(d->store->flushWay(*place));
    return d->store->quickRecords().setPolicy(subPath, policy);
}

Error ResourceCache::look(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    const auto use = d->store->waitUse(*place);
    if (!use)
        return CacheStore::busy(subPath);
    return d->store->valid(*place, CachePayload::Depth::Everything).error();
}

Result<QHash<QString, QString>> ResourceCache::checksums(const QString& subPath) const {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    if (const auto root = d->store->root(); root.hasError())
        return root.error();
    const auto record = d->store->records().find(subPath, CachePayload::Depth::Everything);
    if (record.hasError())
        return record.error();
    QHash<QString, QString> checksums;
    for (const CachePayload::Item& item : record->payload.items)
        if (item.type == PathType::File)
            checksums.insert(QFile::decodeName(item.path), QString::fromLatin1(item.sha256));
    return checksums;
}

Error ResourceCache::markDamaged(const QString& subPath, const FileCopy::Stamp& seen) {
    const auto place = d->store->parse(subPath);
    return place ? d->store->markDamaged(*place, seen) : place.error();
}

std::unique_ptr<Task> ResourceCache::markDamagedTask(const QString& subPath, const FileCopy::Stamp& seen) {
    return std::make_unique<WorkerStepTask>(QStringLiteral("Mark what is damaged in the cache"),
                                            [store = d->store, place = d->store->parse(subPath), seen] {
                                                return place ? store->markDamaged(*place, seen)
                                                             : place.error();
                                            });
}

std::unique_ptr<Task> ResourceCache::fillTask(const ResourceReferenceSPtr& reference, const QString& subPath,
                                              std::function<std::unique_ptr<Task>(const DirPath&)> fetch,
                                              FillMode mode, Neighbours neighbours) {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return std::make_unique<WorkerStepTask>(QStringLiteral("Refuse to fill the cache"),
                                                [error = place.error()] { return error; });
    const auto settings = d->settings;
    return std::make_unique<CacheFillTask>(
        std::make_shared<CacheFill>(d->store, *place, mode, neighbours), std::move(fetch),
        [settings, reference] { return settings->checksum(reference); },
        [settings] { return settings->limits(); });
}

Error ResourceCache::add(const ResourceReferenceSPtr& reference, const QString& subPath, const Path& source) {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    const CacheAdditions::Expected expected = d->expected(reference);
    if (!expected.sha256.isEmpty()) {
        const auto record = d->store->valid(*place, CachePayload::Depth::Top);
        if (record && record->entry.sha256 == expected.sha256.toLower())
            return Error();
    }
    auto opened = CacheSource::open(source);
    if (opened.hasError())
        return ORX_ECATCH(std::move(opened).error());
    if (const Error error = (*opened)->checkFits(expected.limits.maxBytes); error.hasError()) {
        qCWarning(cacheLog).noquote() << error.errorMessage();
        return error;
    }
    d->additions->addCopy(*place, *opened, expected);
    return Error();
}

Error ResourceCache::add(const ResourceReferenceSPtr& reference, const QString& subPath,
                         const std::function<Error()>& writer) {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    const BackgroundWork::Scope scope([this, subPath = place->text()] { return deferSeal(subPath); });
    return d->additions->addWritten(*place, writer, d->expected(reference));
}

std::shared_ptr<ResourceCacheWork> ResourceCache::deferSeal(const QString& subPath) {
    auto writing = d->additions->beginPart(subPath);
    if (!writing)
        return nullptr;
    std::shared_ptr<ResourceCacheWork> work(new ResourceCacheWork);
    work->d->additions = d->additions;
    work->d->writing = std::move(writing);
    return work;
}

QStringList ResourceCache::waitForPending() {
    return d->additions->wait();
}

void ResourceCache::dropPending() {
    d->additions->drop();
}

Result<QList<ResourceCacheEntry>> ResourceCache::entries() const {
    if (const auto root = d->store->root(); root.hasError())
        return root.error();
    ORX_RETURN_ON_ERROR(d->store->writeUses());
    const auto records = d->store->records().all();
    if (records.hasError())
        return records.error();
    QList<ResourceCacheEntry> entries;
    entries.reserve(qsizetype(records->size()));
    for (const CacheRecords::Record& record : *records)
        entries << record.entry;
    return entries;
}

Result<ResourceCache::VerifyReport> ResourceCache::verify(const std::function<bool(qint64)>& progress) {
    return CacheKeeper(*d->store).verify(progress);
}

Result<ResourceCache::PruneReport> ResourceCache::prune(const Limits& limits, Unfinished unfinished) {
    Limits used = d->settings->limits();
    if (limits.maxBytes)
        used.maxBytes = limits.maxBytes;
    if (limits.maxAge)
        used.maxAge = limits.maxAge;
    return CacheKeeper(*d->store).prune(used, unfinished);
}

Result<qint64> ResourceCache::unfinishedBytes() const {
    PruneReport report;
    return CacheSweeper(*d->store, report).unfinishedBytes();
}

Error ResourceCache::remove(const QString& subPath) {
    const auto place = d->store->parse(subPath);
    if (place.hasError())
        return place.error();
    return d->store->remove(*place);
}

} // namespace orx
