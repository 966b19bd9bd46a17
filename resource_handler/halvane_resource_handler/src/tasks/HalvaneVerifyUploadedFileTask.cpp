#include "HalvaneVerifyUploadedFileTask.h"

#include "ExistingFile.h"
#include "HalvaneValidateUploadInputFileTask.h"

#include <FileTypes.h>
#include <GetDuplicateUploadPolicyTask.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>

#include <QFileInfo>

namespace orx {

class HalvaneVerifyUploadedFileTask::Private {
public:
    Private(HalvaneVerifyUploadedFileTask* task, const Input& verified,
            std::shared_ptr<DuplicateUploadPolicyInterface> decides)
        : q(task)
        , input(verified)
        , result(verified.uploadedFileData.localPath())
        , policy(std::move(decides)) {}

    void appendValidateTask();
    void onValidated(const HalvaneValidateUploadInputFileTask& task);
    void appendGetFilesTask();
    void onFilesListed(const HalvaneGetFilesTask& task);
    void decide(const Result<int>& existingId);
    void appendPolicyTask(int existingId);

    QString localPath() const { return input.uploadedFileData.localPath(); }
    QString localName() const { return QFileInfo(localPath()).fileName(); }
    int folderId() const { return input.uploadedFileData.id(); }

    HalvaneVerifyUploadedFileTask* const q;
    const Input input;
    UploadedFileData result;
    const std::shared_ptr<DuplicateUploadPolicyInterface> policy;
    bool isValidMsData = false;
};

HalvaneVerifyUploadedFileTask::HalvaneVerifyUploadedFileTask(
    const Input& input, std::shared_ptr<DuplicateUploadPolicyInterface> policy)
    : HalvaneComplexTask(QStringLiteral("VerifyUploadedFile(%1)").arg(input.uploadedFileData.localPath()),
                         nullptr)
    , d(std::make_unique<Private>(this, input, std::move(policy))) {}

HalvaneVerifyUploadedFileTask::~HalvaneVerifyUploadedFileTask() = default;

UploadedFileData HalvaneVerifyUploadedFileTask::uploadedFileData() const {
    return d->result;
}

Error HalvaneVerifyUploadedFileTask::initialize() {
    d->appendValidateTask();
    return Error();
}

void HalvaneVerifyUploadedFileTask::Private::appendValidateTask() {
    q->execSubtask(std::make_unique<HalvaneValidateUploadInputFileTask>(
                       HalvaneValidateUploadInputFileTask::Input{localPath()}),
                   [this](HalvaneValidateUploadInputFileTask* task) { onValidated(*task); });
}

void HalvaneVerifyUploadedFileTask::Private::onValidated(const HalvaneValidateUploadInputFileTask& task) {
    if (!task.isFileValid())
        return;
    isValidMsData = task.isValidMsData();
    appendGetFilesTask();
}

void HalvaneVerifyUploadedFileTask::Private::appendGetFilesTask() {
    q->execSubtask(std::make_unique<HalvaneGetFilesTask>(folderId(), nullptr),
                   [this](HalvaneGetFilesTask* task) { onFilesListed(*task); });
}

void HalvaneVerifyUploadedFileTask::Private::onFilesListed(const HalvaneGetFilesTask& task) {
    // Raw data is uploaded as a packed acquisition.
    const QString name =
        isValidMsData ? FileTypes::addMissingExtension(localName(), FileTypes::VONK) : localName();
    decide(HalvaneConnectionUtils::findFileIdInFiles(name, task.files()));
}

void HalvaneVerifyUploadedFileTask::Private::decide(const Result<int>& existingId) {
    const std::optional<int> id = existingFileId(existingId, localName(), __FILE__, __func__);
    if (!id)
        return;
    if (*id != -1)
        appendPolicyTask(*id);
    else
        result.setId(folderId());
}

void HalvaneVerifyUploadedFileTask::Private::appendPolicyTask(int existingId) {
    const DuplicateUploadPolicyRequest::Input request{localPath(), existingId, folderId(), input.folderName,
                                                      isValidMsData};
    q->execSubtask(std::make_unique<GetDuplicateUploadPolicyTask>(request, policy),
                   [this](GetDuplicateUploadPolicyTask* task) { result = task->uploadedFileData(); });
}

} // namespace orx
