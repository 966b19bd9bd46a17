#pragma once

#include "orx_halvane_export.h"

#include <HalvaneResourceReference.h>

#include <optional>

namespace orx {

//! What to upload for one local entry, and where to.
class ORX_HALVANE_EXPORT UploadedFileData {
public:
    using ItemType = HalvaneResourceReference::ItemType;

    //! Nothing to upload (yet): id -1. With an id set it becomes a new item in the folder of that id.
    explicit UploadedFileData(const QString& localPath) : UploadedFileData(-1, localPath) {}
    //! A new item in the folder of this id.
    UploadedFileData(int id, const QString& localPath)
        : UploadedFileData(id, ItemType::Folder, localPath, std::nullopt) {}
    UploadedFileData(int id, ItemType itemType, const QString& localPath, const std::optional<QString>& name)
        : m_id(id), m_itemType(itemType), m_localPath(localPath), m_name(name) {}

    //! Of the file that gets a new version, or of the folder that receives a new item; -1: left out.
    int id() const { return m_id; }
    void setId(int id) { m_id = id; }
    ItemType itemType() const { return m_itemType; }
    QString localPath() const { return m_localPath; }
    //! On the server; none: by the local name.
    std::optional<QString> name() const { return m_name; }
    bool operator==(const UploadedFileData&) const = default;

private:
    int m_id;
    ItemType m_itemType;
    QString m_localPath;
    std::optional<QString> m_name;
};

} // namespace orx
