#include "HalvaneFolderUploadTask.h"

#include "HalvaneVerifyUploadedContentTask.h"

#include <DuplicateUploadPolicy.h>
#include <GroupTask.h>
#include <HalvaneItemTasks.h>
#include <UploadFileInputValidation.h>
#include <UploadSums.h>

#include <QDir>
#include <QPointer>

namespace orx {
namespace {

//! A file upload that failed or was cancelled, with what it takes to make it again.
struct FailedFileInfo {
    explicit FailedFileInfo(const HalvaneFileUploadTaskBase& task)
        : targetId(task.targetId()), path(task.path()), error(task.error()), targetType(task.targetType()) {
        if (const QString given = task.parameters().targetFileName; !given.isEmpty())
            name = given;
    }

    int targetId;
    QString path;
    Error error;
    HalvaneResourceReference::ItemType targetType;
    std::optional<QString> name;
};

class InternalGroupTask : public GroupTask {
public:
    InternalGroupTask() : GroupTask(nullptr) {}

    QList<FailedFileInfo> failed;
    QList<FailedFileInfo> canceled;
};

//! What all uploads of one file have in common; none is made.
struct SingleUpload : HalvaneFileUploadTaskBase {
    using HalvaneFileUploadTaskBase::maxProgress;
};

constexpr QDir::Filters uploadedEntries = QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot;

int filesIn(const HalvaneUploadedFolderInfo& folder) {
    int count = int(folder.files().size());
    for (const HalvaneUploadedFolderInfo& subFolder : folder.folders())
        count += filesIn(subFolder);
    return count;
}

} // namespace

class HalvaneFolderUploadTask::Private {
public:
    enum class UploadMode : int { Initial = 0, Retry = 1 };

    Private(const QString& path, int folderId, const QList<int>& groups, HalvaneUploadPolicyOptions options,
            HalvaneFolderUploadTask* task)
        : localPath(path), userGroups(groups), targetFolderId(folderId), policyOptions(options), q(task) {}

    void onFoldersListed(const HalvaneGetFoldersTask& task);
    void appendCreateFolderTask(const QString& name);
    void onFolderReady(int folderId, const QString& folderName);
    void onContentVerified(const HalvaneVerifyUploadedContentTask& task);

    Result<std::unique_ptr<HalvaneUploadTask>> createUploadTask(const UploadedFileData& data) const;
    Result<HalvaneUploadTask*> appendUploadTask(const UploadedFileData& data, UploadMode mode);
    void follow(HalvaneFolderUploadTask* nested, UploadMode mode);
    void onUploaded(BaseTask* task);
    void onNotUploaded(BaseTask* task);
    Result<HalvaneUploadTask*> tryRetry(const QString& path, QList<FailedFileInfo>& list);

    //! Adds and reports; a receiver may destroy the task, and this object with it.
    void addProgress(int difference);

    const QString localPath;
    const QList<int> userGroups;
    const int targetFolderId;
    int currentProgress = 0;
    std::optional<HalvaneUploadedFolderInfo> uploadedFolder;
    const HalvaneUploadPolicyOptions policyOptions;
    //! Owned by the task.
    InternalGroupTask* groupTask = nullptr;
    std::shared_ptr<DuplicateUploadPolicyInterface> duplicateUploadPolicy;
    HalvaneFolderUploadTask* const q;
    int maxProgress = 0;
};

HalvaneFolderUploadTask::HalvaneFolderUploadTask(const QString& path, int targetFolderId,
                                                 const QList<int>& userGroups,
                                                 HalvaneUploadPolicyOptions policyOptions, QObject* parent)
    : HalvaneUploadTask(QStringLiteral("Upload:Folder(%1)").arg(path), parent)
    , d(std::make_unique<Private>(path, targetFolderId, userGroups, policyOptions, this)) {
    auto group = std::make_unique<InternalGroupTask>();
    d->groupTask = group.get();
    d->duplicateUploadPolicy = std::make_shared<DefaultDuplicateUploadPolicy>();
    setGroupTask(std::move(group));
    // Whichever upload the factory made of an entry, without a look at its content here.
    d->maxProgress = UploadSums::instance().uploadsIn(path) * SingleUpload::maxProgress(false);
    QMetaObject::invokeMethod(
        this, [this] { Q_EMIT progressInitiated(d->maxProgress); }, Qt::QueuedConnection);
    connect(
        this, &BaseTask::canceled, this, [this] { d->duplicateUploadPolicy->cancel(); },
        Qt::DirectConnection);
    connect(this, &HalvaneFolderUploadTask::fileUploadFailed, this,
            [this](const HalvaneFileUploadTaskBase* task) {
                d->groupTask->failed.append(FailedFileInfo(*task));
            });
    connect(this, &HalvaneFolderUploadTask::fileUploadCanceled, this,
            [this](const HalvaneFileUploadTaskBase* task) {
                d->groupTask->canceled.append(FailedFileInfo(*task));
            });
}

HalvaneFolderUploadTask::~HalvaneFolderUploadTask() = default;

Error HalvaneFolderUploadTask::initialize() {
    execSubtask(std::make_unique<HalvaneGetFoldersTask>(d->targetFolderId, nullptr),
                [this](HalvaneGetFoldersTask* task) { d->onFoldersListed(*task); });
    return Error();
}

HalvaneUploadTask::UploadDataType HalvaneFolderUploadTask::uploadDataType() const {
    return UploadDataType::Folder;
}

int HalvaneFolderUploadTask::currentProgress() const {
    return d->currentProgress;
}

int HalvaneFolderUploadTask::maxProgress() const {
    return d->maxProgress;
}

QString HalvaneFolderUploadTask::path() const {
    return d->localPath;
}

void HalvaneFolderUploadTask::setDuplicateUploadPolicy(
    std::shared_ptr<DuplicateUploadPolicyInterface> policy) {
    d->duplicateUploadPolicy = std::move(policy);
}

std::optional<HalvaneUploadedFolderInfo> HalvaneFolderUploadTask::uploadedFolder() const {
    return d->uploadedFolder;
}

int HalvaneFolderUploadTask::successfulFileUploadsCount() const {
    return d->uploadedFolder ? filesIn(*d->uploadedFolder) : 0;
}

int HalvaneFolderUploadTask::failedFileUploadsCount() const {
    return int(d->groupTask->failed.size());
}

int HalvaneFolderUploadTask::canceledFileUploadsCount() const {
    return int(d->groupTask->canceled.size());
}

FinishedTaskCounts HalvaneFolderUploadTask::finishedTaskCounts() const {
    return {successfulFileUploadsCount(), failedFileUploadsCount(), canceledFileUploadsCount()};
}

Result<HalvaneFileUploadTaskBase*> HalvaneFolderUploadTask::retry(const QString& path) {
    for (QList<FailedFileInfo>* list : {&d->groupTask->failed, &d->groupTask->canceled}) {
        auto task = d->tryRetry(path, *list);
        ORX_RETURN_ON_ERROR(task.error());
        if (*task)
            return qobject_cast<HalvaneFileUploadTaskBase*>(*task);
    }
    return ORX_ECATCH(
        Error(ErrorCode::InvalidArgument, tr("The upload task is not on the failed tasks list.")));
}

void HalvaneFolderUploadTask::Private::onFoldersListed(const HalvaneGetFoldersTask& task) {
    const QString name = QDir(localPath).dirName();
    HalvaneFolderTreeNodeSPtr chosen;
    for (const auto& node : task.foldersTree()) {
        if (node->name() == name && (!chosen || node->id() > chosen->id()))
            chosen = node;
    }
    if (chosen)
        onFolderReady(chosen->id(), chosen->name());
    else
        appendCreateFolderTask(name);
}

void HalvaneFolderUploadTask::Private::appendCreateFolderTask(const QString& name) {
    q->execSubtask(std::make_unique<HalvaneCreateFolderTask>(
                       HalvaneCreateFolderTask::Input{name, userGroups, targetFolderId}, nullptr),
                   [this](HalvaneCreateFolderTask* task) {
                       onFolderReady(task->createdFolderId(), task->createdFolderName());
                   });
}

void HalvaneFolderUploadTask::Private::onFolderReady(int folderId, const QString& folderName) {
    QStringList paths;
    const QFileInfoList entries = QDir(localPath).entryInfoList(uploadedEntries, QDir::NoSort);
    for (const QFileInfo& entry : entries)
        paths.append(entry.filePath());
    uploadedFolder = HalvaneUploadedFolderInfo(folderId, {}, {});
    if (paths.isEmpty())
        return;
    q->execSubtask(
        std::make_unique<HalvaneVerifyUploadedContentTask>(
            HalvaneVerifyUploadedContentTask::Input{paths, folderId, folderName}, duplicateUploadPolicy),
        [this](HalvaneVerifyUploadedContentTask* task) { onContentVerified(*task); });
}

void HalvaneFolderUploadTask::Private::onContentVerified(const HalvaneVerifyUploadedContentTask& task) {
    if (policyOptions.testFlag(HalvaneUploadPolicyOption::KeepGoing))
        groupTask->setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    const QPointer<HalvaneFolderUploadTask> guard(q);
    QList<BaseTask*> uploads;
    const QList<UploadedFileData> entries = task.uploadedFilesData();
    for (const UploadedFileData& data : entries) {
        const auto upload = appendUploadTask(data, UploadMode::Initial);
        if (!guard)
            return;
        if (!upload.hasError())
            uploads.append(*upload);
    }
    q->execSubtasks(uploads);
}

Result<std::unique_ptr<HalvaneUploadTask>>
HalvaneFolderUploadTask::Private::createUploadTask(const UploadedFileData& data) const {
    return HalvaneUploadTask::create(data.localPath(), data.id(), data.itemType(), QString(), std::nullopt,
                                     userGroups, policyOptions, data.name());
}

Result<HalvaneUploadTask*> HalvaneFolderUploadTask::Private::appendUploadTask(const UploadedFileData& data,
                                                                              UploadMode mode) {
    auto created = createUploadTask(data);
    if (created.hasError()) {
        const Error error = ORX_ECATCH(created).error();
        q->finish(error);
        return error;
    }
    std::unique_ptr<HalvaneUploadTask> owned = std::move(*created);
    HalvaneUploadTask* const task = owned.get();
    connect(task, &BaseTask::progress, q,
            [this, last = 0](int value, int) mutable { addProgress(value - std::exchange(last, value)); });
    auto* const file = qobject_cast<HalvaneFileUploadTaskBase*>(task);
    const QPointer<HalvaneFolderUploadTask> guard(q);
    if (file && mode == UploadMode::Initial)
        Q_EMIT q->uploadStarted(file);
    if (!guard)
        return nullptr; // a receiver destroyed the folder upload, and this object with it
    if (auto* const nested = qobject_cast<HalvaneFolderUploadTask*>(task))
        follow(nested, mode);
    q->appendSubtask(
        std::move(owned), [this](BaseTask* done) { onUploaded(done); },
        [this](BaseTask* failed) { onNotUploaded(failed); });
    return task;
}

void HalvaneFolderUploadTask::Private::follow(HalvaneFolderUploadTask* nested, UploadMode mode) {
    nested->setDuplicateUploadPolicy(duplicateUploadPolicy);
    if (mode == UploadMode::Initial)
        connect(nested, &HalvaneFolderUploadTask::uploadStarted, q, &HalvaneFolderUploadTask::uploadStarted);
    connect(nested, &HalvaneFolderUploadTask::fileUploadFailed, q,
            &HalvaneFolderUploadTask::fileUploadFailed);
    connect(nested, &HalvaneFolderUploadTask::fileUploadCanceled, q,
            &HalvaneFolderUploadTask::fileUploadCanceled);
    connect(nested, &HalvaneFolderUploadTask::folderUploaded, q, &HalvaneFolderUploadTask::folderUploaded);
    connect(nested, &HalvaneFolderUploadTask::folderUploadFailed, q,
            &HalvaneFolderUploadTask::folderUploadFailed);
}

void HalvaneFolderUploadTask::Private::onUploaded(BaseTask* task) {
    if (const auto* file = qobject_cast<HalvaneFileUploadTaskBase*>(task)) {
        uploadedFolder->addFile(file->uploadedFile().value());
    } else if (const auto* folder = qobject_cast<HalvaneFolderUploadTask*>(task)) {
        uploadedFolder->addFolder(folder->uploadedFolder().value());
        Q_EMIT q->folderUploaded(folder);
    }
}

void HalvaneFolderUploadTask::Private::onNotUploaded(BaseTask* task) {
    if (const auto* folder = qobject_cast<HalvaneFolderUploadTask*>(task)) {
        if (const auto uploaded = folder->uploadedFolder())
            uploadedFolder->addFolder(*uploaded);
        Q_EMIT q->folderUploadFailed(folder);
        return;
    }
    const auto* file = qobject_cast<HalvaneFileUploadTaskBase*>(task);
    if (!file)
        return;
    const QPointer<HalvaneFolderUploadTask> guard(q);
    addProgress(-file->currentProgress());
    if (!guard)
        return;
    if (file->isCanceled())
        Q_EMIT guard->fileUploadCanceled(file);
    else
        Q_EMIT guard->fileUploadFailed(file);
}

Result<HalvaneUploadTask*> HalvaneFolderUploadTask::Private::tryRetry(const QString& path,
                                                                      QList<FailedFileInfo>& list) {
    const auto found =
        std::find_if(list.begin(), list.end(), [&](const FailedFileInfo& info) { return info.path == path; });
    if (found == list.end())
        return nullptr;
    if (q->isFinished())
        q->restartWithGroup();
    const FailedFileInfo info = *found;
    list.erase(found);
    auto task = appendUploadTask(UploadedFileData(info.targetId, info.targetType, info.path, info.name),
                                 UploadMode::Retry);
    ORX_RETURN_ON_ERROR(task.error());
    q->execSubtask(*task);
    return *task;
}

void HalvaneFolderUploadTask::Private::addProgress(int difference) {
    currentProgress += difference;
    Q_EMIT q->progress(currentProgress, maxProgress);
}

} // namespace orx
