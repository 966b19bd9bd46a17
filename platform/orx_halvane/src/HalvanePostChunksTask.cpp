#include "ChunkReader.h"
#include "ChunkSchedule.h"
#include "HalvaneTransferMonitor.h"
#include "HalvaneUploadCalls.h"
#include "HalvaneUploadSessions.h"
#include "HalvaneUploadTasks.h"
#include "JournalHold.h"
#include "TransferProgress.h"
#include "WorkerStepTask.h"

#include <HalvaneError.h>

#include <QPointer>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace orx {
namespace {

// Two requests keep the line busy over a round trip; one chunk waits while another is read.
constexpr ChunkSchedule::Limits limitsOfSchedule{2, 4, 3};
// What all buffers together may take when the server wants long chunks; two are the least that works.
constexpr qint64 memoryOfBuffers = 32 * 1024 * 1024;

ChunkSchedule::Limits limitsFor(const ChunkPlan& plan) {
    ChunkSchedule::Limits limits = limitsOfSchedule;
    limits.held = int(qBound(qint64(2), memoryOfBuffers / plan.chunkSize(), qint64(limits.held)));
    return limits;
}

} // namespace

class HalvanePostChunksTask::Private {
public:
    Private(HalvanePostChunksTask* task, const Input& taskInput, QFile* taskFile)
        : q(task), input(taskInput), file(taskFile), progress(taskInput.fileSize) {}
    ~Private();

    void takeSession();
    void giveUpSession();
    Error takeDescriptor();
    Error begin();
    void askServer();
    Error beginFlow(qint64 size, qint64 chunkSize, const QHash<int, QByteArray>& received);

    void goOn();
    void read();
    void onRead(int index, ChunkReader::Chunk chunk);
    void readEmpty();
    void send(int index);
    void onSent(int index);
    void onRefused(BaseTask* call, int index);
    void sendContentHash();

    void run(std::unique_ptr<BaseTask> step, Continuation onSuccess, Continuation onFailure = {});
    void fail(const Error& error);
    void concludeFailure();
    void abandon();
    void forgetRecord();
    //! False when who heard of it destroyed the task, and this object with it.
    bool showProgress();

    HalvanePostChunksTask* q;
    Input input;
    QFile* file;
    std::shared_ptr<const HalvaneUploadSession> session;
    JournalHold hold;
    int descriptor = -1;

    std::shared_ptr<ChunkReader> reader;
    std::shared_ptr<BufferPool> pool;
    std::optional<ChunkPlan> plan;
    std::optional<ChunkSchedule> schedule;
    QHash<int, ChunkReader::Chunk> held;
    QByteArray contentSha256;

    TransferProgress progress;
    std::shared_ptr<HalvaneTransfer> transfer;
    //! Reading and sending; a failure cancels them and waits for them.
    QList<BaseTask*> running;
    Error failure;
    bool concluding = false;
};

HalvanePostChunksTask::Private::~Private() {
    if (descriptor >= 0)
        ::close(descriptor);
    if (hold.rowId() >= 0) // destroyed while running
        HalvaneUploadSessions::take(input.uploadId);
}

HalvanePostChunksTask::HalvanePostChunksTask(const Input& input, QFile* file, QObject* parent)
    : HalvaneComplexTask(QStringLiteral("PostChunks(%1)").arg(input.localPath), parent)
    , d(std::make_unique<Private>(this, input, file)) {}

HalvanePostChunksTask::~HalvanePostChunksTask() = default;

Error HalvanePostChunksTask::initialize() {
    const QPointer<HalvanePostChunksTask> guard(this);
    Q_EMIT progressInitiated(TransferProgress::maximum);
    if (!guard || !isRunning())
        return Error();
    d->takeSession();
    ORX_RETURN_ON_ERROR(d->takeDescriptor());
    return ORX_ECATCH(d->begin());
}

Error HalvanePostChunksTask::doFinish() {
    if (!hasError()) {
        d->progress.complete();
        if (!d->showProgress())
            return Error();
    }
    if (hasError()) { // also when who heard of the end cancelled it
        d->giveUpSession();
    } else {
        HalvaneUploadSessions::setContentSha256(d->input.uploadId, d->contentSha256);
        d->hold.dismiss(); // the finalisation holds it from here
    }
    d->transfer.reset();
    d->held.clear();
    d->reader.reset(); // with its descriptor: whoever waits without an event loop keeps the task for long
    d->pool.reset();
    return HalvaneComplexTask::doFinish();
}

void HalvanePostChunksTask::Private::takeSession() {
    session = HalvaneUploadSessions::find(input.uploadId);
    if (session)
        hold = JournalHold(session->record.rowId);
}

//! A later run goes on with what the server has.
void HalvanePostChunksTask::Private::giveUpSession() {
    if (!session)
        takeSession(); // cancelled before it began
    HalvaneUploadSessions::take(input.uploadId);
    hold.release();
}

Error HalvanePostChunksTask::Private::takeDescriptor() {
    if (!file || !file->isOpen() || file->handle() < 0)
        return ORX_ECATCH(Error(ErrorCode::FileNotReadable,
                                tr("Could not read file \"%1\": it is not open.").arg(input.localPath)));
    descriptor = ::fcntl(file->handle(), F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0)
        return ORX_ECATCH(
            Error::fromErrno(errno, tr("Could not keep the file \"%1\" open").arg(input.localPath)));
    return Error();
}

Error HalvanePostChunksTask::Private::begin() {
    transfer = HalvaneTransferMonitor::begin(input.fileSize);
    if (!session) {
        askServer();
        return Error();
    }
    if (session->finalized) {
        progress.addResumed(input.fileSize);
        return Error();
    }
    return ORX_ECATCH(beginFlow(session->size, session->chunkSize, session->received));
}

void HalvanePostChunksTask::Private::askServer() {
    run(std::make_unique<HalvaneGetUploadCall>(input.uploadId), [this](BaseTask* call) {
        const HalvaneUploadReply& upload = static_cast<HalvaneGetUploadCall*>(call)->upload();
        if (const Error error = beginFlow(upload.size, upload.chunkSize, upload.received); error.hasError())
            fail(error);
    });
}

Error HalvanePostChunksTask::Private::beginFlow(qint64 size, qint64 chunkSize,
                                                const QHash<int, QByteArray>& received) {
    if (size != input.fileSize)
        return ORX_ECATCH(Error(
            ErrorCode::FileChanged,
            tr("The upload of the file \"%1\" was opened for %2 bytes, but %3 are to be sent. Start the "
               "upload again.")
                .arg(input.localPath, QString::number(size), QString::number(input.fileSize))));
    Result<ChunkPlan> made = ChunkPlan::create(size, chunkSize);
    if (!made)
        return ORX_ECATCH(made).error();
    plan = *made;
    const ChunkSchedule::Limits limits = limitsFor(*plan);
    schedule.emplace(*plan, received, limits);
    pool = std::make_shared<BufferPool>(qMin(chunkSize, size), limits.held);
    const auto modifiedNs = session ? std::optional<qint64>(session->record.modifiedNs) : std::nullopt;
    reader = std::make_shared<ChunkReader>(std::exchange(descriptor, -1), input.localPath, *plan, modifiedNs);
    if (plan->count() == 0)
        readEmpty();
    else
        goOn();
    return Error();
}

//! Starts whatever can be done next; called after each step.
void HalvanePostChunksTask::Private::goOn() {
    if (schedule->mayRead())
        read();
    while (const std::optional<int> index = failure.hasError() ? std::nullopt : schedule->takeNextToSend())
        send(*index);
    if (!failure.hasError() && schedule->needsContentHashAlone())
        sendContentHash();
}

void HalvanePostChunksTask::Private::read() {
    const int index = schedule->startReading();
    const auto chunk = std::make_shared<ChunkReader::Chunk>();
    const auto job = [chunk, source = reader, buffers = pool]() -> Error {
        Result<ChunkReader::Chunk> next = source->readNext(*buffers);
        if (!next)
            return ORX_ECATCH(next).error();
        *chunk = *std::move(next);
        return Error();
    };
    run(std::make_unique<WorkerStepTask>(QStringLiteral("ReadChunk(%1)").arg(index), job),
        [this, index, chunk](BaseTask*) { onRead(index, std::move(*chunk)); });
}

void HalvanePostChunksTask::Private::onRead(int index, ChunkReader::Chunk chunk) {
    if (plan->isLast(index))
        contentSha256 = chunk.contentSha256;
    if (schedule->onRead(chunk.checksum) == ChunkSchedule::Verdict::Send)
        held.emplace(index, std::move(chunk));
    else
        progress.addResumed(plan->length(index));
    if (showProgress())
        goOn();
}

void HalvanePostChunksTask::Private::readEmpty() {
    const auto sha256 = std::make_shared<QByteArray>();
    const auto job = [sha256, source = reader]() -> Error {
        Result<QByteArray> digest = source->readEmpty();
        if (!digest)
            return ORX_ECATCH(digest).error();
        *sha256 = *std::move(digest);
        return Error();
    };
    run(std::make_unique<WorkerStepTask>(QStringLiteral("ReadEmptyFile"), job), [this, sha256](BaseTask*) {
        contentSha256 = *sha256;
        goOn();
    });
}

void HalvanePostChunksTask::Private::send(int index) {
    const ChunkReader::Chunk& chunk = *held.constFind(index);
    // The request ends with the subtask, and that before this object.
    const auto onBytesSent = [this, index](qint64 bytes) {
        progress.setUnderWay(index, bytes);
        showProgress();
    };
    run(
        std::make_unique<HalvanePutChunkCall>(HalvanePutChunkCall::Chunk{input.uploadId, index, chunk.data,
                                                                         chunk.checksum, chunk.contentSha256},
                                              onBytesSent),
        [this, index](BaseTask*) { onSent(index); },
        [this, index](BaseTask* call) { onRefused(call, index); });
}

void HalvanePostChunksTask::Private::onSent(int index) {
    held.remove(index);
    progress.settle(index, plan->length(index));
    schedule->onSent(index);
    if (showProgress())
        goOn();
}

void HalvanePostChunksTask::Private::onRefused(BaseTask* call, int index) {
    progress.settle(index, 0);
    const bool damaged = isHalvaneError(call->error(), HalvaneServerErrorCode::ChecksumMismatch);
    if (damaged && schedule->onRefused(index))
        goOn();
    else
        fail(call->error());
}

void HalvanePostChunksTask::Private::sendContentHash() {
    run(std::make_unique<HalvanePutContentHashCall>(input.uploadId, contentSha256),
        [this](BaseTask*) { schedule->onContentHashSent(); });
}

//! Runs one step; its failure ends the task unless \a onFailure is there to handle it.
void HalvanePostChunksTask::Private::run(std::unique_ptr<BaseTask> step, Continuation onSuccess,
                                         Continuation onFailure) {
    running.append(step.get());
    q->execSubtask(
        std::move(step),
        [this, next = std::move(onSuccess)](BaseTask* ended) {
            running.removeOne(ended);
            if (failure.hasError())
                concludeFailure();
            else
                next(ended);
        },
        [this, handle = std::move(onFailure)](BaseTask* ended) {
            running.removeOne(ended);
            if (q->isCanceled())
                return;
            if (failure.hasError())
                concludeFailure();
            else if (handle)
                handle(ended);
            else
                fail(ended->error());
        });
}

//! Stops what runs; the task ends when all of it has ended.
void HalvanePostChunksTask::Private::fail(const Error& error) {
    failure = error;
    const QPointer<HalvanePostChunksTask> guard(q);
    for (BaseTask* const step : QList<BaseTask*>(running)) {
        if (guard && running.contains(step))
            step->cancel();
    }
    if (guard)
        concludeFailure();
}

void HalvanePostChunksTask::Private::concludeFailure() {
    if (!running.isEmpty() || std::exchange(concluding, true))
        return;
    held.clear();
    if (failure.is(ErrorCode::FileChanged))
        abandon();
    else
        q->finish(ORX_ECATCH(failure));
}

//! What is at the server is of no use any more.
void HalvanePostChunksTask::Private::abandon() {
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<HalvaneAbandonUploadCall>(input.uploadId)),
        [this](BaseTask*) { forgetRecord(); },
        [this](BaseTask* call) {
            if (q->isCanceled())
                return;
            if (!isHalvaneError(call->error(), HalvaneServerErrorCode::UploadGone) &&
                !isHalvaneError(call->error(), HalvaneServerErrorCode::NotFound))
                q->addWarning(tr("The server keeps what it has of the file \"%1\" until it expires: %2")
                                  .arg(input.localPath, call->error().errorMessage()));
            forgetRecord();
        });
}

void HalvanePostChunksTask::Private::forgetRecord() {
    HalvaneUploadSessions::take(input.uploadId);
    if (hold.rowId() < 0) {
        q->finish(ORX_ECATCH(failure));
        return;
    }
    const auto job = [rowId = hold.rowId()] { return HalvaneUploadJournal::remove(rowId); };
    q->execSubtask(
        std::unique_ptr<BaseTask>(std::make_unique<WorkerStepTask>(QStringLiteral("ForgetUpload"), job)),
        [this](BaseTask*) {
            hold.dismiss();
            q->finish(ORX_ECATCH(failure));
        },
        [this](BaseTask* step) {
            if (q->isCanceled())
                return;
            q->addWarning(step->error().errorMessage());
            q->finish(ORX_ECATCH(failure));
        });
}

bool HalvanePostChunksTask::Private::showProgress() {
    const QPointer<HalvanePostChunksTask> guard(q);
    if (transfer) {
        transfer->setResumed(progress.resumed());
        transfer->setDone(progress.done());
    }
    if (const std::optional<int> percent = progress.takePercent())
        Q_EMIT q->progress(*percent, TransferProgress::maximum);
    return bool(guard);
}

} // namespace orx
