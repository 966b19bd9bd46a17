#include "CacheKeeper.h"

#include "CacheParallel.h"
#include "CacheSweeper.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>

#include <algorithm>
#include <cerrno>

namespace orx {

using namespace CacheFiles;

namespace {

//! Records that go in one transaction: few at first, which make room for the rest on a full disk.
constexpr std::ptrdiff_t kFirstBatch = 8;
constexpr std::ptrdiff_t kLargestBatch = 256;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

CacheRecords::Bounds boundsOf(const ResourceCache::Limits& limits) {
    CacheRecords::Bounds bounds;
    bounds.maxBytes = limits.maxBytes;
    if (limits.maxAge)
        bounds.usedBeforeMs = QDateTime::currentMSecsSinceEpoch() -
                              std::chrono::duration_cast<std::chrono::milliseconds>(*limits.maxAge).count();
    return bounds;
}

} // namespace

//! An entry that goes, held against all others.
struct CacheKeeper::Removal {
    //! None of a record whose sub-path names no place: there is nothing to hold and no content.
    std::optional<CacheSubPath> place;
    const CacheRecords::Record* record;
    std::optional<CacheLock> use;
    std::optional<CacheLock> atPlace;
};

//! None when somebody uses or replaces the entry.
std::optional<CacheKeeper::Removal> CacheKeeper::beginRemoval(CacheLocks& locks,
                                                              const CacheRecords::Record& record) const {
    const auto place = m_store.parse(record.entry.subPath);
    if (place.hasError())
        return Removal{std::nullopt, &record, std::nullopt, std::nullopt};
    const QByteArray key = place->key();
    auto use = locks.tryExclusive(CacheLocks::offset(key, CacheLocks::kUse));
    auto atPlace = use ? locks.tryExclusive(CacheLocks::offset(key, CacheLocks::kPlace)) : std::nullopt;
    if (!atPlace)
        return std::nullopt;
    return Removal{*place, &record, std::move(use), std::move(atPlace)};
}

Error CacheKeeper::removeBatch(Records::const_iterator begin, Records::const_iterator end,
                               QSet<qint64>& spared, ResourceCache::PruneReport& report) {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    std::vector<Removal> removals;
    std::vector<const CacheRecords::Record*> records;
    for (auto record = begin; record != end; ++record) {
        auto removal = beginRemoval(*(*root)->locks, *record);
        if (!removal) {
            spared.insert(record->id);
            ++report.inUse;
            continue;
        }
        records.push_back(&*record);
        removals.push_back(std::move(*removal));
    }
    // Those of this process that ended before the entries were locked.
    ORX_RETURN_ON_ERROR(m_store.writeUses());
    // What was used, replaced or pinned since the list was made is judged anew in the next one.
    const auto gone = m_store.records().removeUnchanged(records);
    if (gone.hasError())
        return gone.error();
    std::erase_if(removals, [&](const Removal& removal) { return !gone->contains(removal.record->id); });
    for (const Removal& removal : removals) {
        report.removed << removal.record->entry;
        report.bytesRemoved += removal.record->entry.bytes;
    }
    clearPlaces(removals);
    return Error();
}

//! The entries are gone; what could not be removed is left to the next sweep.
void CacheKeeper::clearPlaces(const std::vector<Removal>& removals) {
    std::vector<Error> errors(removals.size());
    inParallel(removals.size(), [&](size_t i) {
        if (removals[i].place)
            errors[i] = m_store.clearPlace(*removals[i].place);
    });
    for (const Error& error : errors)
        if (error.hasError())
            qCWarning(cacheLog).noquote() << error.errorMessage();
}

//! False when there is nothing more to remove.
Result<bool> CacheKeeper::removeSome(const ResourceCache::Limits& limits, QSet<qint64>& spared,
                                     ResourceCache::PruneReport& report) {
    const auto victims = m_store.records().beyond(boundsOf(limits), spared);
    if (victims.hasError())
        return victims.error();
    std::ptrdiff_t batch = kFirstBatch;
    for (auto begin = victims->begin(); begin != victims->end();) {
        const auto end = begin + std::min(batch, victims->end() - begin);
        ORX_RETURN_ON_ERROR(removeBatch(begin, end, spared, report));
        begin = end;
        batch = std::min(2 * batch, kLargestBatch);
    }
    return !victims->empty();
}

Error CacheKeeper::enforce(const ResourceCache::Limits& limits, ResourceCache::PruneReport& report) {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    ORX_RETURN_ON_ERROR(m_store.writeUses());
    ORX_RETURN_ON_ERROR(m_store.records().endFutureUses());
    report.inUse = 0;
    QSet<qint64> spared;
    for (bool isMore = true; isMore;) {
        auto removed = removeSome(limits, spared, report);
        if (removed.hasError())
            return std::move(removed).error();
        isMore = *removed;
    }
    auto left = m_store.records().totalBytes();
    if (left.hasError())
        return std::move(left).error();
    report.bytesLeft = *left;
    return Error();
}

void CacheKeeper::keepUp(const ResourceCache::Limits& limits) {
    ResourceCache::PruneReport report;
    if (const Error error = enforce(limits, report); error.hasError())
        report.problems << error.errorMessage();
    CacheSweeper(m_store, report).sweepIfDue();
    m_store.keepReserve();
    for (const QString& problem : report.problems)
        qCWarning(cacheLog).noquote() << problem;
}

Result<ResourceCache::PruneReport> CacheKeeper::prune(const ResourceCache::Limits& limits,
                                                      ResourceCache::Unfinished unfinished) {
    ResourceCache::PruneReport report;
    CacheSweeper sweeper(m_store, report, unfinished);
    // Room for the records, when there is none.
    sweeper.sweepStaging();
    Error error = enforce(limits, report);
    if (error.is(ErrorCode::StorageFull) && m_store.releaseReserve())
        error = enforce(limits, report);
    if (!error.hasError()) {
        // What of it is left is told again.
        report.problems.clear();
        sweeper.sweep();
    }
    m_store.keepReserve();
    const bool isNothingDone = report.removed.isEmpty() && report.leftoverBytes == 0;
    if (error.hasError() && isNothingDone) {
        for (const QString& problem : report.problems)
            error.addWarning(problem);
        return error;
    }
    if (error.hasError())
        report.problems << error.errorMessage();
    return report;
}

namespace {

//! What an error says of an entry that was looked at; the error itself when it says only that nobody could
//! look.
Result<QString> damageIn(const Error& error) {
    const bool isDamage = CacheStore::isMissing(error) || error.is(ErrorCode::InvalidArgument) ||
                          error.is(ErrorCode::FileChanged);
    return isDamage ? Result<QString>(error.errorMessage()) : Result<QString>(error);
}

} // namespace

//! What is wrong with an entry; empty when nothing is.
Result<QString> CacheKeeper::damageOf(const CacheSubPath& place, CacheRecords::Record& record,
                                      const std::function<bool(qint64)>& onBytes) {
    // Its record cannot show what a reader found out.
    if (record.entry.isDamaged)
        return translated("it was found to be damaged when it was read");
    const QString shown = m_store.placePath(place);
    const auto parent = m_store.openParent(place);
    if (parent.hasError())
        return damageIn(parent.error());
    auto disk = CachePayload::look(parent->get(), place.name(), shown);
    if (disk.hasError())
        return damageIn(disk.error());
    if (const QString difference = record.payload.differenceFrom(*disk); !difference.isEmpty())
        return difference;
    if (const Error error = disk->hash(parent->get(), place.name(), shown, nullptr, onBytes);
        error.hasError())
        return damageIn(error);
    if (disk->sha256 != record.payload.sha256)
        return translated("its checksum is not the recorded one");
    for (size_t i = 0; i < disk->items.size(); ++i)
        if (disk->items[i].sha256 != record.payload.items[i].sha256)
            return translated("the checksum of \"%1\" in it is not the recorded one")
                .arg(QFile::decodeName(disk->items[i].path));
    return QString();
}

//! One look at an entry.
struct CacheKeeper::Finding {
    CacheRecords::Record record;
    //! What is wrong with it; empty when nothing is.
    QString damage;
    //! With a damage: nobody exchanges what was looked at.
    std::optional<CacheLock> atPlace;
};

//! None when the entry was replaced meanwhile: between the exchange of a content and that of its record the
//! two differ. ErrorCode::NotFound when it is gone.
Result<std::optional<CacheKeeper::Finding>> CacheKeeper::lookAt(const CacheSubPath& place,
                                                                const std::function<bool(qint64)>& onBytes) {
    const CacheStore::Identity seen = m_store.identityAt(place);
    auto record = m_store.records().find(place.text(), CachePayload::Depth::Everything);
    if (record.hasError())
        return record.error();
    auto damage = damageOf(place, *record, onBytes);
    if (damage.hasError())
        return std::move(damage).error();
    if (damage->isEmpty())
        return std::optional(Finding{std::move(*record), QString(), std::nullopt});
    auto atPlace = m_store.holdUnchanged(place, seen, *record);
    if (atPlace.hasError())
        return std::move(atPlace).error();
    if (!*atPlace)
        return std::optional<Finding>();
    return std::optional(Finding{std::move(*record), *damage, std::move(*atPlace)});
}

//! Marks a damaged entry, and removes it unless somebody else uses it.
Error CacheKeeper::discard(const CacheSubPath& place, const Finding& finding, CacheLock use,
                           CacheLocks& locks) {
    ORX_RETURN_ON_ERROR(m_store.records().setDamaged(finding.record));
    { const CacheLock released = std::move(use); }
    const auto removal = locks.tryExclusive(CacheLocks::offset(place.key(), CacheLocks::kUse));
    if (!removal)
        return Error();
    ORX_RETURN_ON_ERROR(m_store.records().remove(finding.record.id));
    return m_store.clearPlace(place);
}

Error CacheKeeper::verifyEntry(const CacheRecords::Record& listed, ResourceCache::VerifyReport& report,
                               const std::function<bool(qint64)>& onBytes) {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    const auto place = m_store.parse(listed.entry.subPath);
    if (place.hasError()) {
        ++report.entries;
        report.damaged << std::pair(listed.entry.subPath, place.errorMessage());
        return m_store.records().remove(listed.id);
    }
    CacheLocks& locks = *(*root)->locks;
    auto use = locks.tryShared(CacheLocks::offset(place->key(), CacheLocks::kUse));
    for (int look = 1; use && look <= CacheStore::kLooks; ++look) {
        const auto finding = lookAt(*place, onBytes);
        if (finding.hasError())
            return finding.error().is(ErrorCode::NotFound) ? Error() : finding.error();
        if (!*finding)
            continue;
        ++report.entries;
        report.bytes += (*finding)->record.entry.bytes;
        if ((*finding)->damage.isEmpty())
            return Error();
        report.damaged << std::pair(listed.entry.subPath, (*finding)->damage);
        return discard(*place, **finding, std::move(*use), locks);
    }
    // It is being removed, or replaced again and again, each time by what was hashed.
    return Error();
}

Result<ResourceCache::VerifyReport> CacheKeeper::verify(const std::function<bool(qint64)>& progress) {
    const auto root = m_store.root();
    if (root.hasError())
        return root.error();
    const auto records = m_store.records().all();
    if (records.hasError())
        return records.error();
    ResourceCache::VerifyReport report;
    qint64 done = 0;
    const auto onBytes = [&](qint64 bytes) {
        done += bytes;
        return !progress || progress(done);
    };
    for (const CacheRecords::Record& record : *records) {
        const Error error = verifyEntry(record, report, onBytes);
        if (error.isCanceled())
            return error;
        if (error.hasError() && !report.problems.contains(error.errorMessage()))
            report.problems << error.errorMessage();
    }
    return report;
}

} // namespace orx
