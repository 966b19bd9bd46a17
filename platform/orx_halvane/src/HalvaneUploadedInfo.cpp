#include "HalvaneUploadedInfo.h"

namespace orx {

HalvaneUploadedFileInfo::HalvaneUploadedFileInfo(const HalvaneApiReference& reference,
                                                 const QString& localPath, const QString& targetFileName)
    : m_reference(reference), m_localPath(localPath), m_targetFileName(targetFileName) {}

Result<HalvaneFileResourceReferenceSPtr> HalvaneUploadedFileInfo::toResourceReference() const {
    return ORX_ECATCH(
        HalvaneFileResourceReference::create(m_reference.fileId, m_reference.version, m_targetFileName));
}

HalvaneUploadedFolderInfo::HalvaneUploadedFolderInfo(int folderId,
                                                     const QList<HalvaneUploadedFileInfo>& files,
                                                     const QList<HalvaneUploadedFolderInfo>& folders)
    : m_folderId(folderId), m_files(files), m_folders(folders) {}

} // namespace orx
