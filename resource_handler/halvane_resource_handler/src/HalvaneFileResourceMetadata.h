#pragma once

#include "HalvaneResourceMetadata.h"

#include <HalvaneItems.h>

namespace orx {

//! What is known of one file on the server: its record and the folders above it.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneFileResourceMetadata : public HalvaneResourceMetadata {
public:
    //! \a folderNames and \a folderIds: the folders above the file, outermost first, without the root.
    HalvaneFileResourceMetadata(const HalvaneFileItem& fileItem, const QList<QString>& folderNames,
                                const QList<int>& folderIds);
    HalvaneFileResourceMetadata(const HalvaneFileResourceMetadata&) = default;
    HalvaneFileResourceMetadata(HalvaneFileResourceMetadata&&) = default;
    HalvaneFileResourceMetadata& operator=(const HalvaneFileResourceMetadata&) = default;
    HalvaneFileResourceMetadata& operator=(HalvaneFileResourceMetadata&&) = default;
    ~HalvaneFileResourceMetadata() override;

    HalvaneFileItem fileItem() const { return m_fileItem; }
    //! What follows the last "/" of the server's name.
    QString name() const override;
    //! The names of the folders joined with "/"; empty for a file in the root.
    QString path() const override { return m_path; }
    //! Begins with "/" for a file in the root.
    QString fullPath() const override { return m_fullPath; }
    ItemType itemType() const override { return ItemType::File; }
    //! The common keys, "ParentFolderIdsPath" (decimal ids joined with ",") and "FileItem" (the server's file
    //! object).
    QJsonObject toJson() const override;
    QList<int> parentFolderIdsPath() const override { return m_parentFolderIdsPath; }
    int id() const override { return m_fileItem.id(); }

private:
    friend class ResourceMetadata;
    HalvaneFileResourceMetadata() = default;
    //! Reads what toJson() writes. The paths are taken as they stand and not made anew from the file item.
    Error loadFromJson(const QJsonObject& json) override;

    HalvaneFileItem m_fileItem;
    QString m_path;
    QString m_fullPath;
    QList<int> m_parentFolderIdsPath;
};

} // namespace orx
