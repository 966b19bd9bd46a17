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
//! care for taken names as in a folder upload. What it is, raw data or not, is looked at when it has come to
//! rest, and goes up as nothing else. Succeeds without an upload when the policy leaves it out.
//! ErrorCode::Busy for an acquisition that does not come to rest; ErrorCode::FileChanged for raw data that is
//! a plain directory by then, for what becomes something else later, and for what would take the name of
//! another upload by what it has become. Thread: that of the object.
class HALVANE_HOST_EXPORT NamedFileUploadTask : public orx::ComplexTask {
    Q_OBJECT
public:
    struct Input {
        LocalEntry entry;
        RemoteItem folder;
        //! Raw data goes up as the file that it is.
        bool asFile = false;
        //! Those that everything that goes up gets on the server, this one included.
        QStringList serverNames;
    };

    NamedFileUploadTask(const Input& input, std::shared_ptr<orx::DuplicateUploadPolicyInterface> policy,
                        orx::HalvaneUploadPolicyOptions options);
    ~NamedFileUploadTask() override;

Q_SIGNALS:
    //! Before \a task runs.
    void uploadStarted(orx::HalvaneFileUploadTaskBase* task);

protected:
    orx::Error initialize() override;

private:
    void onAtRest(bool isRawData);
    void onListed(int existingId);
    void upload(const orx::UploadedFileData& data);
    orx::Result<std::unique_ptr<orx::HalvaneUploadTask>> makeUpload(const orx::UploadedFileData& data) const;

    orx::Error changed() const;

    Input m_input;
    const std::shared_ptr<orx::DuplicateUploadPolicyInterface> m_policy;
    const orx::HalvaneUploadPolicyOptions m_options;
};

} // namespace halvane::host
