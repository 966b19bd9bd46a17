#pragma once

#include "HalvaneDownloadFileTask.h"

namespace orx {

//! Brings a packed acquisition into a directory and unpacks it there, into a directory of its name. What
//! cannot be unpacked although it is what the server has - no packed acquisition, a damaged one, one of a
//! newer format - stays as the file that it is, with a warning. Progress: 0..100 of 100, of which unpacking
//! is the last part. Killed at any moment it leaves what the next run goes on with. Errors: those of
//! HalvaneDownloadFileTask and of writing.
class HalvaneDownloadVonkTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneDownloadVonkTask(const HalvaneFileDownloadParameters& parameters);
    ~HalvaneDownloadVonkTask() override;

protected:
    Error initialize() override;

private:
    QString targetPath() const;
    void onDownloaded(const QString& packedPath);
    void onUnpackFailed(const QString& packedPath, const Error& error);
    void showProgress(int percent);

    const HalvaneFileDownloadParameters m_parameters;
    int m_percent = -1;
};

} // namespace orx
