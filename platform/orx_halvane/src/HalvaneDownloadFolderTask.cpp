#include "HalvaneDownloadFolderTask.h"

#include "DownloadNames.h"
#include "FlushDirectoriesTask.h"
#include "FolderDownloadPlan.h"
#include "FolderDownloadReport.h"
#include "HalvaneAcknowledgedContents.h"
#include "HalvaneConnection.h"
#include "HalvaneDownloadFileTask.h"
#include "HalvaneItemTasks.h"
#include "TargetDirectories.h"
#include "TreeProgress.h"
#include "WorkerStepTask.h"

#include <DirectoryFlushes.h>
#include <FileTypes.h>

#include <QPointer>

namespace orx {
namespace {

//! So many directories wait to be flushed before the end: a tree that is given up has few left.
constexpr qsizetype flushedAtATime = 64;

} // namespace

class HalvaneDownloadFolderTaskBase::Private {
public:
    using Folder = FolderDownloadPlan::Folder;
    using File = FolderDownloadPlan::File;

    //! What is known of a folder while its directory is made and its two listings are on their way.
    struct Listing {
        Folder folder;
        int missing = 2;
        Error error;
        QList<HalvaneFolderTreeNodeSPtr> folders;
        QList<HalvaneFileItemSPtr> files;
    };
    using ListingPtr = std::shared_ptr<Listing>;

    Private(HalvaneDownloadFolderTaskBase* task, const QSharedPointer<HalvaneFolderResourceReference>& folder,
            const QString& targetDirPath, bool contentOnly)
        : q(task)
        , reference(folder)
        , target(QDir(targetDirPath).absolutePath())
        , rootPath(contentOnly || !folder ? QString() : folder->name())
        , namesFolder(!contentOnly) {}
    // File tasks that are to be deleted later hold the flushes, too. Failures are in the log.
    ~Private() { (void)flushes->flush(); }

    Error check() const;
    QString pathOf(const QString& relative) const;
    void makeTarget();
    void removeOthers();
    void flushDirectories();
    void startFlushing();
    void onFlushed(const QList<DirectoryFlushes::Failure>& unflushed);
    //! Starts whatever the plan has slots for.
    void advance();
    void list(const Folder& folder);
    void askForContent(const ListingPtr& listing);
    template <typename T, typename Keep>
    void ask(const ListingPtr& listing, Keep keep);
    void onAnswer(const ListingPtr& listing, const Error& error);
    void onListed(const Listing& listing);
    void fetch(const File& file);
    QString nameFor(const File& file) const;
    Result<std::unique_ptr<Task>> makeTask(const File& file);
    void onFetched(BaseTask* task, const File& file, int key);
    //! False when who heard of it destroyed the task, and this object with it.
    bool showProgress();

    HalvaneDownloadFolderTaskBase* const q;
    const QSharedPointer<HalvaneFolderResourceReference> reference;
    const QString target;
    const QString rootPath;
    const bool namesFolder;
    std::optional<DuplicateDownloadPolicy> policy;

    FolderDownloadPlan plan;
    FolderDownloadReport report;
    TreeProgress progress;
    int downloaded = 0;
    int nextKey = 0;
    bool begun = false;
    bool advancing = false;
    bool listingWaited = false;
    bool removesOthers = false;
    bool flushing = false;
    //! Of what the file tasks copied when they ended.
    const std::shared_ptr<DirectoryFlushes> flushes = std::make_shared<DirectoryFlushes>();
    //! Kept when others are to be removed.
    TargetDirectories::Kept listed;
};

HalvaneDownloadFolderTaskBase::HalvaneDownloadFolderTaskBase(
    const QSharedPointer<HalvaneFolderResourceReference>& reference, const QString& targetDirPath,
    bool contentOnly, QObject* parent)
    : HalvaneComplexTask(
          QStringLiteral("DownloadFolder(%1)").arg(reference ? reference->displayText() : QString()), parent)
    , d(std::make_unique<Private>(this, reference, targetDirPath, contentOnly)) {}

HalvaneDownloadFolderTaskBase::~HalvaneDownloadFolderTaskBase() = default;

void HalvaneDownloadFolderTaskBase::setDuplicatePolicy(std::optional<DuplicateDownloadPolicy> policy) {
    d->policy = policy;
}

QString HalvaneDownloadFolderTaskBase::folderPath() const {
    return d->pathOf(d->rootPath);
}

QList<HalvaneDownloadFailure> HalvaneDownloadFolderTaskBase::failures() const {
    return d->report.failures();
}

int HalvaneDownloadFolderTaskBase::fileCount() const {
    return d->plan.totalFiles();
}

int HalvaneDownloadFolderTaskBase::downloadedFileCount() const {
    return d->downloaded;
}

qint64 HalvaneDownloadFolderTaskBase::totalBytes() const {
    return d->plan.totalBytes();
}

qint64 HalvaneDownloadFolderTaskBase::doneBytes() const {
    return d->progress.doneBytes();
}

bool HalvaneDownloadFolderTaskBase::isWholeTreeKnown() const {
    return d->begun && d->plan.isWholeTreeKnown();
}

bool HalvaneDownloadFolderTaskBase::namesContent() const {
    return true;
}

void HalvaneDownloadFolderTaskBase::onFolderListed(int, const QString&) {}

void HalvaneDownloadFolderTaskBase::setMostWaitingFiles(int files) {
    FolderDownloadPlan::Limits limits;
    limits.waitingFiles = files;
    d->plan = FolderDownloadPlan(limits);
}

void HalvaneDownloadFolderTaskBase::removeWhatIsNotListed() {
    d->removesOthers = true;
}

Error HalvaneDownloadFolderTaskBase::initialize() {
    ORX_RETURN_ON_ERROR(d->check());
    const QPointer<HalvaneDownloadFolderTaskBase> guard(this);
    Q_EMIT progressInitiated(TreeProgress::maximum);
    if (guard && isRunning())
        d->makeTarget();
    return Error();
}

// What came is to be durable at the end, which waits for this step as for every other.
void HalvaneDownloadFolderTaskBase::cancelDescendants() {
    const QPointer<HalvaneDownloadFolderTaskBase> guard(this);
    if (isRunning() && d->flushes->count() > 0)
        d->startFlushing();
    if (guard)
        HalvaneComplexTask::cancelDescendants();
}

Error HalvaneDownloadFolderTaskBase::doFinish() {
    if (!hasError()) {
        Error outcome = d->report.outcome(d->plan.droppedFiles());
        outcome.addWarnings(error().warnings());
        setError(ORX_ECATCH(outcome));
    }
    if (!hasError()) {
        const QPointer<HalvaneDownloadFolderTaskBase> guard(this);
        Q_EMIT progress(TreeProgress::maximum, TreeProgress::maximum);
        if (!guard)
            return Error();
    }
    return HalvaneComplexTask::doFinish();
}

Error HalvaneDownloadFolderTaskBase::Private::check() const {
    if (!reference)
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument, tr("No folder was given to be downloaded.")));
    return namesFolder ? ORX_ECATCH(DownloadNames::checkListed(rootPath)) : Error();
}

QString HalvaneDownloadFolderTaskBase::Private::pathOf(const QString& relative) const {
    return relative.isEmpty() ? target : target + u'/' + relative;
}

void HalvaneDownloadFolderTaskBase::Private::makeTarget() {
    q->execSubtask(
        std::make_unique<WorkerStepTask>(QStringLiteral("MakeTarget"),
                                         [path = target] { return TargetDirectories::makeTarget(path); }),
        [this](WorkerStepTask*) {
            plan.begin({reference->id(), rootPath});
            begun = true;
            advance();
        });
}

void HalvaneDownloadFolderTaskBase::Private::advance() {
    // A step that ends at once comes back here while it is being started.
    if (advancing)
        return;
    advancing = true;
    while (!q->isCanceled() && q->isRunning()) {
        if (report.isHopeless())
            plan.stop();
        if (const auto folder = plan.takeFolder())
            list(*folder);
        else if (const auto file = plan.takeFile())
            fetch(*file);
        else
            break;
    }
    advancing = false;
    if (removesOthers && plan.isDone() && report.failures().isEmpty() && !q->isCanceled() && q->isRunning())
        removeOthers();
    flushDirectories();
}

// Before the end, and now and then: whatever became of the other files, those that came are durable then.
void HalvaneDownloadFolderTaskBase::Private::flushDirectories() {
    const qsizetype enough = plan.isDone() ? 1 : flushedAtATime;
    if (flushing || flushes->count() < enough || q->isCanceled() || !q->isRunning())
        return;
    startFlushing();
}

void HalvaneDownloadFolderTaskBase::Private::startFlushing() {
    flushing = true;
    auto task = std::make_unique<FlushDirectoriesTask>(flushes);
    const auto ended = [this, raw = task.get()](BaseTask*) { onFlushed(raw->failures()); };
    q->execSubtask(std::unique_ptr<BaseTask>(std::move(task)), ended, ended);
}

void HalvaneDownloadFolderTaskBase::Private::onFlushed(const QList<DirectoryFlushes::Failure>& unflushed) {
    flushing = false;
    for (const DirectoryFlushes::Failure& failure : unflushed) {
        const QString path = QDir(target).relativeFilePath(failure.directory);
        report.addFailure(path == u"." ? reference->name() : path, failure.error);
    }
    advance();
}

void HalvaneDownloadFolderTaskBase::Private::removeOthers() {
    removesOthers = false;
    const auto remove = [path = target, top = rootPath, kept = std::exchange(listed, {})] {
        return TargetDirectories::removeOthers(path, top, kept);
    };
    q->execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("RemoveOthers"), remove));
}

void HalvaneDownloadFolderTaskBase::Private::list(const Folder& folder) {
    const auto listing = std::make_shared<Listing>();
    listing->folder = folder;
    if (removesOthers)
        listed.directories.insert(folder.path);
    const auto make = [path = pathOf(folder.path), isTarget = folder.path.isEmpty()] {
        return isTarget ? Error() : TargetDirectories::makeInside(path);
    };
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<WorkerStepTask>(QStringLiteral("MakeDirectory"), make)),
        [this, listing](BaseTask*) { askForContent(listing); },
        [this, listing](BaseTask* step) {
            listing->missing = 1;
            onAnswer(listing, step->error());
        });
}

void HalvaneDownloadFolderTaskBase::Private::askForContent(const ListingPtr& listing) {
    ask<HalvaneGetFoldersTask>(
        listing, [](Listing& kept, const HalvaneGetFoldersTask& task) { kept.folders = task.foldersTree(); });
    ask<HalvaneGetFilesTask>(
        listing, [](Listing& kept, const HalvaneGetFilesTask& task) { kept.files = task.files(); });
}

template <typename T, typename Keep>
void HalvaneDownloadFolderTaskBase::Private::ask(const ListingPtr& listing, Keep keep) {
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<T>(listing->folder.id)),
        [this, listing, keep](BaseTask* task) {
            keep(*listing, *static_cast<T*>(task));
            onAnswer(listing, Error());
        },
        [this, listing](BaseTask* task) { onAnswer(listing, task->error()); });
}

void HalvaneDownloadFolderTaskBase::Private::onAnswer(const ListingPtr& listing, const Error& error) {
    if (error.hasError() && !listing->error.hasError())
        listing->error = error;
    if (--listing->missing == 0)
        onListed(*listing);
}

void HalvaneDownloadFolderTaskBase::Private::onListed(const Listing& listing) {
    if (q->isCanceled())
        return;
    if (listing.error.hasError()) {
        plan.notListed();
        report.addFailure(listing.folder.path.isEmpty() ? reference->name() : listing.folder.path,
                          listing.error);
    } else {
        const size_t waiting = plan.waitingFolders().size();
        for (const auto& refused : plan.listed(listing.folder, listing.folders, listing.files))
            report.addFailure(refused.path, refused.error);
        for (size_t i = waiting; i < plan.waitingFolders().size(); ++i)
            q->onFolderListed(plan.waitingFolders()[i].id, pathOf(plan.waitingFolders()[i].path));
    }
    if (showProgress())
        advance();
}

void HalvaneDownloadFolderTaskBase::Private::fetch(const File& file) {
    if (removesOthers)
        listed.files.insert(file.path());
    auto task = makeTask(file);
    if (task.hasError()) {
        plan.fileEnded();
        report.addFailure(file.path(), task.error());
        return;
    }
    const int key = nextKey++;
    Task* const raw = task->get();
    QObject::connect(raw, &BaseTask::progress, q, [this, key, size = file.size](int value, int maximum) {
        progress.setUnderWay(key, size, maximum > 0 ? double(value) / maximum : 0);
        (void)showProgress();
    });
    const auto ended = [this, file, key](BaseTask* of) { onFetched(of, file, key); };
    q->execSubtask(std::unique_ptr<BaseTask>(std::move(task).value()), ended, ended);
}

QString HalvaneDownloadFolderTaskBase::Private::nameFor(const File& file) const {
    const bool namesContent = q->namesContent() && FileTypes::fileType(file.name) == FileTypes::VONK;
    return namesContent ? file.contentName : file.localName;
}

Result<std::unique_ptr<Task>> HalvaneDownloadFolderTaskBase::Private::makeTask(const File& file) {
    const auto fileReference = HalvaneFileResourceReference::create(file.id, file.version, file.name);
    if (fileReference.hasError())
        return ORX_ECATCH(Error(fileReference.error()));
    // Whatever fetches the file need not ask for what the listing said.
    HalvaneAcknowledgedContents::recordStated(
        HalvaneConnection::instance().serverKey(), file.id, file.version,
        {file.size, file.sha256, file.sourceModifiedAt, file.modifiedAt, file.alias});
    std::unique_ptr<Task> task(
        q->createFileDownloadTask(*fileReference, DirPath(pathOf(file.directory)), nameFor(file), policy));
    if (!task)
        return ORX_ECATCH(Error(ErrorCode::General, tr("Nothing was found that could download it.")));
    DirectoryFlushes::attach(*task, flushes);
    return task;
}

void HalvaneDownloadFolderTaskBase::Private::onFetched(BaseTask* task, const File& file, int key) {
    if (q->isCanceled())
        return;
    plan.fileEnded();
    if (task->hasError()) {
        report.addWarnings(task->error().warnings());
        progress.drop(key);
        report.addFailure(file.path(), task->error());
    } else {
        progress.settle(key, file.size);
        report.addSuccess();
        ++downloaded;
    }
    if (showProgress())
        advance();
}

bool HalvaneDownloadFolderTaskBase::Private::showProgress() {
    const QPointer<HalvaneDownloadFolderTaskBase> guard(q);
    listingWaited = listingWaited || plan.isListingPaused();
    if (!plan.isWholeTreeKnown() && !listingWaited)
        return true;
    if (const auto value = progress.take(plan.totalBytes()))
        Q_EMIT q->progress(*value, TreeProgress::maximum);
    return bool(guard);
}

void HalvaneDownloadFolderTask::setMirroring() {
    m_isMirroring = true;
    removeWhatIsNotListed();
}

bool HalvaneDownloadFolderTask::namesContent() const {
    return false;
}

Task* HalvaneDownloadFolderTask::createFileDownloadTask(
    const QSharedPointer<HalvaneFileResourceReference>& fileReference,
    const PathImpl<PathType::Dir>& targetDir, const QString& name,
    std::optional<DuplicateDownloadPolicy> policy) {
    HalvaneFileDownloadParameters parameters;
    parameters.reference = fileReference;
    parameters.targetDir = QDir(targetDir.toString());
    parameters.targetName = name;
    parameters.overwrite = policy == DuplicateDownloadPolicy::Overwrite;
    parameters.keepSame = m_isMirroring;
    parameters.isIntermediate = m_isMirroring;
    return HalvaneDownloadFileTaskCreator::createUnpacking(parameters).release();
}

} // namespace orx
