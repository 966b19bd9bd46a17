#pragma once

#include "HalvaneDownloadFileTask.h"
#include "UnpackedTarget.h"

namespace orx {

//! Brings a packed acquisition into a directory and unpacks it there, into a directory of the target's name.
//! What cannot be unpacked although it is what the server has - no packed acquisition, a damaged one, one of
//! a newer format - stays as the file that it is, with a warning. On the way there are hidden siblings of
//! names of their own: DownloadNames. Progress: 0..100 of 100, of which unpacking is the last part.
//!
//! What is at the target: with keepSame it stays when it is the same, by the manifest on the server and
//! without the content being fetched, and is replaced otherwise; with overwrite a file is replaced, and a
//! directory that is the same stays. Everything else is ErrorCode::AlreadyExists, and stays. Until the
//! replacement is complete and durable the target is what it was. The history does not hear of it.
//!
//! Killed at any moment it leaves what the next run goes on with. Errors: those of HalvaneDownloadFileTask
//! and of writing.
class ORX_HALVANE_EXPORT HalvaneDownloadVonkTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneDownloadVonkTask(const HalvaneFileDownloadParameters& parameters);
    ~HalvaneDownloadVonkTask() override;

protected:
    Error initialize() override;

private:
    QString targetName() const;
    QString targetPath() const;
    QString packedName() const;
    UnpackedTarget::Replace replace() const;
    void lookAtTarget();
    void onFound(UnpackedTarget::Found found);
    void readManifest();
    void compare(const QList<vonk::VonkEntry>& entries);
    void onCompared(bool isSame);
    void refuse();
    void fetch();
    void onDownloaded(const QString& packedPath);
    void onUnpackFailed(const QString& packedPath, const Error& error);
    void keepAsFile(const QString& packedPath, const Error& error);
    void showProgress(int percent);

    const HalvaneFileDownloadParameters m_parameters;
    int m_percent = -1;
};

} // namespace orx
