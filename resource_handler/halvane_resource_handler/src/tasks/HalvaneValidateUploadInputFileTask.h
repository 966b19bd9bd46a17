#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <QCoroTask>
#include <Task.h>

#include <memory>

namespace orx {

//! Tells whether one local path may be uploaded and whether it holds raw mass-spectrometry data. A path that
//! is refused is no error: the task succeeds, and the reason is logged at info level.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneValidateUploadInputFileTask : public Task {
    Q_OBJECT
public:
    struct Input {
        QString filePath;
    };

    explicit HalvaneValidateUploadInputFileTask(const Input& input);
    ~HalvaneValidateUploadInputFileTask() override;

    //! False before the task has finished.
    bool isFileValid() const;
    //! False before the task has finished, and when the extension is refused.
    bool isValidMsData() const;

private:
    QCoro::Task<Error> co_doExec() override;

    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
