#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <HalvaneItems.h>
#include <HalvaneResourceReference.h>
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

    //! The upload that suits what lies at \a path: of a file, of raw sample data (a file or a directory) or
    //! of a folder. Without a parent; never null. Folders alone are given \a userGroups, and of the other
    //! arguments only path, target and options. ErrorCode::General for a folder whose target is a file,
    //! InvalidArgument for a path that is neither file nor folder, and what
    //! HalvaneFileUploadParameters::create() refuses.
    static Result<std::unique_ptr<HalvaneUploadTask>>
    create(const QString& path, int targetId, HalvaneResourceReference::ItemType targetItemType,
           const QString& alias, const std::optional<QList<HalvaneExtendedMetaDataValue>>& extendedMetadata,
           const QList<int>& userGroups, QFlags<HalvaneUploadPolicyOption> policyOptions,
           const std::optional<QString>& targetFileName);

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
