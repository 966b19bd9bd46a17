#include "HalvaneItemTasks.h"
#include "HalvaneUploadCalls.h"
#include "HalvaneUploadSessions.h"
#include "HalvaneUploadTasks.h"
#include "JournalHold.h"
#include "WorkerStepTask.h"

#include <HalvaneError.h>

#include <QPointer>

namespace orx {

class HalvaneInitUploadTask::Private {
public:
    Private(HalvaneInitUploadTask* task, const HalvaneFileUploadParameters& uploadParameters)
        : q(task), parameters(uploadParameters) {}

    void prepare();
    void onPrepared(const HalvaneUploadRecord& found);
    void askServer();
    void onState(const HalvaneUploadState& state);
    void checkCommitted(const HalvaneApiReference& file);
    void replaceRecord();
    void open();
    void onOpened(const HalvaneUploadReply& upload);
    void onCallFailed(BaseTask* call, bool recordIsVoid);
    void forgetRecord(const Error& reason);
    void succeed(int id, const HalvaneUploadReply& upload, bool finalized);
    QJsonObject requestBody() const;

    HalvaneInitUploadTask* q;
    HalvaneFileUploadParameters parameters;
    HalvaneUploadRecord record;
    JournalHold hold;
    int uploadId = -1;
    // Each record that the server does not know is replaced; there cannot be many of one file.
    int replacementsLeft = 32;
};

namespace {

//! What a worker found or made in the journal.
struct Prepared {
    HalvaneUploadRecord record;
    JournalHold hold;
};

//! The request itself cannot be carried out, however often it is repeated.
bool isRefusal(const Error& error) {
    return isHalvaneError(error, HalvaneServerErrorCode::BadRequest) ||
           isHalvaneError(error, HalvaneServerErrorCode::NotFound) ||
           isHalvaneError(error, HalvaneServerErrorCode::NoPrivilege) ||
           isHalvaneError(error, HalvaneServerErrorCode::InvalidName);
}

//! The file that an upload made is not there any more, for this user.
bool isOutOfReach(const Error& error) {
    return isHalvaneError(error, HalvaneServerErrorCode::NotFound) ||
           isHalvaneError(error, HalvaneServerErrorCode::NoPrivilege);
}

Error acquire(const HalvaneUploadRecord& wanted, Prepared& prepared) {
    JournalHold::awaitReleases();
    Result<HalvaneUploadRecord> record = HalvaneUploadJournal::acquire(wanted);
    if (!record)
        return ORX_ECATCH(record).error();
    prepared.record = *std::move(record);
    prepared.hold = JournalHold(prepared.record.rowId);
    return Error();
}

Error prepareRecord(const HalvaneFileUploadParameters& parameters, Prepared& prepared) {
    Result<HalvaneUploadRecord> wanted = HalvaneUploadJournal::describe(parameters);
    if (!wanted)
        return ORX_ECATCH(wanted).error();
    if (wanted->size != parameters.fileSize)
        return ORX_ECATCH(Error(ErrorCode::FileChanged,
                                HalvaneInitUploadTask::tr(
                                    "The file \"%1\" has %2 bytes, but had %3 when its upload was prepared. "
                                    "Start the upload again when nothing writes to it any more.")
                                    .arg(parameters.localPath, QString::number(wanted->size),
                                         QString::number(qMax(qint64(0), parameters.fileSize)))));
    return ORX_ECATCH(acquire(*wanted, prepared));
}

} // namespace

HalvaneInitUploadTask::HalvaneInitUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent)
    : HalvaneComplexTask(QStringLiteral("InitUpload(%1)").arg(parameters.localPath), parent)
    , d(std::make_unique<Private>(this, parameters)) {}

HalvaneInitUploadTask::~HalvaneInitUploadTask() = default;

int HalvaneInitUploadTask::uploadId() const {
    return d->uploadId;
}

Error HalvaneInitUploadTask::initialize() {
    d->prepare();
    return Error();
}

Error HalvaneInitUploadTask::doFinish() {
    if (hasError())
        d->hold.release();
    return HalvaneComplexTask::doFinish();
}

void HalvaneInitUploadTask::Private::prepare() {
    const auto prepared = std::make_shared<Prepared>();
    const auto wanted = std::make_shared<const HalvaneFileUploadParameters>(parameters);
    const auto job = [prepared, wanted] { return prepareRecord(*wanted, *prepared); };
    q->execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("PrepareUpload"), job),
                   [this, prepared](WorkerStepTask*) {
                       hold = std::move(prepared->hold);
                       onPrepared(prepared->record);
                   });
}

void HalvaneInitUploadTask::Private::onPrepared(const HalvaneUploadRecord& found) {
    record = found;
    if (record.uploadId >= 0)
        askServer();
    else
        open();
}

void HalvaneInitUploadTask::Private::askServer() {
    q->execSubtask(
        std::make_unique<HalvaneGetUploadByKeyCall>(record.idempotencyKey),
        [this](HalvaneGetUploadByKeyCall* call) { onState(call->state()); },
        [this](BaseTask* call) {
            onCallFailed(call, isHalvaneError(call->error(), HalvaneServerErrorCode::NotFound) ||
                                   isHalvaneError(call->error(), HalvaneServerErrorCode::UploadGone));
        });
}

void HalvaneInitUploadTask::Private::onState(const HalvaneUploadState& state) {
    if (state.finalized)
        checkCommitted(state.file.reference);
    else if (state.upload.size != record.size)
        replaceRecord();
    else
        succeed(state.upload.uploadId, state.upload, false);
}

void HalvaneInitUploadTask::Private::checkCommitted(const HalvaneApiReference& file) {
    q->execSubtask(
        std::make_unique<HalvaneGetFileMetadataTask>(file.fileId),
        [this, file](HalvaneGetFileMetadataTask* call) {
            if (call->fileItem().lastVersion() == file.version)
                succeed(record.uploadId, HalvaneUploadReply(), true);
            else
                replaceRecord();
        },
        [this](BaseTask* call) { onCallFailed(call, isOutOfReach(call->error())); });
}

void HalvaneInitUploadTask::Private::onCallFailed(BaseTask* call, bool recordIsVoid) {
    if (q->isCanceled())
        return;
    if (recordIsVoid && replacementsLeft > 0)
        replaceRecord();
    else
        q->finish(ORX_ECATCH(call->error()));
}

void HalvaneInitUploadTask::Private::replaceRecord() {
    --replacementsLeft;
    const auto prepared = std::make_shared<Prepared>();
    const auto job = [prepared, old = record]() -> Error {
        ORX_RETURN_ON_ERROR(HalvaneUploadJournal::remove(old.rowId));
        return ORX_ECATCH(acquire(old, *prepared));
    };
    q->execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("ReplaceUploadRecord"), job),
                   [this, prepared](WorkerStepTask*) {
                       hold.dismiss();
                       hold = std::move(prepared->hold);
                       onPrepared(prepared->record);
                   });
}

QJsonObject HalvaneInitUploadTask::Private::requestBody() const {
    // The time of a packed copy says nothing about the measurement.
    const QDateTime modified = QDateTime::fromMSecsSinceEpoch(record.modifiedNs / 1'000'000, Qt::UTC);
    return {{QStringLiteral("name"), record.targetFileName},
            {QStringLiteral("size"), record.size},
            {QStringLiteral("target_id"), record.targetId},
            {QStringLiteral("target_type"), int(record.targetItemType)},
            {QStringLiteral("source_modified_at"),
             record.temporary ? QJsonValue() : modified.toString(Qt::ISODateWithMs)}};
}

void HalvaneInitUploadTask::Private::open() {
    q->execSubtask(
        std::make_unique<HalvaneOpenUploadCall>(requestBody(), record.idempotencyKey),
        [this](HalvaneOpenUploadCall* call) { onOpened(call->upload()); },
        [this](BaseTask* call) {
            if (!q->isCanceled() && isRefusal(call->error()))
                return forgetRecord(call->error());
            onCallFailed(call, isHalvaneError(call->error(), HalvaneServerErrorCode::IdempotencyMismatch) ||
                                   isHalvaneError(call->error(), HalvaneServerErrorCode::UploadGone));
        });
}

//! Nothing is open under the record's key: it would only be left over.
void HalvaneInitUploadTask::Private::forgetRecord(const Error& reason) {
    q->execSubtask(
        std::make_unique<WorkerStepTask>(
            QStringLiteral("ForgetUpload"),
            [rowId = hold.rowId()] { return HalvaneUploadJournal::remove(rowId); }),
        [this, reason](WorkerStepTask*) {
            hold.dismiss();
            q->finish(ORX_ECATCH(Error(reason)));
        },
        [this, reason](BaseTask* step) {
            if (q->isCanceled())
                return;
            q->addWarning(step->error().errorMessage());
            q->finish(ORX_ECATCH(Error(reason)));
        });
}

void HalvaneInitUploadTask::Private::onOpened(const HalvaneUploadReply& upload) {
    const auto job = [rowId = record.rowId, id = upload.uploadId] {
        return ORX_ECATCH(HalvaneUploadJournal::setUploadId(rowId, id));
    };
    q->execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("RecordUpload"), job),
                   [this, upload](WorkerStepTask*) { succeed(upload.uploadId, upload, false); });
}

void HalvaneInitUploadTask::Private::succeed(int id, const HalvaneUploadReply& upload, bool finalized) {
    uploadId = id;
    record.uploadId = id;
    HalvaneUploadSession session;
    session.record = record;
    session.size = record.size;
    session.chunkSize = upload.chunkSize;
    session.received = upload.received;
    session.finalized = finalized;
    session.metadataFollow = parameters.extendedMetadata.has_value();
    HalvaneUploadSessions::add(id, session);
    hold.dismiss(); // the session's users hold it from here
}

} // namespace orx
