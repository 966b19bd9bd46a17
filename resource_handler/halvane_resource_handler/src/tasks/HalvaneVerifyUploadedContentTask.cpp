#include "HalvaneVerifyUploadedContentTask.h"

#include "HalvaneVerifyUploadedFileTask.h"

#include <QPointer>

namespace orx {

class HalvaneVerifyUploadedContentTask::Private {
public:
    Private(HalvaneVerifyUploadedContentTask* task, const Input& verified,
            std::shared_ptr<DuplicateUploadPolicyInterface> decides)
        : q(task), input(verified), policy(std::move(decides)) {}

    void appendVerifyTask(const QString& path);

    HalvaneVerifyUploadedContentTask* const q;
    const Input input;
    const std::shared_ptr<DuplicateUploadPolicyInterface> policy;
    QList<UploadedFileData> result;
};

HalvaneVerifyUploadedContentTask::HalvaneVerifyUploadedContentTask(
    const Input& input, std::shared_ptr<DuplicateUploadPolicyInterface> policy)
    : HalvaneComplexTask(QStringLiteral("VerifyUploadedContent(%1)").arg(input.folderName), nullptr)
    , d(std::make_unique<Private>(this, input, std::move(policy))) {}

HalvaneVerifyUploadedContentTask::~HalvaneVerifyUploadedContentTask() = default;

QList<UploadedFileData> HalvaneVerifyUploadedContentTask::uploadedFilesData() const {
    return d->result;
}

Error HalvaneVerifyUploadedContentTask::initialize() {
    if (d->input.files.isEmpty()) {
        return ORX_ECATCH(
            Error(ErrorCode::InvalidArgument,
                  tr("There is no file to verify inside of %1 folder").arg(d->input.folderName)));
    }
    const QPointer<HalvaneVerifyUploadedContentTask> guard(this);
    for (const QString& path : QStringList(d->input.files)) {
        d->appendVerifyTask(path);
        if (!guard) // an entry that failed at once ended the task, and a receiver destroyed it
            break;
    }
    return Error();
}

void HalvaneVerifyUploadedContentTask::Private::appendVerifyTask(const QString& path) {
    const HalvaneVerifyUploadedFileTask::Input entry{UploadedFileData(input.folderId, path),
                                                     input.folderName};
    q->execSubtask(std::make_unique<HalvaneVerifyUploadedFileTask>(entry, policy),
                   [this](HalvaneVerifyUploadedFileTask* task) {
                       if (const UploadedFileData data = task->uploadedFileData(); data.id() != -1)
                           result << data;
                   });
}

} // namespace orx
