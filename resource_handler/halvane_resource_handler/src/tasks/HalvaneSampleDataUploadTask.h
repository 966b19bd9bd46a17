#pragma once

#include "HalvaneFileUploadTaskBase.h"

namespace orx {

//! Uploads raw sample data, a file or a directory: packs it in a temporary directory, which lives as long as
//! the task, and uploads the packed file by a HalvaneVonkFileUploadTask, whose progress becomes its own.
//! Packing reports no progress. The result is not put into the cache by this task.
//!
//! Its own errors: ErrorCode::General without a temporary directory and for an empty path.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneSampleDataUploadTask : public HalvaneFileUploadTaskBase {
    Q_OBJECT
public:
    HalvaneSampleDataUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent);
    ~HalvaneSampleDataUploadTask() override;

protected:
    Error initialize() override;

public:
    UploadDataType uploadDataType() const override;
    int currentProgress() const override;
    int maxProgress() const override;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
