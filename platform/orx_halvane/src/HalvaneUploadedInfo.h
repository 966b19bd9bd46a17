#pragma once

#include "HalvaneItems.h"

#include <HalvaneResourceReference.h>

namespace orx {

//! Record of an uploaded file.
class ORX_HALVANE_EXPORT HalvaneUploadedFileInfo {
public:
    HalvaneUploadedFileInfo(const HalvaneApiReference& reference, const QString& localPath,
                            const QString& targetFileName);
    HalvaneApiReference reference() const { return m_reference; }
    QString localPath() const { return m_localPath; }
    //! The name on the server as it was asked for; a new version keeps the file's own name there.
    QString targetFileName() const { return m_targetFileName; }
    //! Fails as HalvaneFileResourceReference::create does.
    Result<QSharedPointer<HalvaneFileResourceReference>> toResourceReference() const;

private:
    HalvaneApiReference m_reference;
    QString m_localPath;
    QString m_targetFileName;
};

//! Record of an uploaded folder: a tree.
class ORX_HALVANE_EXPORT HalvaneUploadedFolderInfo {
public:
    HalvaneUploadedFolderInfo(int folderId, const QList<HalvaneUploadedFileInfo>& files,
                              const QList<HalvaneUploadedFolderInfo>& folders);
    int folderId() const { return m_folderId; }
    const QList<HalvaneUploadedFileInfo>& files() const { return m_files; }
    const QList<HalvaneUploadedFolderInfo>& folders() const { return m_folders; }
    void addFile(const HalvaneUploadedFileInfo& file) { m_files.append(file); }
    void addFolder(const HalvaneUploadedFolderInfo& folder) { m_folders.append(folder); }

private:
    int m_folderId;
    QList<HalvaneUploadedFileInfo> m_files;
    QList<HalvaneUploadedFolderInfo> m_folders;
};

} // namespace orx
