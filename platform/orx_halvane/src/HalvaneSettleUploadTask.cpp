#include "HalvaneHistory.h"
#include "HalvaneItemTasks.h"
#include "HalvaneUploadCalls.h"
#include "HalvaneUploadTasks.h"
#include "JournalHold.h"
#include "UnattachedMetadata.h"
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
    void checkCommitted(const HalvaneUploadRecord& record, const HalvaneApiReference& file);
    void onFound(const HalvaneUploadRecord& record, const HalvaneApiReference& file);
    void forget(const HalvaneUploadRecord& record);
    void run(const QString& name, const WorkerStepTask::Job& job);
    void giveUpRecords();

    HalvaneSettleUploadTask* q;
    HalvaneFileUploadParameters parameters;
    //! Newest first.
    QList<HalvaneUploadRecord> records;
    std::optional<HalvaneApiReference> committed;
    //! Records of what is committed: gone when this task has succeeded, so that whoever asked has heard of
    //! it.
    std::vector<JournalHold> settled;
    //! The record of the reported file, kept until who attaches its metadata has taken it.
    std::shared_ptr<JournalHold> unattached;
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

Error HalvaneSettleUploadTask::doFinish() {
    d->giveUpRecords();
    return HalvaneComplexTask::doFinish();
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
    checkCommitted(record, state.file.reference);
}

//! Below a later version, what is put is not what the file's readers get.
void HalvaneSettleUploadTask::Private::checkCommitted(const HalvaneUploadRecord& record,
                                                      const HalvaneApiReference& file) {
    q->execSubtask(
        std::make_unique<HalvaneGetFileMetadataTask>(file.fileId),
        [this, record, file](HalvaneGetFileMetadataTask* call) {
            if (call->fileItem().lastVersion() == file.version)
                onFound(record, file);
            else
                forget(record);
        },
        [this, record](BaseTask* call) {
            if (!q->isCanceled())
                onUnknown(record, call->error());
        });
}

void HalvaneSettleUploadTask::Private::onFound(const HalvaneUploadRecord& record,
                                               const HalvaneApiReference& file) {
    settled.emplace_back(record.rowId);
    if (!committed)
        committed = file;
    run(QStringLiteral("RecordUploadedVersion"), [path = record.localPath, file] {
        return ORX_ECATCH(HalvaneHistory().raiseFileVersion(path, file.fileId, file.version));
    });
}

void HalvaneSettleUploadTask::Private::forget(const HalvaneUploadRecord& record) {
    run(QStringLiteral("ForgetUpload"),
        [rowId = record.rowId] { return ORX_ECATCH(HalvaneUploadJournal::remove(rowId)); });
}

//! The newest record is the reported file's.
void HalvaneSettleUploadTask::Private::giveUpRecords() {
    if (!q->hasError()) {
        if (committed && parameters.extendedMetadata)
            unattached = UnattachedMetadata::add(committed->fileId, std::move(settled.front()));
        for (JournalHold& hold : settled)
            hold.remove();
    }
    settled.clear();
}

void HalvaneSettleUploadTask::Private::onUnknown(const HalvaneUploadRecord& record, const Error& error) {
    if (isHalvaneError(error, HalvaneServerErrorCode::NotFound) ||
        isHalvaneError(error, HalvaneServerErrorCode::NoPrivilege) ||
        isHalvaneError(error, HalvaneServerErrorCode::UploadGone))
        forget(record);
    else
        q->finish(ORX_ECATCH(Error(error)));
}

//! Runs \a job, whose failure ends the task: as long as a record stays, the file would be settled by it
//! again.
void HalvaneSettleUploadTask::Private::run(const QString& name, const WorkerStepTask::Job& job) {
    q->execSubtask(std::make_unique<WorkerStepTask>(name, job), [this](WorkerStepTask*) { askNext(); });
}

} // namespace orx
