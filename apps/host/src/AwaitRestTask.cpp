#include "AwaitRestTask.h"

#include <UploadFileInputValidation.h>

namespace halvane::host {

using orx::Error;
using orx::UploadFileInputValidation;

AwaitRestTask::AwaitRestTask(const QString& path)
    : Task(QStringLiteral("AwaitRest(%1)").arg(path)), m_path(path) {
    setExecutionMode(ExecutionMode::Coroutine);
}

AwaitRestTask::~AwaitRestTask() = default;

QCoro::Task<Error> AwaitRestTask::co_doExec() {
    const QFileInfo info(m_path);
    const auto rest = co_await UploadFileInputValidation::co_comesToRest(info);
    m_isRawData = rest.isValidMsData;
    if (rest.isValidPath)
        co_return Error();
    co_return Error(orx::ErrorCode::Busy,
                    UploadFileInputValidation::explanation(orx::UploadRefusal::StillWritten, m_path));
}

} // namespace halvane::host
