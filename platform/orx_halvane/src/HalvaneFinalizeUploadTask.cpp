#include "HalvaneAcknowledgedContents.h"
#include "HalvaneConnection.h"
#include "HalvaneHistory.h"
#include "HalvaneUploadCalls.h"
#include "HalvaneUploadSessions.h"
#include "HalvaneUploadTasks.h"
#include "JournalHold.h"
#include "UnattachedMetadata.h"
#include "WorkerStepTask.h"

#include <HalvaneError.h>

#include <QUuid>

namespace orx {
namespace {

//! The server reads and flushes everything before it answers: a slow disk does 20 MB a second. Without a
//! known size the largest files have to fit.
std::chrono::seconds timeoutFor(const HalvaneUploadSession* session) {
    constexpr qint64 bytesPerSecond = 20'000'000;
    constexpr std::chrono::seconds least{120};
    constexpr std::chrono::seconds unknown{24 * 3600};
    return session ? least + std::chrono::seconds(session->size / bytesPerSecond) : unknown;
}

} // namespace

class HalvaneFinalizeUploadTask::Private {
public:
    Private(HalvaneFinalizeUploadTask* task, const QJsonObject& requestBody)
        : q(task), body(requestBody), uploadId(requestBody.value(QStringLiteral("upload_id")).toInt(-1)) {}
    ~Private() {
        if (hold.rowId() >= 0) // destroyed while running
            HalvaneUploadSessions::take(uploadId);
    }

    void takeSession();
    void giveUpSession();
    void checkFile();
    void call();
    void onFinalized(const HalvaneFinalizedFile& finalized);
    void onRefused(const Error& error);
    Error explained(const Error& error) const;
    void record();
    void abandon(const Error& reason);
    void forgetRecord(const Error& reason);

    HalvaneFinalizeUploadTask* q;
    QJsonObject body;
    int uploadId;
    std::shared_ptr<const HalvaneUploadSession> session;
    JournalHold hold;
    //! Keeps the record until who follows has taken it.
    std::shared_ptr<JournalHold> unattached;
    bool isRecorded = false;
    HalvaneFinalizedFile file;
};

HalvaneFinalizeUploadTask::HalvaneFinalizeUploadTask(const QJsonObject& request, QObject* parent)
    : HalvaneComplexTask(
          QStringLiteral("FinalizeUpload(ID=%1)").arg(request.value(QStringLiteral("upload_id")).toInt(-1)),
          parent)
    , d(std::make_unique<Private>(this, request)) {}

HalvaneFinalizeUploadTask::~HalvaneFinalizeUploadTask() = default;

HalvaneApiReference HalvaneFinalizeUploadTask::createdFileReference() const {
    return d->file.reference;
}

int HalvaneFinalizeUploadTask::createdFileId() const {
    return d->file.reference.fileId;
}

QString HalvaneFinalizeUploadTask::sha256() const {
    return d->file.sha256;
}

Error HalvaneFinalizeUploadTask::initialize() {
    d->takeSession();
    if (d->session && !d->session->finalized)
        d->checkFile();
    else
        d->call();
    return Error();
}

Error HalvaneFinalizeUploadTask::doFinish() {
    d->giveUpSession();
    return HalvaneComplexTask::doFinish();
}

void HalvaneFinalizeUploadTask::Private::takeSession() {
    session = HalvaneUploadSessions::find(uploadId);
    if (session)
        hold = JournalHold(session->record.rowId);
}

//! The record goes only when this task succeeded, since who is cancelled never hears of the file: the next
//! run finds it by the record.
void HalvaneFinalizeUploadTask::Private::giveUpSession() {
    if (!session)
        takeSession(); // cancelled before it began
    HalvaneUploadSessions::take(uploadId);
    if (!isRecorded || q->hasError())
        hold.release();
    else if (session->metadataFollow)
        unattached = UnattachedMetadata::add(file.reference.fileId, std::move(hold));
    else
        hold.remove();
}

//! The file may have changed after its last chunk was read: this is the last moment at which no version comes
//! of it.
void HalvaneFinalizeUploadTask::Private::checkFile() {
    const auto job = [record = session->record]() -> Error {
        if (!HalvaneUploadJournal::isChanged(record))
            return Error();
        return ORX_ECATCH(Error(ErrorCode::FileChanged, tr("The file \"%1\" changed while it was being sent; "
                                                           "nothing of it counts. Start the upload again.")
                                                            .arg(record.localPath)));
    };
    q->execSubtask(
        std::make_unique<WorkerStepTask>(QStringLiteral("CheckFile"), job),
        [this](WorkerStepTask*) { call(); },
        [this](BaseTask* step) {
            if (!q->isCanceled())
                abandon(step->error());
        });
}

void HalvaneFinalizeUploadTask::Private::call() {
    const QByteArray key =
        session ? session->record.idempotencyKey : QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
    q->execSubtask(
        std::make_unique<HalvaneFinalizeUploadCall>(body, key, timeoutFor(session.get())),
        [this](HalvaneFinalizeUploadCall* ended) { onFinalized(ended->file()); },
        [this](BaseTask* ended) {
            if (!q->isCanceled())
                onRefused(ended->error());
        });
}

void HalvaneFinalizeUploadTask::Private::onFinalized(const HalvaneFinalizedFile& finalized) {
    const QByteArray sent = session ? session->contentSha256 : QByteArray();
    if (!sent.isEmpty() && finalized.sha256.toLatin1() != sent) {
        q->finish(
            ORX_ECATCH(Error(ErrorCode::ChecksumMismatch,
                             tr("The server says that version %1 of the file %2 has the SHA-256 %3, but "
                                "what was sent of \"%4\" has %5. Keep the local file and tell the "
                                "server's administrator.")
                                 .arg(QString::number(finalized.reference.version),
                                      QString::number(finalized.reference.fileId), finalized.sha256,
                                      session->record.localPath, QString::fromLatin1(sent)))));
        return;
    }
    file = finalized;
    HalvaneAcknowledgedContents::record(HalvaneConnection::instance().serverKey(), file.reference.fileId,
                                        file.reference.version, file.sha256.toLatin1());
    if (session)
        record();
}

//! The version is made: what goes wrong from here is worth a warning only.
void HalvaneFinalizeUploadTask::Private::record() {
    const auto job = [path = session->record.localPath, isOld = session->finalized,
                      reference = file.reference]() -> Error {
        HalvaneHistory history;
        return ORX_ECATCH(isOld ? history.raiseFileVersion(path, reference.fileId, reference.version)
                                : history.setFileVersion(path, reference.fileId, reference.version));
    };
    q->execSubtask(
        std::make_unique<WorkerStepTask>(QStringLiteral("RecordUploadedVersion"), job),
        [this](WorkerStepTask*) { isRecorded = true; },
        [this](BaseTask* step) {
            if (!q->isCanceled())
                q->addWarning(tr("The file \"%1\" was uploaded, but that could not be recorded here: %2")
                                  .arg(session->record.localPath, step->error().errorMessage()));
        });
}

void HalvaneFinalizeUploadTask::Private::onRefused(const Error& error) {
    const Error reason = explained(error);
    if (session && isHalvaneError(error, HalvaneServerErrorCode::ChecksumMismatch))
        abandon(reason);
    else if (session && isHalvaneError(error, HalvaneServerErrorCode::UploadGone))
        forgetRecord(reason);
    else
        q->finish(ORX_ECATCH(Error(reason)));
}

//! Where a person needs to know what to do.
Error HalvaneFinalizeUploadTask::Private::explained(const Error& error) const {
    if (!session || error.domain() != ErrorDomain::Server)
        return error;
    QString text;
    switch (HalvaneServerErrorCode(error.code())) {
    case HalvaneServerErrorCode::ChecksumMismatch:
        text = tr("What the server received of the file \"%1\" differs from it; nothing of it counts. Start "
                  "the upload again.");
        break;
    case HalvaneServerErrorCode::UploadIncomplete:
        text = tr("The server does not have the whole file \"%1\" yet. Start the upload again; only what is "
                  "missing is sent.");
        break;
    case HalvaneServerErrorCode::UploadGone:
        text = tr("The server does not know the upload of the file \"%1\" any more. Start the upload again.");
        break;
    default:
        return error;
    }
    return Error(error.domain(), error.code(), text.arg(session->record.localPath));
}

//! A content that the server found damaged would be found damaged for ever.
void HalvaneFinalizeUploadTask::Private::abandon(const Error& reason) {
    const auto next = [this, reason] {
        if (!q->isCanceled())
            forgetRecord(reason);
    };
    q->execSubtask(
        std::make_unique<HalvaneAbandonUploadCall>(uploadId), [next](HalvaneAbandonUploadCall*) { next(); },
        [next](BaseTask*) { next(); });
}

void HalvaneFinalizeUploadTask::Private::forgetRecord(const Error& reason) {
    const auto job = [rowId = hold.rowId()] { return HalvaneUploadJournal::remove(rowId); };
    q->execSubtask(
        std::make_unique<WorkerStepTask>(QStringLiteral("ForgetUpload"), job),
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

} // namespace orx
