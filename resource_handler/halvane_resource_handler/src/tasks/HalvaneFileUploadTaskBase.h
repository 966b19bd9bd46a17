#pragma once

#include "HalvaneUploadTask.h"

#include <HalvaneFileUploadParameters.h>
#include <HalvaneUploadedInfo.h>
#include <PathImpl.h>
#include <RemoteResourceHandler.h>

#include <optional>

namespace orx {

//! Base of every upload that turns one local path into one file on the server. When the upload has succeeded,
//! the file just sent is put into the resource cache through its handler, so that it need not be downloaded
//! again. A file that cannot be cached is no failure of the upload: the error is logged with the places it
//! passed and dropped.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFileUploadTaskBase : public HalvaneUploadTask {
    Q_OBJECT
public:
    //! Copies \a parameters as they are: the file size is not looked up, unlike in setParameters().
    HalvaneFileUploadTaskBase(const HalvaneFileUploadParameters& parameters, const QString& name,
                              QObject* parent);

    HalvaneFileUploadParameters parameters() const;
    //! Takes the file size from the disk when the local path can be read, and keeps the one given otherwise.
    //! May be called while the task runs, before the file is sent.
    void setParameters(const HalvaneFileUploadParameters& parameters);
    //! The local path.
    QString path() const;
    int targetId() const;
    HalvaneResourceReference::ItemType targetType() const;

    //! Whether the uploaded file is put into the cache at the end; true unless said otherwise before the task
    //! finishes.
    void setCachedOnFinished(bool cached);
    //! The server's record of the file; empty until the server has confirmed it.
    std::optional<HalvaneUploadedFileInfo> uploadedFile() const;

    using HalvaneUploadTask::maxProgress;
    //! The units of one file's upload: 1 for the initialisation, 100 for the chunks, 1 for the finalisation,
    //! and 1 for the extended metadata when there is a list of it, even an empty one.
    static int maxProgress(const HalvaneFileUploadParameters& parameters);

protected:
    static int maxProgress(bool hasExtendedMetadata);

    //! Caches the uploaded file when the task holds no error; returns the error held.
    Error doFinish() override;
    //! Makes the local file the cached content of \a handler's resource. Called once, for a successful
    //! upload; its error is logged and dropped.
    virtual Error addToCache(const QSharedPointer<RemoteResourceHandler>& handler);
    //! An empty optional clears the record.
    void setUploadedFile(const std::optional<HalvaneUploadedFileInfo>& file);

private:
    Error addToCache();

    bool m_cachedOnFinished = true;
    std::optional<HalvaneUploadedFileInfo> m_uploadedFile;
    HalvaneFileUploadParameters m_parameters;
};

} // namespace orx
