#include "HalvaneFileUploadTaskBase.h"

#include <ResourceManager.h>

#include <QFileInfo>

namespace orx {

HalvaneFileUploadTaskBase::HalvaneFileUploadTaskBase(const HalvaneFileUploadParameters& parameters,
                                                     const QString& name, QObject* parent)
    : HalvaneUploadTask(name, parent), m_parameters(parameters) {}

HalvaneFileUploadParameters HalvaneFileUploadTaskBase::parameters() const {
    return m_parameters;
}

void HalvaneFileUploadTaskBase::setParameters(const HalvaneFileUploadParameters& parameters) {
    m_parameters = parameters;
    if (const QFileInfo info(m_parameters.localPath); info.isReadable())
        m_parameters.fileSize = info.size();
}

QString HalvaneFileUploadTaskBase::path() const {
    return m_parameters.localPath;
}

int HalvaneFileUploadTaskBase::targetId() const {
    return m_parameters.targetId;
}

HalvaneResourceReference::ItemType HalvaneFileUploadTaskBase::targetType() const {
    return m_parameters.targetItemType;
}

void HalvaneFileUploadTaskBase::setCachedOnFinished(bool cached) {
    m_cachedOnFinished = cached;
}

std::optional<HalvaneUploadedFileInfo> HalvaneFileUploadTaskBase::uploadedFile() const {
    return m_uploadedFile;
}

void HalvaneFileUploadTaskBase::setUploadedFile(const std::optional<HalvaneUploadedFileInfo>& file) {
    m_uploadedFile = file;
}

int HalvaneFileUploadTaskBase::maxProgress(const HalvaneFileUploadParameters& parameters) {
    return maxProgress(parameters.extendedMetadata.has_value());
}

int HalvaneFileUploadTaskBase::maxProgress(bool hasExtendedMetadata) {
    constexpr int initialisation = 1;
    constexpr int chunks = 100;
    constexpr int finalisation = 1;
    return initialisation + chunks + finalisation + (hasExtendedMetadata ? 1 : 0);
}

Error HalvaneFileUploadTaskBase::doFinish() {
    Error error = BaseTask::doFinish();
    if (error.hasError()) {
        ORX_ECATCH(error);
        return error;
    }
    if (m_cachedOnFinished && !hasError()) {
        // The stamp logs the error; the upload itself has succeeded and is not to fail because of its cache.
        if (Error cacheError = addToCache(); cacheError.hasError())
            ORX_ECATCH(cacheError);
    }
    return error;
}

Error HalvaneFileUploadTaskBase::addToCache() {
    if (!m_uploadedFile)
        return ORX_ECATCH(Error(ErrorCode::General, QObject::tr("The file was not uploaded")));
    auto reference = m_uploadedFile->toResourceReference();
    if (reference.hasError())
        return ORX_ECATCH(reference).error();
    auto handler = ResourceManager::getHandler(*reference);
    if (handler.hasError())
        return ORX_ECATCH(handler).error();
    const auto remoteHandler = handler->dynamicCast<RemoteResourceHandler>();
    if (!remoteHandler)
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument, QObject::tr("Invalid resource handler.")));
    ORX_RETURN_ON_ERROR(addToCache(remoteHandler));
    return Error();
}

Error HalvaneFileUploadTaskBase::addToCache(const QSharedPointer<RemoteResourceHandler>& handler) {
    return handler->addToCache(Path(m_parameters.localPath, PathType::File));
}

} // namespace orx
