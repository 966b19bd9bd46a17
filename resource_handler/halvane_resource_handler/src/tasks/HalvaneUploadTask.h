#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <HalvaneTask.h>
#include <HalvaneUploadPolicyOption.h>

namespace orx {

//! Root of all uploads: the type through which a host holds, runs and watches one. Made without a parent and
//! owned by whoever runs it. Thread: that of the object, which needs an event loop.
//!
//! Progress is counted in units of the concrete task and also comes through the signals progressInitiated and
//! progress.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneUploadTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    //! What is uploaded. The values are fixed.
    enum class UploadDataType : int { RegularFile = 0, Folder = 1, SampleData = 2 };
    Q_ENUM(UploadDataType)

    //! What a host starts from: replace without the version check.
    static constexpr HalvaneUploadPolicyOptions DEFAULT_UPLOAD_POLICY_OPTIONS{
        HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck};

    HalvaneUploadTask(const QString& name, QObject* parent);
    explicit HalvaneUploadTask(QObject* parent);
    HalvaneUploadTask();

protected:
    Error initialize() override = 0;

public:
    virtual UploadDataType uploadDataType() const = 0;
    //! Units done.
    virtual int currentProgress() const = 0;
    //! Units in all.
    virtual int maxProgress() const = 0;
};

} // namespace orx
