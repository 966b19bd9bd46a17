#pragma once

#include "LocalTree.h"
#include "RemoteItem.h"

#include <ComplexTask.h>
#include <DuplicateUploadPolicy.h>
#include <HalvaneUploadPolicyOption.h>
#include <UploadedFileData.h>

#include <memory>

namespace orx {
class HalvaneFileUploadTaskBase;
class HalvaneUploadTask;
} // namespace orx

namespace halvane::host {

//! Uploads one file, packed acquisition or raw data that was named by itself into a folder, with the same
//! care for taken names as in a folder upload; raw data unpacked when it is to go \a asFile. Succeeds without
//! an upload when the policy leaves it out. ErrorCode::Busy for an acquisition that does not come to rest,
//! ErrorCode::FileChanged for raw data that is a plain directory by now.
//! Thread: that of the object.
class HALVANE_HOST_EXPORT NamedFileUploadTask : public orx::ComplexTask {
    Q_OBJECT
public:
    NamedFileUploadTask(const LocalEntry& entry, const RemoteItem& folder,
                        std::shared_ptr<orx::DuplicateUploadPolicyInterface> policy,
                        orx::HalvaneUploadPolicyOptions options, bool asFile);
    ~NamedFileUploadTask() override;

Q_SIGNALS:
    //! Before \a task runs.
    void uploadStarted(orx::HalvaneFileUploadTaskBase* task);

protected:
    orx::Error initialize() override;

private:
    void onAtRest();
    void onListed(int existingId);
    void upload(const orx::UploadedFileData& data);
    orx::Result<std::unique_ptr<orx::HalvaneUploadTask>> makeUpload(const orx::UploadedFileData& data) const;

    const LocalEntry m_entry;
    const RemoteItem m_folder;
    const std::shared_ptr<orx::DuplicateUploadPolicyInterface> m_policy;
    const orx::HalvaneUploadPolicyOptions m_options;
    const bool m_asFile;
};

} // namespace halvane::host
