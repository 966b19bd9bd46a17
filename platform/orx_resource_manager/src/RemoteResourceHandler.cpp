#include "RemoteResourceHandler.h"

#include "ResourceCache.h"

#include <ComplexTask.h>
#include <WorkerStepTask.h>

#include <QCoreApplication>
#include <QFileInfo>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::RemoteResourceHandler", text);
}

//! Makes the task that takes what is there after a failure.
using Instead = std::function<std::unique_ptr<Task>(const Error&)>;

//! Brings the entry into the cache and holds on to it before anybody is told that it is there.
class RetrievalTask final : public ComplexTask {
public:
    //! \a instead may be empty.
    RetrievalTask(std::unique_ptr<Task> fill, std::function<Error()> hold, Instead instead)
        : ComplexTask(fill->name())
        , m_fill(std::move(fill))
        , m_hold(std::move(hold))
        , m_instead(std::move(instead)) {
        connect(m_fill.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
        connect(m_fill.get(), &BaseTask::progress, this, &BaseTask::progress);
    }
    ~RetrievalTask() override { stopBody(); }

protected:
    Error initialize() override {
        execSubtask(
            std::unique_ptr<BaseTask>(std::move(m_fill)), [this](BaseTask*) { onThere(); },
            [this](BaseTask* fill) { onFailed(fill->error()); });
        return Error();
    }

private:
    void onThere() {
        if (Error error = m_hold(); error.hasError())
            finish(ORX_ECATCH(error));
    }
    void onFailed(const Error& error) {
        if (isCanceled() || !m_instead || error.domain() != ErrorDomain::Network) {
            finish(ORX_ECATCH(Error(error)));
            return;
        }
        const QString reason = error.errorMessage();
        execSubtask(std::unique_ptr<BaseTask>(m_instead(error)), [this, reason](BaseTask*) {
            addWarning(
                translated("What the cache holds was taken, since nobody could say whether it is still "
                           "the same: %1")
                    .arg(reason));
            onThere();
        });
    }

    std::unique_ptr<Task> m_fill;
    std::function<Error()> m_hold;
    Instead m_instead;
};

//! Ends at once with an error.
class RefusedTask final : public Task {
public:
    explicit RefusedTask(const Error& error) : Task(QStringLiteral("Retrieve")), m_refusal(error) {}

protected:
    Error initialize() override { return m_refusal; }

private:
    Error m_refusal;
};

//! What the path says of its kind and what lies there must not contradict each other.
Error checkKind(const Path& path) {
    const QFileInfo info(path.toString());
    if (path.type() == PathType::File && info.isDir())
        return Error(ErrorCode::InvalidArgument,
                     translated("\"%1\" is a directory, not a file.").arg(path.toString()));
    if (path.type() == PathType::Dir && info.isFile())
        return Error(ErrorCode::InvalidArgument,
                     translated("\"%1\" is a file, not a directory.").arg(path.toString()));
    return Error();
}

} // namespace

struct RemoteResourceHandler::Private {
    //! Keeps the entry from being pruned.
    std::optional<ResourceCacheLease> lease;
};

RemoteResourceHandler::RemoteResourceHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache)
    : ResourceHandler(reference, cache), d(std::make_unique<Private>()) {}

RemoteResourceHandler::~RemoteResourceHandler() = default;

Error RemoteResourceHandler::checkCache() const {
    if (cache())
        return Error();
    return Error(
        ErrorCode::NotFound,
        translated("There is no cache that \"%1\" could be kept in.").arg(reference()->displayText()));
}

Result<ResourceCleanupPolicy> RemoteResourceHandler::cleanupPolicy() const {
    ORX_RETURN_ON_ERROR(checkCache());
    return ORX_ECATCH(cache()->cleanupPolicy(subCachePath()));
}

Error RemoteResourceHandler::setCleanupPolicy(ResourceCleanupPolicy policy) {
    ORX_RETURN_ON_ERROR(checkCache());
    return ORX_ECATCH(cache()->setCleanupPolicy(subCachePath(), policy));
}

bool RemoteResourceHandler::isAvailableLocally() const {
    return cache() && cache()->contains(subCachePath(), reference());
}

bool RemoteResourceHandler::mayBeAvailableLocally() const {
    return cache() && cache()->isRecorded(subCachePath());
}

Result<Path> RemoteResourceHandler::localPath() const {
    ORX_RETURN_ON_ERROR(checkCache());
    return ORX_ECATCH(cache()->expectedPath(subCachePath()));
}

Result<QHash<QString, QString>> RemoteResourceHandler::recordedChecksums() const {
    ORX_RETURN_ON_ERROR(checkCache());
    return ORX_ECATCH(cache()->checksums(subCachePath()));
}

Error RemoteResourceHandler::addToCache(const Path& localPath) {
    ORX_RETURN_ON_ERROR(checkCache());
    ORX_RETURN_ON_ERROR(checkKind(localPath));
    return ORX_ECATCH(cache()->add(reference(), subCachePath(), localPath));
}

Error RemoteResourceHandler::addToCache(const Writer& writer) {
    ORX_RETURN_ON_ERROR(checkCache());
    return ORX_ECATCH(cache()->add(reference(), subCachePath(), writer));
}

std::unique_ptr<Task> RemoteResourceHandler::markDamagedTask(const FileCopy::Stamp& seen) const {
    if (Error error = checkCache(); error.hasError())
        return std::make_unique<RefusedTask>(ORX_ECATCH(error));
    return cache()->markDamagedTask(subCachePath(), seen);
}

Error RemoteResourceHandler::holdFilled(const QString& subPath) {
    d->lease = cache()->leaseFilled(subPath);
    return d->lease ? Error() : missing();
}

Error RemoteResourceHandler::missing() const {
    return Error(ErrorCode::NotFound, translated("\"%1\" is not in the cache, or what is there is damaged.")
                                          .arg(reference()->displayText()));
}

//! A fill looks at the entry on a worker, and needs no fetch when it is valid.
std::unique_ptr<Task> RemoteResourceHandler::takeEntryTask(const QString& subPath, const Error& refusal) {
    return cache()->fillTask(
        reference(), subPath,
        [refusal](const DirPath&) -> std::unique_ptr<Task> { return std::make_unique<RefusedTask>(refusal); },
        ResourceCache::FillMode::LookOnly, ResourceCache::Neighbours::Removed);
}

std::unique_ptr<Task>
RemoteResourceHandler::retrievalTask(std::unique_ptr<Task> fill,
                                     std::function<std::unique_ptr<Task>(const Error&)> instead) {
    const auto self = sharedFromThis();
    return std::make_unique<RetrievalTask>(
        std::move(fill), [this, self, subPath = subCachePath()] { return holdFilled(subPath); },
        std::move(instead));
}

std::unique_ptr<Task> RemoteResourceHandler::fetchTask(const std::function<Error()>& mayFetch) {
    const QString subPath = subCachePath();
    const RetrieveMode mode = retrieveMode();
    const bool isChanging = !reference()->namesOneContent();
    // The task asks this handler again when it runs.
    const auto self = sharedFromThis();
    auto fill = cache()->fillTask(
        reference(), subPath,
        [this, self, mayFetch](const DirPath& targetDir) -> std::unique_ptr<Task> {
            if (const Error refusal = mayFetch(); refusal.hasError())
                return std::make_unique<RefusedTask>(refusal);
            return retrieveTask(targetDir);
        },
        isChanging                      ? ResourceCache::FillMode::Update
        : mode == RetrieveMode::Refresh ? ResourceCache::FillMode::Anew
                                        : ResourceCache::FillMode::Missing,
        ResourceCache::Neighbours::Removed);
    Instead instead;
    if (isChanging && mode == RetrieveMode::CacheFirst)
        instead = [this, self, subPath](const Error& refusal) { return takeEntryTask(subPath, refusal); };
    return retrievalTask(std::move(fill), std::move(instead));
}

std::optional<std::unique_ptr<Task>> RemoteResourceHandler::retrieveTask() {
    if (Error error = checkCache(); error.hasError())
        return std::make_unique<RefusedTask>(ORX_ECATCH(error));
    const RetrieveMode mode = retrieveMode();
    const bool isChanging = !reference()->namesOneContent();
    std::optional<ResourceCacheLease> lease;
    if (mode == RetrieveMode::CacheOnly || (mode == RetrieveMode::CacheFirst && !isChanging))
        lease = cache()->lease(subCachePath(), reference());
    if (lease && lease->isWhole() && cache()->isAlone(subCachePath())) {
        d->lease = std::move(lease);
        return std::nullopt;
    }
    // From here on a worker looks at what is there.
    if (mode != RetrieveMode::CacheOnly)
        return fetchTask(lease ? askLater() : [] { return Error(); });
    return retrievalTask(takeEntryTask(subCachePath(), ORX_ECATCH(missing())), {});
}

} // namespace orx
