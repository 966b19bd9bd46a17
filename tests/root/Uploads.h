#pragma once

#include <HalvaneFileUploadTask.h>

#include <QString>

namespace orx::testing {

//! What the server acknowledged.
struct Acknowledged {
    HalvaneApiReference reference;
    QString localPath;
};

//! Uploads one file into the root folder with the default options and waits for the end.
inline Result<Acknowledged> upload(const QString& path) {
    auto parameters =
        HalvaneFileUploadParameters::create(path, 1, HalvaneResourceReference::ItemType::Folder, QString(),
                                            std::optional<QList<HalvaneCompactExtendedMetaDataValue>>(),
                                            HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS, std::nullopt);
    if (parameters.hasError())
        return parameters.error();
    const auto task = HalvaneFileUploadTask::create(*parameters);
    task->setCachedOnFinished(false);
    task->exec();
    if (const Error error = task->waitForFinished(); error.hasError())
        return error;
    return Acknowledged{task->uploadedFile()->reference(), path};
}

} // namespace orx::testing
