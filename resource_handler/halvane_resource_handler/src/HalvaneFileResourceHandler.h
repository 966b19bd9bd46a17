#pragma once

#include "HalvaneResourceHandler.h"

namespace orx {

//! Answers for one file of the server in one version. Made by HalvaneResourceHandler::create().
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFileResourceHandler : public HalvaneResourceHandler {
    Q_DECLARE_TR_FUNCTIONS(orx::HalvaneFileResourceHandler)
public:
    ~HalvaneFileResourceHandler() override;
    //! A GetHalvaneFileSiblingsTask; ErrorCode::InvalidArgument when the reference is not that of a file.
    Result<std::unique_ptr<GetSiblingsTask>> siblings() const override;

protected:
    friend class HalvaneResourceHandler;
    HalvaneFileResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);

    using HalvaneResourceHandler::retrieveTask;
    std::unique_ptr<Task> existsTask() const override;
    //! A HalvaneGetFileResourceMetadataTask.
    std::unique_ptr<Task> retrieveMetadataTask() const override;
    //! Downloads the reference's version under its name into \a targetDir.
    std::unique_ptr<Task> retrieveTask(const PathImpl<PathType::Dir>& targetDir) override;
    //! SERVER/file/ID/VERSION/NAME: each version has its own place. The name stands as it is.
    QString subCachePath() const override;
};

} // namespace orx
