#include "HalvaneFileUploadTask.h"

#include "../HalvaneResourceHandlerLog.h"
#include "ChunkProgress.h"
#include "HalvaneVonkFileUploadTask.h"

#include <FileTypes.h>
#include <HalvaneError.h>
#include <HalvaneHistory.h>
#include <HalvaneItemTasks.h>
#include <HalvaneUploadTasks.h>
#include <Tracer.h>

#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QPointer>

namespace orx {
namespace {

//! The name under which the server knows a data type; empty for those it has no name for.
QString dataTypeName(HalvaneUploadTask::UploadDataType type) {
    static const QMap<HalvaneUploadTask::UploadDataType, QString> names{
        {HalvaneUploadTask::UploadDataType::RegularFile, QStringLiteral("Regular")},
        {HalvaneUploadTask::UploadDataType::SampleData, QStringLiteral("MS")}};
    return names.value(type);
}

//! Decided once per process: a span that was begun is ended, even when the settings changed meanwhile.
bool isTracingEnabled() {
    static const bool enabled =
        Tracer::categorySettings().isEnabled(QStringLiteral("FILE_UPLOAD")) && Tracer::isInitialized();
    return enabled;
}

QString traceEvent() {
    return QStringLiteral("file_upload");
}

} // namespace

class HalvaneFileUploadTask::Private {
public:
    enum class ReplacePolicy : int { CheckRemoteVersion = 0, Replace = 1 };

    explicit Private(HalvaneFileUploadTask* task)
        : maxProgress(HalvaneFileUploadTaskBase::maxProgress(task->parameters())), q(task) {}

    ReplacePolicy replacePolicy() const;
    Error initializeUpload(ReplacePolicy policy);

    void appendSearchCurrentFileIdTask(int folderId);
    void onFilesListed(const HalvaneGetFilesTask& task);
    void appendCheckRemoteFileVersionTask(int fileId, int recordedVersion);
    void onRemoteVersionKnown(const HalvaneGetFileMetadataTask& task, int recordedVersion);
    void appendInitTask();
    void onUploadInitialized(const HalvaneInitUploadTask& task);
    void appendPostChunksTask();
    void onChunkProgress(int value, int maximum);
    void onChunksPosted();
    void appendFinalizeTask(const QJsonObject& request);
    void onUploadFinalized(const HalvaneFinalizeUploadTask& task);
    void appendPutExtendedMetadataTask(int fileId);

    //! Adds and reports; returns false when a receiver destroyed the task, and this object with it.
    bool addProgress(int difference);

    int currentProgress = 0;
    //! The raw value of the chunk task's last progress signal, not its percentage.
    int lastChunkProgress = 0;
    int uploadId = -1;
    QFile file;
    const int maxProgress;
    HalvaneFileUploadTask* const q;
};

HalvaneFileUploadTask::HalvaneFileUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent)
    : HalvaneFileUploadTaskBase(parameters, QStringLiteral("Upload:File(%1)").arg(parameters.localPath),
                                parent)
    , d(std::make_unique<Private>(this)) {
    QMetaObject::invokeMethod(
        this, [this] { Q_EMIT progressInitiated(d->maxProgress); }, Qt::QueuedConnection);
    connect(this, &BaseTask::started, this, [this] {
        if (isTracingEnabled())
            Tracer::beginTrace(traceEvent(), name());
    });
    connect(this, &BaseTask::finished, this, [this] {
        if (isTracingEnabled())
            Tracer::endTrace(traceEvent(), name());
    });
}

HalvaneFileUploadTask::~HalvaneFileUploadTask() = default;

std::unique_ptr<HalvaneFileUploadTask>
HalvaneFileUploadTask::create(const HalvaneFileUploadParameters& parameters) {
    if (FileTypes::fileMatchesAnyType(parameters.localPath, {FileTypes::VONK}))
        return std::make_unique<HalvaneVonkFileUploadTask>(parameters, nullptr);
    return std::make_unique<HalvaneFileUploadTask>(parameters, nullptr);
}

Error HalvaneFileUploadTask::doFinish() {
    if (d->file.isOpen())
        d->file.close();
    return HalvaneFileUploadTaskBase::doFinish();
}

Error HalvaneFileUploadTask::initialize() {
    const HalvaneFileUploadParameters upload = parameters();
    if (!QFileInfo(upload.localPath).isFile()) {
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument,
                                tr("Path \"%1\" does not point to a file").arg(upload.localPath)));
    }
    d->file.setFileName(upload.localPath);
    if (!d->file.open(QIODevice::ReadOnly)) {
        return ORX_ECATCH(
            Error(ErrorCode::FileNotReadable, tr("Could not read file \"%1\".").arg(d->file.fileName())));
    }
    if (upload.policyOptions.testFlag(HalvaneUploadPolicyOption::NewVersionByName) &&
        upload.targetItemType == HalvaneResourceReference::ItemType::Folder) {
        d->appendSearchCurrentFileIdTask(upload.targetId);
        return Error();
    }
    ORX_RETURN_ON_ERROR(d->initializeUpload(d->replacePolicy()));
    return Error();
}

HalvaneUploadTask::UploadDataType HalvaneFileUploadTask::uploadDataType() const {
    return UploadDataType::RegularFile;
}

int HalvaneFileUploadTask::currentProgress() const {
    return d->currentProgress;
}

int HalvaneFileUploadTask::maxProgress() const {
    return d->maxProgress;
}

QJsonObject HalvaneFileUploadTask::finalizeRequestJson() const {
    QJsonObject request;
    request.insert(QStringLiteral("upload_id"), d->uploadId);
    request.insert(QStringLiteral("file_alias"), parameters().alias);
    if (const QString dataType = dataTypeName(uploadDataType()); !dataType.isEmpty())
        request.insert(QStringLiteral("force_data_type"), dataType);
    return request;
}

HalvaneFileUploadTask::Private::ReplacePolicy HalvaneFileUploadTask::Private::replacePolicy() const {
    return q->parameters().policyOptions.testFlag(HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck)
               ? ReplacePolicy::Replace
               : ReplacePolicy::CheckRemoteVersion;
}

void HalvaneFileUploadTask::Private::appendSearchCurrentFileIdTask(int folderId) {
    q->execSubtask(std::make_unique<HalvaneGetFilesTask>(folderId, nullptr),
                   [this](HalvaneGetFilesTask* task) { onFilesListed(*task); });
}

void HalvaneFileUploadTask::Private::onFilesListed(const HalvaneGetFilesTask& task) {
    HalvaneFileUploadParameters upload = q->parameters();
    const QString fileName = QFileInfo(upload.localPath).fileName();
    int fileId = -1;
    for (const HalvaneFileItemSPtr& item : task.files()) {
        if (item->name() == fileName)
            fileId = std::max(fileId, item->id());
    }
    if (fileId != -1) {
        qCDebug(halvaneResourceHandlerLog)
            << "Uploading" << upload.localPath << "as a new version of file" << fileId;
        upload.targetId = fileId;
        upload.targetItemType = HalvaneResourceReference::ItemType::File;
        q->setParameters(upload);
    }
    const QPointer<HalvaneFileUploadTask> guard(q);
    if (Error error = initializeUpload(replacePolicy()); error.hasError() && guard)
        guard->finish(ORX_ECATCH(error));
}

Error HalvaneFileUploadTask::Private::initializeUpload(ReplacePolicy policy) {
    const HalvaneFileUploadParameters upload = q->parameters();
    if (policy == ReplacePolicy::Replace ||
        upload.targetItemType != HalvaneResourceReference::ItemType::File) {
        appendInitTask();
        return Error();
    }
    auto recordedVersion = HalvaneHistory().fileVersion(upload.localPath, upload.targetId);
    if (recordedVersion.hasError()) {
        Error error = recordedVersion.error();
        ORX_ECATCH(error);
        q->finish(error);
        return error;
    }
    if (const std::optional<int> version = *recordedVersion)
        appendCheckRemoteFileVersionTask(upload.targetId, *version);
    else
        appendInitTask();
    return Error();
}

void HalvaneFileUploadTask::Private::appendCheckRemoteFileVersionTask(int fileId, int recordedVersion) {
    q->execSubtask(std::make_unique<HalvaneGetFileMetadataTask>(fileId, nullptr),
                   [this, recordedVersion](HalvaneGetFileMetadataTask* task) {
                       onRemoteVersionKnown(*task, recordedVersion);
                   });
}

void HalvaneFileUploadTask::Private::onRemoteVersionKnown(const HalvaneGetFileMetadataTask& task,
                                                          int recordedVersion) {
    if (task.fileItem().lastVersion() > recordedVersion) {
        q->finish(ORX_ECATCH(halvaneError(HalvaneServerErrorCode::VersionConflict, QString())));
        return;
    }
    appendInitTask();
}

void HalvaneFileUploadTask::Private::appendInitTask() {
    q->execSubtask(std::make_unique<HalvaneInitUploadTask>(q->parameters(), nullptr),
                   [this](HalvaneInitUploadTask* task) { onUploadInitialized(*task); });
}

void HalvaneFileUploadTask::Private::onUploadInitialized(const HalvaneInitUploadTask& task) {
    const int id = task.uploadId();
    if (!addProgress(1))
        return;
    uploadId = id;
    appendPostChunksTask();
}

void HalvaneFileUploadTask::Private::appendPostChunksTask() {
    const HalvaneFileUploadParameters upload = q->parameters();
    auto task = std::make_unique<HalvanePostChunksTask>(
        HalvanePostChunksTask::Input{uploadId, upload.fileSize, upload.localPath}, &file, nullptr);
    connect(task.get(), &BaseTask::progress, q,
            [this](int value, int maximum) { onChunkProgress(value, maximum); });
    q->execSubtask(std::move(task), [this](HalvanePostChunksTask*) { onChunksPosted(); });
}

void HalvaneFileUploadTask::Private::onChunkProgress(int value, int maximum) {
    const int difference = chunkProgressDifference(value, maximum, lastChunkProgress);
    if (difference != 0)
        addProgress(difference);
}

void HalvaneFileUploadTask::Private::onChunksPosted() {
    file.close();
    appendFinalizeTask(q->finalizeRequestJson());
}

void HalvaneFileUploadTask::Private::appendFinalizeTask(const QJsonObject& request) {
    q->execSubtask(std::make_unique<HalvaneFinalizeUploadTask>(request, nullptr),
                   [this](HalvaneFinalizeUploadTask* task) { onUploadFinalized(*task); });
}

void HalvaneFileUploadTask::Private::onUploadFinalized(const HalvaneFinalizeUploadTask& task) {
    const HalvaneApiReference reference = task.createdFileReference();
    const int fileId = task.createdFileId();
    if (!addProgress(1))
        return;
    const HalvaneFileUploadParameters upload = q->parameters();
    q->setUploadedFile(HalvaneUploadedFileInfo(reference, upload.localPath, upload.targetFileName));
    if (upload.extendedMetadata)
        appendPutExtendedMetadataTask(fileId);
}

void HalvaneFileUploadTask::Private::appendPutExtendedMetadataTask(int fileId) {
    const auto values = q->parameters().extendedMetadata;
    q->execSubtask(std::make_unique<HalvanePutExtendedMetaDataTask>(fileId, *values, nullptr),
                   [this](HalvanePutExtendedMetaDataTask*) { addProgress(1); });
}

bool HalvaneFileUploadTask::Private::addProgress(int difference) {
    const QPointer<HalvaneFileUploadTask> guard(q);
    currentProgress = int(quint32(currentProgress) + quint32(difference));
    Q_EMIT q->progress(currentProgress, maxProgress);
    return bool(guard);
}

} // namespace orx
