#include "HalvaneDownloadFileTask.h"

#include "ContentCheck.h"
#include "DelayStepTask.h"
#include "DownloadBody.h"
#include "DownloadNames.h"
#include "HalvaneAcknowledgedContents.h"
#include "HalvaneConnection.h"
#include "HalvaneContentCall.h"
#include "HalvaneDownloadVonkTask.h"
#include "HalvaneHistory.h"
#include "HalvaneItemTasks.h"
#include "HalvaneTransferMonitor.h"
#include "PartialFile.h"
#include "TransferProgress.h"
#include "WorkerStepTask.h"

#include <FileTypes.h>
#include <HalvaneError.h>
#include <NetworkError.h>
#include <RetryPolicy.h>

#include <QPointer>
#include <QRandomGenerator>

#include <algorithm>

namespace orx {
namespace {

// One job of a worker hashes so much of a partial file, so that others get their turn.
constexpr qint64 hashedAtATime = 64 * 1024 * 1024;

RetryPolicy policyOfTransfers() {
    RetryPolicy policy;
    policy.maxAttempts = 7;
    return policy;
}

} // namespace

class HalvaneDownloadFileTask::Private {
public:
    Private(HalvaneDownloadFileTask* task, const HalvaneFileDownloadParameters& downloadParameters)
        : q(task), parameters(downloadParameters) {}
    ~Private() {
        if (body)
            body->detach();
    }

    QString targetName() const;
    Error checkParameters() const;

    void openPartial();
    void findVersion();
    void askForVersion();
    void takeVersion(const HalvaneFileVersion& found);
    //! True when what a listing said turned out not to hold, and the server is asked instead.
    bool doubtListing();
    void onVersions(const QList<HalvaneFileVersion>& versions);
    void compareTarget(const std::shared_ptr<ContentCheck>& check);
    void onTargetIsSame();
    void prepareRoom();
    void hashWhatIsThere();
    void fetch();
    void write();
    void onWritten();
    void onCallEnded(HalvaneContentCall* ended);
    void onBodyEnded();
    void tryAgain();
    void publish();
    void onPublished(const QString& warning);
    void onPublishFailed(const Error& error);
    void fail(const Error& error);
    //! Runs a job on the partial file; what is there of it is known afterwards.
    void runOnPartial(const QString& name, std::function<Error(PartialFile&)> job, std::function<void()> next,
                      std::function<void(const Error&)> onFailure = {});
    //! False when who heard of it destroyed the task, and this object with it.
    bool showProgress();

    HalvaneDownloadFileTask* q;
    HalvaneFileDownloadParameters parameters;
    HalvaneFileVersion version;
    //! The version is what a listing of this process said, not an answer to this task.
    bool isFromListing = false;
    bool published = false;

    std::shared_ptr<PartialFile> partial;
    //! Bytes that are in the partial file, as of the last job.
    qint64 arrived = 0;
    //! Those that were there before this task.
    qint64 resumed = 0;

    HalvaneContentCall* call = nullptr;
    std::shared_ptr<DownloadBody> body;
    bool bodyStartsOver = false;
    bool writing = false;
    Error callError;
    NetworkReply callReply;
    qint64 arrivedBeforeCall = 0;
    int attempts = 0;
    Error failure;

    TransferProgress progress{0};
    std::shared_ptr<HalvaneTransfer> transfer;
};

HalvaneDownloadFileTask::HalvaneDownloadFileTask(const HalvaneFileDownloadParameters& parameters,
                                                 QObject* parent)
    : HalvaneComplexTask(QStringLiteral("DownloadFile(%1)")
                             .arg(parameters.reference ? parameters.reference->displayText() : QString()),
                         parent)
    , d(std::make_unique<Private>(this, parameters)) {}

HalvaneDownloadFileTask::~HalvaneDownloadFileTask() = default;

QString HalvaneDownloadFileTask::targetPath() const {
    return d->parameters.targetDir.absoluteFilePath(d->targetName());
}

QString HalvaneDownloadFileTask::sha256() const {
    return d->published ? d->version.sha256 : QString();
}

qint64 HalvaneDownloadFileTask::size() const {
    return d->published ? d->version.size : 0;
}

int HalvaneDownloadFileTask::version() const {
    return d->published ? d->version.version : 0;
}

Error HalvaneDownloadFileTask::initialize() {
    ORX_RETURN_ON_ERROR(d->checkParameters());
    const QPointer<HalvaneDownloadFileTask> guard(this);
    Q_EMIT progressInitiated(TransferProgress::maximum);
    if (guard && isRunning())
        d->openPartial();
    return Error();
}

Error HalvaneDownloadFileTask::doFinish() {
    if (!hasError()) {
        d->progress.complete();
        if (!d->showProgress())
            return Error();
    }
    d->partial.reset();
    d->transfer.reset();
    return HalvaneComplexTask::doFinish();
}

QString HalvaneDownloadFileTask::Private::targetName() const {
    if (!parameters.targetName.isEmpty() || !parameters.reference)
        return parameters.targetName;
    return parameters.reference->name();
}

Error HalvaneDownloadFileTask::Private::checkParameters() const {
    if (!parameters.reference)
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument, tr("No file was given to be downloaded.")));
    return ORX_ECATCH(DownloadNames::check(targetName()));
}

void HalvaneDownloadFileTask::Private::openPartial() {
    const int fileId = parameters.reference->id();
    partial = std::make_shared<PartialFile>(PartialFile::Location{
        parameters.targetDir.absolutePath(), targetName(),
        DownloadNames::partialName(targetName(), fileId, parameters.reference->version()),
        parameters.overwrite || parameters.keepSame, !parameters.isIntermediate});
    runOnPartial(
        QStringLiteral("OpenPartialFile"), [](PartialFile& file) { return file.open(); },
        [this] { findVersion(); });
}

//! A listing said it all as a rule. When no content has to be asked for, the server must say itself that the
//! file is still there to be had.
void HalvaneDownloadFileTask::Private::findVersion() {
    const auto stated =
        HalvaneAcknowledgedContents::findStated(HalvaneConnection::instance().serverKey(),
                                                parameters.reference->id(), parameters.reference->version());
    if (!stated || arrived >= stated->size) {
        askForVersion();
        return;
    }
    isFromListing = true;
    HalvaneFileVersion listed;
    listed.version = parameters.reference->version();
    listed.size = stated->size;
    listed.sha256 = QString::fromLatin1(stated->sha256);
    listed.sourceModifiedAt = stated->sourceModifiedAt;
    takeVersion(listed);
}

bool HalvaneDownloadFileTask::Private::doubtListing() {
    if (!std::exchange(isFromListing, false))
        return false;
    HalvaneAcknowledgedContents::forget(HalvaneConnection::instance().serverKey(), parameters.reference->id(),
                                        parameters.reference->version());
    askForVersion();
    return true;
}

void HalvaneDownloadFileTask::Private::askForVersion() {
    q->execSubtask(std::make_unique<HalvaneGetFileVersionsTask>(parameters.reference->id()),
                   [this](HalvaneGetFileVersionsTask* task) { onVersions(task->versions()); });
}

void HalvaneDownloadFileTask::Private::onVersions(const QList<HalvaneFileVersion>& versions) {
    const int wanted = parameters.reference->version();
    const auto found = std::find_if(versions.begin(), versions.end(),
                                    [wanted](const auto& candidate) { return candidate.version == wanted; });
    if (found == versions.end()) {
        fail(halvaneError(HalvaneServerErrorCode::NotFound,
                          tr("There is no version %1 of %2 on the server.")
                              .arg(QString::number(wanted), parameters.reference->displayText())));
        return;
    }
    takeVersion(*found);
}

void HalvaneDownloadFileTask::Private::takeVersion(const HalvaneFileVersion& found) {
    version = found;
    progress.startOver(version.size);
    transfer = HalvaneTransferMonitor::begin(version.size);
    if (parameters.keepSame)
        compareTarget(
            std::make_shared<ContentCheck>(q->targetPath(), version.size, version.sha256.toLatin1()));
    else
        prepareRoom();
}

void HalvaneDownloadFileTask::Private::compareTarget(const std::shared_ptr<ContentCheck>& check) {
    const auto isSame = std::make_shared<std::optional<bool>>();
    runOnPartial(
        QStringLiteral("CompareTarget"),
        [check, isSame](PartialFile&) {
            *isSame = check->isSame(hashedAtATime);
            return Error();
        },
        [this, check, isSame] {
            if (!*isSame)
                compareTarget(check);
            else if (**isSame)
                onTargetIsSame();
            else
                prepareRoom();
        });
}

void HalvaneDownloadFileTask::Private::onTargetIsSame() {
    progress.addResumed(version.size);
    if (showProgress())
        onPublished(QString());
}

void HalvaneDownloadFileTask::Private::prepareRoom() {
    runOnPartial(
        QStringLiteral("PreparePartialFile"),
        [size = version.size](PartialFile& file) -> Error {
            if (file.size() > size)
                ORX_RETURN_ON_ERROR(file.startOver());
            return ORX_ECATCH(file.checkRoom(size));
        },
        [this] { hashWhatIsThere(); });
}

void HalvaneDownloadFileTask::Private::hashWhatIsThere() {
    const auto done = std::make_shared<bool>(false);
    runOnPartial(
        QStringLiteral("HashPartialFile"),
        [done](PartialFile& file) -> Error {
            Result<bool> all = file.hashMore(hashedAtATime);
            if (!all)
                return ORX_ECATCH(all).error();
            *done = *all;
            return Error();
        },
        [this, done] {
            if (!*done) {
                hashWhatIsThere();
                return;
            }
            resumed = arrived;
            progress.addResumed(resumed);
            if (showProgress())
                fetch();
        });
}

void HalvaneDownloadFileTask::Private::fetch() {
    if (arrived == version.size) {
        publish();
        return;
    }
    arrivedBeforeCall = arrived;
    body = std::make_shared<DownloadBody>(
        DownloadBody::Expected{arrived, version.size, version.sha256.toLatin1()}, [this] { write(); });
    bodyStartsOver = false;
    const int fileId = parameters.reference->id();
    const QString tag = QStringLiteral("\"%1-%2-%3\"")
                            .arg(QString::number(fileId), QString::number(version.version), version.sha256);
    auto content = std::make_unique<HalvaneContentCall>(
        HalvaneContentCall::Content{fileId, version.version, arrived, tag.toLatin1()}, body);
    call = content.get();
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::move(content)),
        [this](BaseTask* ended) { onCallEnded(static_cast<HalvaneContentCall*>(ended)); },
        [this](BaseTask* ended) { onCallEnded(static_cast<HalvaneContentCall*>(ended)); });
}

//! Writes what has come, one job at a time; called when a block is complete, when a job or the body ended.
void HalvaneDownloadFileTask::Private::write() {
    if (writing || failure.hasError() || q->isCanceled())
        return;
    const QList<DownloadBody::Block> blocks = body->takeBlocks(call == nullptr);
    if (blocks.isEmpty()) {
        if (!call)
            onBodyEnded();
        return;
    }
    writing = true;
    const bool startOver = body->startsOver() && !std::exchange(bodyStartsOver, true);
    runOnPartial(
        QStringLiteral("WritePartialFile"),
        [blocks, startOver](PartialFile& file) -> Error {
            if (startOver)
                ORX_RETURN_ON_ERROR(file.startOver());
            for (const DownloadBody::Block& block : blocks)
                ORX_RETURN_ON_ERROR(file.append(*block));
            return Error();
        },
        [this] { onWritten(); });
    if (call && body->takeResumable())
        call->resumeBody();
}

void HalvaneDownloadFileTask::Private::onWritten() {
    writing = false;
    progress.setUnderWay(0, qMax(qint64(0), arrived - resumed));
    if (showProgress())
        write();
}

void HalvaneDownloadFileTask::Private::onCallEnded(HalvaneContentCall* ended) {
    call = nullptr;
    if (q->isCanceled())
        return;
    if (failure.hasError()) {
        q->finish(ORX_ECATCH(failure));
        return;
    }
    callReply = ended->failedReply();
    callError = body->error().hasError() ? body->error() : ended->error();
    write();
}

void HalvaneDownloadFileTask::Private::onBodyEnded() {
    if (!callError.hasError() && arrived == version.size) {
        publish();
        return;
    }
    if (!callError.hasError()) {
        callError = Error(ErrorDomain::Network, int(NetworkErrorCode::ConnectionLost),
                          tr("The connection ended before the file was complete."));
        callReply.error = callError;
    }
    tryAgain();
}

//! Goes on from where it stopped. Attempts that brought something on do not count.
void HalvaneDownloadFileTask::Private::tryAgain() {
    if (body->error().hasError() && doubtListing())
        return;
    attempts = arrived > arrivedBeforeCall ? 1 : attempts + 1;
    const double jitter = QRandomGenerator::global()->generateDouble();
    const auto delay = body->error().hasError()
                           ? std::nullopt
                           : policyOfTransfers().delayAfter(NetworkRequest(), callReply, attempts, jitter);
    if (!delay) {
        fail(callError);
        return;
    }
    q->execSubtask(std::make_unique<DelayStepTask>(*delay), [this](DelayStepTask*) { fetch(); });
}

void HalvaneDownloadFileTask::Private::publish() {
    const PartialFile::Expected whole{version.size, version.sha256.toLatin1(), version.sourceModifiedAt};
    const auto warning = std::make_shared<QString>();
    runOnPartial(
        QStringLiteral("PublishFile"),
        [whole, warning, path = q->targetPath(), reference = parameters.reference,
         mayReplace = parameters.mayReplace,
         isRecorded = !parameters.isIntermediate](PartialFile& file) -> Error {
            ORX_RETURN_ON_ERROR(file.publish(whole, mayReplace));
            if (isRecorded)
                *warning = HalvaneHistory()
                               .setFileVersion(path, reference->id(), reference->version())
                               .errorMessage();
            return Error();
        },
        [this, warning] { onPublished(*warning); }, [this](const Error& error) { onPublishFailed(error); });
}

void HalvaneDownloadFileTask::Private::onPublished(const QString& warning) {
    published = true;
    HalvaneAcknowledgedContents::record(HalvaneConnection::instance().serverKey(), parameters.reference->id(),
                                        version.version, version.sha256.toLatin1());
    if (!warning.isEmpty())
        q->addWarning(tr("The file \"%1\" was downloaded, but that could not be recorded here: %2")
                          .arg(q->targetPath(), warning));
}

//! What an earlier run left may have been of another content: then the whole is fetched, once.
void HalvaneDownloadFileTask::Private::onPublishFailed(const Error& error) {
    if (error.is(ErrorCode::ChecksumMismatch) && std::exchange(resumed, 0) > 0) {
        arrived = 0;
        fetch();
        return;
    }
    if (error.is(ErrorCode::ChecksumMismatch) && doubtListing())
        return;
    fail(error);
}

//! Ends the task when the call has ended.
void HalvaneDownloadFileTask::Private::fail(const Error& error) {
    failure = error;
    if (call)
        call->cancel();
    else
        q->finish(ORX_ECATCH(failure));
}

void HalvaneDownloadFileTask::Private::runOnPartial(const QString& name,
                                                    std::function<Error(PartialFile&)> job,
                                                    std::function<void()> next,
                                                    std::function<void(const Error&)> onFailure) {
    const auto size = std::make_shared<qint64>(0);
    const auto run = [file = partial, work = std::move(job), size]() -> Error {
        Error error = work(*file);
        *size = file->size();
        return error;
    };
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<WorkerStepTask>(name, run)),
        [this, size, goOn = std::move(next)](BaseTask*) {
            arrived = *size;
            goOn();
        },
        [this, handle = std::move(onFailure)](BaseTask* step) {
            if (q->isCanceled())
                return;
            if (handle)
                handle(step->error());
            else
                fail(step->error());
        });
}

bool HalvaneDownloadFileTask::Private::showProgress() {
    const QPointer<HalvaneDownloadFileTask> guard(q);
    if (transfer) {
        transfer->setResumed(progress.resumed());
        transfer->setDone(progress.done());
    }
    if (const std::optional<int> percent = progress.takePercent())
        Q_EMIT q->progress(*percent, TransferProgress::maximum);
    return bool(guard);
}

std::unique_ptr<Task>
HalvaneDownloadFileTaskCreator::create(const HalvaneFileDownloadParameters& parameters) {
    HalvaneFileDownloadParameters ofHandler = parameters;
    ofHandler.isIntermediate = true;
    ofHandler.keepSame = true;
    return createUnpacking(ofHandler);
}

std::unique_ptr<Task>
HalvaneDownloadFileTaskCreator::createUnpacking(const HalvaneFileDownloadParameters& parameters) {
    if (parameters.reference && FileTypes::fileType(parameters.reference->name()) == FileTypes::VONK)
        return std::make_unique<HalvaneDownloadVonkTask>(parameters);
    return std::make_unique<HalvaneDownloadFileTask>(parameters);
}

} // namespace orx
