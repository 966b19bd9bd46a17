#include "HalvaneSampleDataUploadTask.h"

#include "HalvaneVonkFileUploadTask.h"

#include <AsyncVonkTask.h>
#include <DiskRoom.h>
#include <FileTypes.h>
#include <HalvaneConnection.h>
#include <PackInput.h>

#include <QTemporaryDir>
#include <QTimer>

namespace orx {
namespace {

std::unique_ptr<QTemporaryDir> makeTempDir() {
    const auto userSettings = HalvaneConnection::instance().settings().userSettingsPtr();
    return std::make_unique<QTemporaryDir>(userSettings->tempDirTemplate());
}

} // namespace

class HalvaneSampleDataUploadTask::Private {
public:
    Private(const HalvaneFileUploadParameters& upload, HalvaneSampleDataUploadTask* task)
        : parameters(upload)
        , tempDir(makeTempDir())
        , maxProgress(HalvaneFileUploadTaskBase::maxProgress(upload))
        , q(task) {}

    Error createLocalVonk(const QString& path);
    void appendAsyncVonkTask(const QString& path, const QString& vonkPath);
    void onPacked(const QString& vonkPath);
    void appendVonkFileUploadTask(const HalvaneFileUploadParameters& upload);
    void onIdle();

    const HalvaneFileUploadParameters parameters;
    //! What the packed file takes there; goes after it.
    std::shared_ptr<vonk::DiskRoom> room;
    const std::unique_ptr<QTemporaryDir> tempDir;
    const int maxProgress;
    int currentProgress = 0;
    HalvaneSampleDataUploadTask* const q;
};

HalvaneSampleDataUploadTask::HalvaneSampleDataUploadTask(const HalvaneFileUploadParameters& parameters,
                                                         QObject* parent)
    : HalvaneFileUploadTaskBase(parameters, QStringLiteral("Upload:SampleData(%1)").arg(parameters.localPath),
                                parent)
    , d(std::make_unique<Private>(parameters, this)) {
    QMetaObject::invokeMethod(
        this, [this] { Q_EMIT progressInitiated(d->maxProgress); }, Qt::QueuedConnection);
    connect(this, &BaseTask::idle, this, [this] { d->onIdle(); });
    setCachedOnFinished(false);
}

HalvaneSampleDataUploadTask::~HalvaneSampleDataUploadTask() {
    // Before the directory goes into which a worker may be packing.
    stopBody();
}

Error HalvaneSampleDataUploadTask::initialize() {
    ORX_RETURN_ON_ERROR(d->createLocalVonk(d->parameters.localPath));
    return Error();
}

HalvaneUploadTask::UploadDataType HalvaneSampleDataUploadTask::uploadDataType() const {
    return UploadDataType::SampleData;
}

int HalvaneSampleDataUploadTask::currentProgress() const {
    return d->currentProgress;
}

int HalvaneSampleDataUploadTask::maxProgress() const {
    return d->maxProgress;
}

Error HalvaneSampleDataUploadTask::Private::createLocalVonk(const QString& path) {
    if (!tempDir->isValid())
        return Error(ErrorCode::General, tr("Cannot create a temporary dir."));
    if (path.isEmpty())
        return Error(ErrorCode::General, tr("The local path is missing."));
    appendAsyncVonkTask(path,
                        tempDir->filePath(FileTypes::fileName(parameters.targetFileName, FileTypes::VONK)));
    return Error();
}

void HalvaneSampleDataUploadTask::Private::appendAsyncVonkTask(const QString& path, const QString& vonkPath) {
    auto task = std::make_unique<AsyncVonkTask>(vonk::PackInput::fromMs(path), FilePath(vonkPath), nullptr);
    task->setTargetTemporary(true);
    q->execSubtask(std::move(task), [this, vonkPath](AsyncVonkTask* packing) {
        room = packing->room();
        onPacked(vonkPath);
    });
}

void HalvaneSampleDataUploadTask::Private::onPacked(const QString& vonkPath) {
    auto packed = HalvaneFileUploadParameters::create(
        vonkPath, parameters.targetId, parameters.targetItemType, parameters.alias,
        parameters.extendedMetadata, parameters.policyOptions, std::nullopt);
    if (packed.hasError())
        q->finish(ORX_ECATCH(packed).error());
    else
        appendVonkFileUploadTask(*packed);
}

void HalvaneSampleDataUploadTask::Private::appendVonkFileUploadTask(
    const HalvaneFileUploadParameters& upload) {
    auto task = std::make_unique<HalvaneVonkFileUploadTask>(upload, nullptr);
    task->setHeld(room);
    const double scale = double(maxProgress) / double(task->maxProgress());
    connect(task.get(), &BaseTask::progress, q, [this, scale, inner = task.get()] {
        currentProgress = int(inner->currentProgress() * scale);
        Q_EMIT q->progress(currentProgress, maxProgress);
    });
    q->execSubtask(std::move(task),
                   [this](HalvaneVonkFileUploadTask* inner) { q->setUploadedFile(inner->uploadedFile()); });
}

//! Whoever keeps the finished task keeps the packed file, and nobody is to wait for that. A group deletes it
//! before a timer fires; in a wait outside of an event loop it is not deleted before the end of that.
void HalvaneSampleDataUploadTask::Private::onIdle() {
    auto* const timer = new QTimer(q);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, q, [this] {
        if (room)
            room->release();
    });
    timer->start(0);
}

} // namespace orx
