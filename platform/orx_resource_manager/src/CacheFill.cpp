#include "CacheFill.h"

#include "CacheKeeper.h"
#include "CacheSweeper.h"

#include <QCoreApplication>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

using namespace CacheFiles;

namespace {

//! Told only to who asks for it.
Q_LOGGING_CATEGORY(waitingLog, "orx.cache.waiting", QtWarningMsg)

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

} // namespace

QString CacheFill::directory() const {
    return m_store->stagingDir() + u'/' + QString::fromLatin1(stagingName());
}

bool CacheFill::needsNothingNew() const {
    return m_mode == ResourceCache::FillMode::Missing || m_mode == ResourceCache::FillMode::LookOnly;
}

//! What another fill brought while this one waited for it is new enough for content that never changes. Of
//! other content the server may have been asked before this fill was.
bool CacheFill::isNewEnough(const CacheRecords::Record& record) const {
    return needsNothingNew() || (!isUpdate() && m_hasWaited && m_addedBefore != record.entry.addedAt);
}

Result<CacheFill::Begun> CacheFill::waitForOther(const QString& expected) {
    if (!m_hasWaited) {
        const auto record = m_store->valid(m_place, CachePayload::Depth::Top, expected);
        if (record)
            m_addedBefore = record->entry.addedAt;
        qCInfo(waitingLog).noquote()
            << translated("Waiting for who fills \"%1\" in the cache.").arg(m_place.text());
    }
    m_hasWaited = true;
    return Begun::Waiting;
}

//! The entry, when there is a whole one; leased when it is taken as it is.
Result<std::optional<CacheRecords::Record>> CacheFill::look(const QString& expected) {
    // Before the look, so that nobody removes what was seen.
    auto use = m_store->tryUse(m_place);
    auto record = m_store->valid(m_place, CachePayload::Depth::Everything, expected, &m_isCanceled);
    // Somebody exchanges it all the time: that there is none would not be true.
    if (record.hasError() &&
        (record.error().is(ErrorCode::InvalidArgument) || record.error().is(ErrorCode::Busy)))
        return record.error();
    if (record.hasError())
        return std::optional<CacheRecords::Record>();
    if (use && isNewEnough(*record))
        hold(std::move(*use));
    return std::optional(std::move(*record));
}

Result<CacheFill::Begun> CacheFill::begin(const QString& expected) {
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    // Who needs nothing new does not wait for who brings it.
    if (needsNothingNew() && (!m_hasWaited || m_store->valid(m_place, CachePayload::Depth::Top, expected))) {
        ORX_RETURN_ON_ERROR(clearBeside());
        ORX_RETURN_ON_ERROR(look(expected).error());
        if (m_lease || m_mode == ResourceCache::FillMode::LookOnly)
            return m_lease ? Begun::Done : Begun::Fetch;
    }
    m_fill = (*root)->locks->tryExclusive(CacheLocks::offset(m_place.key(), CacheLocks::kFill));
    return m_fill ? beginAlone(**root, expected) : waitForOther(expected);
}

Result<CacheFill::Begun> CacheFill::beginAlone(const CacheRoot& root, const QString& expected) {
    ORX_RETURN_ON_ERROR(clearBeside());
    const auto record = look(expected);
    if (record.hasError())
        return record.error();
    if (m_lease) {
        m_fill.reset();
        return Begun::Done;
    }
    ORX_RETURN_ON_ERROR(prepareDirectory(root, *record ? &(*record)->payload : nullptr));
    return Begun::Fetch;
}

void CacheFill::hold(CacheLock use) {
    m_lease = std::move(use);
    m_store->noteUse(m_place);
}

Error CacheFill::clearBeside() {
    if (m_neighbours == ResourceCache::Neighbours::Kept)
        return Error();
    ResourceCache::PruneReport report;
    return CacheSweeper(*m_store, report).clearBeside(m_place);
}

//! What is under the final name comes from a fill that ended before it knew whether it was whole: nothing can
//! be made of it but by an update, which goes through all of it.
Error CacheFill::prepareDirectory(const CacheRoot& root, const CachePayload* entry) {
    const auto directory = ensureDirectory(root.staging.get(), stagingName(), this->directory());
    if (directory.hasError())
        return directory.error();
    struct stat status {};
    const bool isLeft =
        ::fstatat(directory->get(), m_place.name().constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (isLeft && isUpdate() && S_ISDIR(status.st_mode))
        return Error();
    if (isLeft)
        ORX_RETURN_ON_ERROR(removeTree(directory->get(), m_place.name(), this->directory()));
    if (!isUpdate() || !entry || entry->type != PathType::Dir)
        return Error();
    const Error unlinked = linkEntry(directory->get(), *entry);
    if (!unlinked.hasError())
        return Error();
    // The update then fetches everything.
    qCInfo(cacheLog).noquote() << unlinked.errorMessage();
    return removeTree(directory->get(), m_place.name(), this->directory());
}

//! The fetch gets further names of the entry's files. They are never written to: what is fetched replaces
//! them.
Error CacheFill::linkEntry(int directory, const CachePayload& entry) const {
    const QString shown = m_store->placePath(m_place);
    const auto parent = m_store->openParent(m_place);
    if (parent.hasError())
        return parent.error();
    const auto from = openDirectory(parent->get(), m_place.name(), shown);
    const auto to = ensureDirectory(directory, m_place.name(), this->directory());
    if (from.hasError() || to.hasError())
        return from.hasError() ? from.error() : to.error();
    for (const CachePayload::Item& item : entry.items) {
        if (m_isCanceled)
            return Error(ErrorCode::Canceled, translated("Cancelled."));
        QByteArrayList above = item.path.split('/');
        const QByteArray name = above.takeLast();
        const auto source = openDirectories(from->get(), above, shown);
        const auto target = openDirectories(to->get(), above, this->directory());
        if (source.hasError() || target.hasError())
            return source.hasError() ? source.error() : target.error();
        const int made = item.type == PathType::Dir
                             ? ::mkdirat(target->get(), name.constData(), 0777)
                             : ::linkat(source->get(), name.constData(), target->get(), name.constData(), 0);
        if (made != 0)
            return systemError("Could not link the files of \"%1\"", shown);
    }
    return Error();
}

Error CacheFill::startOver() {
    m_mode = ResourceCache::FillMode::Anew;
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    return prepareDirectory(**root, nullptr);
}

Error CacheFill::finish(const QByteArray& sha256, const QString& expected,
                        const ResourceCache::Limits& limits) {
    const auto root = m_store->root();
    if (root.hasError())
        return root.error();
    // Of who only looks, who holds no lock: another fill may be writing there.
    if (!m_fill)
        return Error(
            ErrorCode::NotFound,
            translated("\"%1\" is not in the cache, and nothing was to be fetched.").arg(m_place.text()));
    const auto staging = openDirectory((*root)->staging.get(), stagingName(), directory());
    if (staging.hasError())
        return staging.error();
    const QString shown = m_store->placePath(m_place);
    auto payload = CachePayload::look(staging->get(), m_place.name(), shown);
    if (payload.hasError() && payload.error().is(ErrorCode::NotFound))
        return Error(ErrorCode::NotFound,
                     translated("What was fetched for the cache holds no \"%1\".").arg(m_place.text()));
    if (payload.hasError())
        return std::move(payload).error();
    if (!sha256.isEmpty() && payload->type == PathType::File)
        payload->sha256 = sha256;
    else
        ORX_RETURN_ON_ERROR(payload->hash(staging->get(), m_place.name(), shown, &m_isCanceled));
    if (Error error = CacheStore::compare(*payload, expected, m_place.text()); error.hasError()) {
        const Error removed = removeTree(staging->get(), m_place.name(), directory());
        qCWarning(cacheLog).noquote() << error.errorMessage() << removed.errorMessage();
        return error;
    }
    ORX_RETURN_ON_ERROR(payload->flush(staging->get(), m_place.name(), shown));
    // Before the entry is there, so that nobody removes it.
    auto use = m_store->waitUse(m_place);
    if (!use)
        return CacheStore::busy(m_place.text());
    const Error sealed = m_store->seal(m_place, staging->get(), m_place.name(), *payload);
    ORX_RETURN_ON_ERROR(sealed);
    hold(std::move(*use));
    // What was put there while the content was fetched, too.
    Error cleared = clearBeside();
    cleared.addWarnings(sealed.warnings());
    // The entry is there; what follows is housekeeping. The next fill of it would take what is left here for
    // the beginning of its own.
    const Error swept = removeTree((*root)->staging.get(), stagingName(), directory());
    m_fill.reset();
    if (swept.hasError())
        qCWarning(cacheLog).noquote() << swept.errorMessage();
    CacheKeeper(*m_store).keepUp(limits);
    return cleared;
}

} // namespace orx
