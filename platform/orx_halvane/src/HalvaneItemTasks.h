#pragma once

#include "HalvaneItems.h"
#include "HalvaneListingTask.h"

#include <memory>
#include <optional>

namespace orx {

class JournalHold;

//! GET /folders/ID/files: the files of one folder, in the server's order. An element that is no file is an
//! error that names it. The list and its items are shared with other runs and not to be changed.
class ORX_HALVANE_EXPORT HalvaneGetFilesTask : public HalvaneListingTask {
    Q_OBJECT
public:
    explicit HalvaneGetFilesTask(int folderId, QObject* parent = nullptr);
    //! Empty before success.
    QList<HalvaneFileItemSPtr> files() const;

protected:
    Reader reader() const override;
};

//! GET /folders/ID/folders: the direct sub-folders of a folder, of the root without an id.
//! Shared as the lists of files are.
class ORX_HALVANE_EXPORT HalvaneGetFoldersTask : public HalvaneListingTask {
    Q_OBJECT
public:
    explicit HalvaneGetFoldersTask(std::optional<int> folderId, QObject* parent = nullptr);
    //! Direct children only. Empty before success.
    QList<HalvaneFolderTreeNodeSPtr> foldersTree() const;

protected:
    Reader reader() const override;
};

//! POST /folders, with an idempotency key of its own, so that a lost reply makes no second folder.
class ORX_HALVANE_EXPORT HalvaneCreateFolderTask : public HalvaneTask {
    Q_OBJECT
public:
    struct Input {
        QString name;
        //! None: the folder inherits its parent's privileges.
        QList<int> userGroups;
        int parentId = 1;
    };
    explicit HalvaneCreateFolderTask(const Input& input, QObject* parent = nullptr);
    int createdFolderId() const { return m_id; }
    QString createdFolderName() const { return m_name; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    Input m_input;
    QByteArray m_key;
    int m_id = -1;
    QString m_name;
};

//! GET /folders/ID: the folder and the chain above it.
class ORX_HALVANE_EXPORT HalvaneGetFolderTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetFolderTask(int folderId, QObject* parent = nullptr);
    HalvaneFolderItem folderItem() const { return m_item; }
    //! Outermost first, the folder itself last; the root's own path holds itself.
    QList<int> folderIdsPath() const { return m_ids; }
    QList<QString> folderPath() const { return m_names; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_folderId;
    HalvaneFolderItem m_item;
    QList<int> m_ids;
    QList<QString> m_names;
};

//! GET /files/ID.
class ORX_HALVANE_EXPORT HalvaneGetFileMetadataTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetFileMetadataTask(int fileId, QObject* parent = nullptr);
    HalvaneFileItem fileItem() const { return m_item; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_fileId;
    HalvaneFileItem m_item;
};

//! GET /files/ID/path: the folders above a file, outermost first, without the root.
class ORX_HALVANE_EXPORT HalvaneGetFilePathTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetFilePathTask(int fileId, QObject* parent = nullptr);
    QList<int> folderIdsPath() const { return m_ids; }
    QList<QString> folderPath() const { return m_names; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_fileId;
    QList<int> m_ids;
    QList<QString> m_names;
};

//! One version of a file.
struct ORX_HALVANE_EXPORT HalvaneFileVersion {
    int version = 0;
    qint64 size = 0;
    QString sha256;
    QString alias;
    QDateTime createdAt;
    QDateTime sourceModifiedAt;
    QString createdBy;
};

//! GET /files/ID/versions, oldest first.
class ORX_HALVANE_EXPORT HalvaneGetFileVersionsTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneGetFileVersionsTask(int fileId, QObject* parent = nullptr);
    QList<HalvaneFileVersion> versions() const { return m_versions; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_fileId;
    QList<HalvaneFileVersion> m_versions;
};

//! GET /files/ID/versions/VERSION/trace: what came with the finalisation of a version, for packed
//! acquisitions the manifest; empty when nothing did.
class ORX_HALVANE_EXPORT HalvaneGetVersionTraceTask : public HalvaneTask {
    Q_OBJECT
public:
    HalvaneGetVersionTraceTask(int fileId, int version, QObject* parent = nullptr);
    QJsonObject trace() const { return m_trace; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_fileId;
    int m_version;
    QJsonObject m_trace;
};

//! PUT /files/ID/extended-metadata. Its success ends the upload in this process that the metadata belong to:
//! the journal record is removed.
class ORX_HALVANE_EXPORT HalvanePutExtendedMetaDataTask : public HalvaneTask {
    Q_OBJECT
public:
    HalvanePutExtendedMetaDataTask(int fileId, const QList<HalvaneCompactExtendedMetaDataValue>& values,
                                   QObject* parent = nullptr);

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error doFinish() override;

private:
    int m_fileId;
    QList<HalvaneCompactExtendedMetaDataValue> m_values;
    //! Of the upload that the metadata belong to; null when there is none.
    std::shared_ptr<JournalHold> m_record;
};

} // namespace orx
