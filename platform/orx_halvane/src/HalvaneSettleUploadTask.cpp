#include "HalvaneHistory.h"
#include "HalvaneUploadCalls.h"
#include "HalvaneUploadTasks.h"
#include "JournalHold.h"
#include "WorkerStepTask.h"

#include <HalvaneError.h>

namespace orx {

class HalvaneSettleUploadTask::Private {
public:
    Private(HalvaneSettleUploadTask* task, const HalvaneFileUploadParameters& uploadParameters)
        : q(task), parameters(uploadParameters) {}

    void find();
    void askNext();
    void onState(const HalvaneUploadRecord& record, const HalvaneUploadState& state);
    void onUnknown(const HalvaneUploadRecord& record, const Error& error);
    void run(const QString& name, const WorkerStepTask::Job& job);

    HalvaneSettleUploadTask* q;
    HalvaneFileUploadParameters parameters;
    //! Newest first.
    QList<HalvaneUploadRecord> records;
    std::optional<HalvaneApiReference> committed;
};

HalvaneSettleUploadTask::HalvaneSettleUploadTask(const HalvaneFileUploadParameters& parameters,
                                                 QObject* parent)
    : HalvaneComplexTask(QStringLiteral("SettleUpload(%1)").arg(parameters.localPath), parent)
    , d(std::make_unique<Private>(this, parameters)) {}

HalvaneSettleUploadTask::~HalvaneSettleUploadTask() = default;

std::optional<HalvaneApiReference> HalvaneSettleUploadTask::committedFile() const {
    return d->committed;
}

Error HalvaneSettleUploadTask::initialize() {
    d->find();
    return Error();
}

void HalvaneSettleUploadTask::Private::find() {
    const auto found = std::make_shared<QList<HalvaneUploadRecord>>();
    const auto wanted = std::make_shared<const HalvaneFileUploadParameters>(parameters);
    const auto job = [found, wanted]() -> Error {
        const Result<HalvaneUploadRecord> described = HalvaneUploadJournal::describe(*wanted);
        if (!described)
            return Error(); // the upload says what is wrong with the file
        JournalHold::awaitReleases();
        Result<QList<HalvaneUploadRecord>> unsettled = HalvaneUploadJournal::unsettled(*described);
        if (!unsettled)
            return ORX_ECATCH(unsettled).error();
        *found = *std::move(unsettled);
        return Error();
    };
    q->execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("FindUnsettledUploads"), job),
                   [this, found](WorkerStepTask*) {
                       records = *found;
                       askNext();
                   });
}

//! One after the other; there are hardly ever two.
void HalvaneSettleUploadTask::Private::askNext() {
    if (records.isEmpty())
        return;
    const HalvaneUploadRecord record = records.takeFirst();
    q->execSubtask(
        std::make_unique<HalvaneGetUploadByKeyCall>(record.idempotencyKey),
        [this, record](HalvaneGetUploadByKeyCall* call) { onState(record, call->state()); },
        [this, record](BaseTask* call) {
            if (!q->isCanceled())
                onUnknown(record, call->error());
        });
}

void HalvaneSettleUploadTask::Private::onState(const HalvaneUploadRecord& record,
                                               const HalvaneUploadState& state) {
    if (!state.finalized) {
        askNext(); // the init task goes on with it
        return;
    }
    const HalvaneApiReference reference = state.file.reference;
    if (!committed)
        committed = reference;
    run(QStringLiteral("RecordUploadedVersion"), [record, reference]() -> Error {
        ORX_RETURN_ON_ERROR(
            HalvaneHistory().setFileVersion(record.localPath, reference.fileId, reference.version));
        return ORX_ECATCH(HalvaneUploadJournal::remove(record.rowId));
    });
}

void HalvaneSettleUploadTask::Private::onUnknown(const HalvaneUploadRecord& record, const Error& error) {
    if (isHalvaneError(error, HalvaneServerErrorCode::NotFound) ||
        isHalvaneError(error, HalvaneServerErrorCode::UploadGone))
        run(QStringLiteral("ForgetUpload"),
            [record] { return ORX_ECATCH(HalvaneUploadJournal::remove(record.rowId)); });
    else
        q->finish(ORX_ECATCH(Error(error)));
}

//! Runs \a job, whose failure ends the task: as long as a record stays, the file would be settled by it
//! again.
void HalvaneSettleUploadTask::Private::run(const QString& name, const WorkerStepTask::Job& job) {
    q->execSubtask(std::make_unique<WorkerStepTask>(name, job), [this](WorkerStepTask*) { askNext(); });
}

} // namespace orx
