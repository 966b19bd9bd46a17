#pragma once

#include "HalvaneResourceHandler.h"

namespace orx {

//! Answers for one folder of the server. Made by HalvaneResourceHandler::create().
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFolderResourceHandler : public HalvaneResourceHandler {
public:
    ~HalvaneFolderResourceHandler() override;

protected:
    friend class HalvaneResourceHandler;
    HalvaneFolderResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);

    using HalvaneResourceHandler::retrieveTask;
    std::unique_ptr<Task> existsTask() const override;
    //! A HalvaneGetFolderMetadataTask.
    std::unique_ptr<Task> retrieveMetadataTask() const override;
    //! A HalvaneDownloadFolderTask: brings the folder under its name into \a targetDir.
    std::unique_ptr<Task> retrieveTask(const PathImpl<PathType::Dir>& targetDir) override;
    //! SERVER/folder/ID/NAME: the content of the folder is no part of it. The name stands as it is.
    QString subCachePath() const override;
};

} // namespace orx
