#pragma once

#include "HalvaneFileUploadTask.h"

class QTemporaryDir;

namespace orx {

//! Uploads a packed acquisition file. In addition to the upload of a regular file:
//!   - one of an older major format version is upgraded first, in a temporary directory that lives as long as
//!     the task; everything after that, the cache entry included, is about the upgraded copy. The upgrade
//!     blocks the task's thread until it is done.
//!   - the file's metadata go to the server with the finalisation, as "vonk_trace";
//!   - the cache entry is made by unpacking the file.
//!
//! Its own errors come before any request: ErrorCode::InvalidArgument for a path without the extension of a
//! packed acquisition, and those of orx::vonk::Vonk and of the upgrade.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneVonkFileUploadTask : public HalvaneFileUploadTask {
    Q_OBJECT
public:
    HalvaneVonkFileUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent);
    ~HalvaneVonkFileUploadTask() override;

    //! Only kept and told: older files are upgraded whatever it says.
    bool performSilentUpgrade() const;
    void setPerformSilentUpgrade(bool perform);
    //! What tasks made from now on begin with; true at first. Not guarded: set it before tasks are made.
    static bool performSilentUpgradeDefault();
    static void setPerformSilentUpgradeDefault(bool perform);

    //! Kept as long as the task, and until the cache entry has been made of the file.
    void setHeld(const std::shared_ptr<const void>& held) { m_held = held; }

protected:
    Error initialize() override;
    Error addToCache(const QSharedPointer<RemoteResourceHandler>& handler) override;
    QJsonObject finalizeRequestJson() const override;

private:
    Error upgrade(HalvaneFileUploadParameters upload);

    static bool s_performSilentUpgradeDefault;

    QJsonObject m_vonkMetadataJson;
    bool m_performSilentUpgrade = s_performSilentUpgradeDefault;
    std::unique_ptr<QTemporaryDir> m_tempDir;
    std::shared_ptr<const void> m_held;
};

} // namespace orx
