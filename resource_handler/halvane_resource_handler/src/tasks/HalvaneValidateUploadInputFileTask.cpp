#include "HalvaneValidateUploadInputFileTask.h"

#include "../HalvaneResourceHandlerLog.h"

#include <UploadFileInputValidation.h>

namespace orx {

class HalvaneValidateUploadInputFileTask::Private {
public:
    Private(HalvaneValidateUploadInputFileTask* task, const Input& input)
        : q(task), filePath(input.filePath) {}

    HalvaneValidateUploadInputFileTask* const q;
    const QString filePath;
    bool fileValid = false;
    bool validMsData = false;
};

HalvaneValidateUploadInputFileTask::HalvaneValidateUploadInputFileTask(const Input& input)
    : Task(QStringLiteral("ValidateUploadInputFile(%1)").arg(input.filePath))
    , d(std::make_unique<Private>(this, input)) {
    setExecutionMode(ExecutionMode::Coroutine);
}

HalvaneValidateUploadInputFileTask::~HalvaneValidateUploadInputFileTask() = default;

bool HalvaneValidateUploadInputFileTask::isFileValid() const {
    return d->fileValid;
}

bool HalvaneValidateUploadInputFileTask::isValidMsData() const {
    return d->validMsData;
}

QCoro::Task<Error> HalvaneValidateUploadInputFileTask::co_doExec() {
    const QFileInfo info(d->filePath);
    if (!UploadFileInputValidation::isAllowedExtension(info)) {
        qCInfo(halvaneResourceHandlerLog).noquote()
            << tr("Skip file \"%1\". Its extension is not allowed.").arg(d->filePath);
        co_return Error();
    }
    const UploadFileInputValidation::ValidationResult result =
        co_await UploadFileInputValidation::co_validUploadPath(info);
    if (!result.isValidPath) {
        qCInfo(halvaneResourceHandlerLog).noquote()
            << tr("Skip file \"%1\". It does not match the filters.").arg(d->filePath);
    }
    d->fileValid = result.isValidPath;
    d->validMsData = result.isValidMsData;
    co_return Error();
}

} // namespace orx
