#pragma once

#include "HalvaneFileUploadTaskBase.h"

#include <QJsonObject>

#include <memory>

namespace orx {

//! Uploads one local regular file, in chunks, as a new file in a folder or as a new version of a file.
//!
//! The steps, one network task at a time:
//!   [search the folder for a file of the same name]   with policy option NewVersionByName
//!   [compare the recorded version with the server's]  for new versions, unless ReplaceWithoutVersionCheck
//!   initialise -> post the chunks -> finalise -> [put the extended metadata]
//! A step that fails ends the task with its error. The task reports progressInitiated on the next turn of the
//! event loop after its construction, and progress after each step and while the chunks are sent.
//!
//! Its own errors: ErrorCode::InvalidArgument when the path names no file, ErrorCode::FileNotReadable when it
//! cannot be opened, and HalvaneServerErrorCode::VersionConflict, without a text, when the server has a newer
//! version than this machine last had; nothing is uploaded then.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFileUploadTask : public HalvaneFileUploadTaskBase {
    Q_OBJECT
public:
    HalvaneFileUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent);
    ~HalvaneFileUploadTask() override;

    //! The upload that suits the file: that of a packed acquisition by its extension, else a regular one.
    //! Never null; without a parent.
    static std::unique_ptr<HalvaneFileUploadTask> create(const HalvaneFileUploadParameters& parameters);

protected:
    //! Closes the local file before anything else.
    Error doFinish() override;
    Error initialize() override;

public:
    UploadDataType uploadDataType() const override;
    int currentProgress() const override;
    int maxProgress() const override;

protected:
    //! The body of the finalisation request, built when the chunks are there.
    virtual QJsonObject finalizeRequestJson() const;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
