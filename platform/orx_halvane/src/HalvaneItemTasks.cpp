#include "HalvaneItemTasks.h"

#include "UnattachedMetadata.h"

#include "HalvaneJson.h"
#include "HalvaneListingStore.h"

#include <QUuid>

namespace orx {

namespace {

using namespace halvane_json;
using Method = NetworkRequest::Method;

constexpr int kRootFolderId = 1;

QJsonObject dataOf(const QJsonObject& json) {
    return json.value(QStringLiteral("data")).toObject();
}

//! The elements under \a key, each read by the item's own deserialize().
template <typename Item>
Error readItems(const QJsonObject& data, const QString& key, QList<QSharedPointer<Item>>& items) {
    QList<QSharedPointer<Item>> all;
    const auto read = [&all](const QJsonObject& element) {
        int id = -1;
        ORX_RETURN_ON_ERROR(takeId(element, QStringLiteral("id"), id));
        auto item = QSharedPointer<Item>::create();
        ORX_RETURN_ON_ERROR(item->deserialize(element));
        all.append(item);
        return Error();
    };
    ORX_RETURN_ON_ERROR(forEachObject(data, key, read));
    items = all;
    return Error();
}

Error readFolderChain(const QJsonObject& data, QList<int>& ids, QList<QString>& names) {
    ids.clear();
    names.clear();
    return forEachObject(data, QStringLiteral("path"), [&](const QJsonObject& element) {
        int id = -1;
        QString name;
        ORX_RETURN_ON_ERROR(takeId(element, QStringLiteral("folder_id"), id));
        ORX_RETURN_ON_ERROR(take(element, QStringLiteral("folder_name"), name));
        ids.append(id);
        names.append(name);
        return Error();
    });
}

Error readVersion(const QJsonObject& element, HalvaneFileVersion& version) {
    ORX_RETURN_ON_ERROR(takeId(element, QStringLiteral("version"), version.version));
    ORX_RETURN_ON_ERROR(take(element, QStringLiteral("size"), version.size));
    ORX_RETURN_ON_ERROR(takeOptional(element, QStringLiteral("sha256"), version.sha256));
    ORX_RETURN_ON_ERROR(takeOptional(element, QStringLiteral("alias"), version.alias));
    ORX_RETURN_ON_ERROR(takeOptional(element, QStringLiteral("created_at"), version.createdAt));
    ORX_RETURN_ON_ERROR(
        takeOptional(element, QStringLiteral("source_modified_at"), version.sourceModifiedAt));
    return takeOptional(element, QStringLiteral("created_by"), version.createdBy);
}

} // namespace

HalvaneGetFilesTask::HalvaneGetFilesTask(int folderId, QObject* parent)
    : HalvaneListingTask(QStringLiteral("GetFiles(FolderID=%1)").arg(folderId),
                         QStringLiteral("/folders/%1/files").arg(folderId), parent) {}

QList<HalvaneFileItemSPtr> HalvaneGetFilesTask::files() const {
    return listing() ? listing()->files : QList<HalvaneFileItemSPtr>();
}

HalvaneListingTask::Reader HalvaneGetFilesTask::reader() const {
    return [](const QJsonObject& data, HalvaneListing& listing) {
        return readItems(data, QStringLiteral("files"), listing.files);
    };
}

HalvaneGetFoldersTask::HalvaneGetFoldersTask(std::optional<int> folderId, QObject* parent)
    : HalvaneListingTask(QStringLiteral("GetFolders(FolderID=%1)").arg(folderId.value_or(kRootFolderId)),
                         QStringLiteral("/folders/%1/folders").arg(folderId.value_or(kRootFolderId)),
                         parent) {}

QList<HalvaneFolderTreeNodeSPtr> HalvaneGetFoldersTask::foldersTree() const {
    return listing() ? listing()->folders : QList<HalvaneFolderTreeNodeSPtr>();
}

HalvaneListingTask::Reader HalvaneGetFoldersTask::reader() const {
    return [](const QJsonObject& data, HalvaneListing& listing) {
        return readItems(data, QStringLiteral("folders"), listing.folders);
    };
}

HalvaneCreateFolderTask::HalvaneCreateFolderTask(const Input& input, QObject* parent)
    : HalvaneTask(QStringLiteral("CreateFolder(%1)").arg(input.name), parent)
    , m_input(input)
    , m_key(QUuid::createUuid().toByteArray(QUuid::WithoutBraces)) {}

Result<NetworkRequest> HalvaneCreateFolderTask::prepareRequest(const QUrl& baseUrl) const {
    auto request = HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/folders"), Method::Post);
    if (request.hasError())
        return request;
    QJsonObject body{{QStringLiteral("name"), m_input.name}, {QStringLiteral("parent_id"), m_input.parentId}};
    if (!m_input.userGroups.isEmpty()) {
        QJsonArray groups;
        for (const int group : m_input.userGroups)
            groups.append(group);
        body.insert(QStringLiteral("usergroup_ids"), groups);
    }
    setJsonBody(*request, body);
    request->setHeader("Idempotency-Key", m_key);
    request->idempotent = true;
    return request;
}

Error HalvaneCreateFolderTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    ORX_RETURN_ON_ERROR(asInvalidReply(take(dataOf(json), QStringLiteral("name"), m_name)));
    return asInvalidReply(takeId(dataOf(json), QStringLiteral("id"), m_id));
}

HalvaneGetFolderTask::HalvaneGetFolderTask(int folderId, QObject* parent)
    : HalvaneTask(QStringLiteral("GetFolder(ID=%1)").arg(folderId), parent), m_folderId(folderId) {}

Result<NetworkRequest> HalvaneGetFolderTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/folders/%1").arg(m_folderId), Method::Get);
}

Error HalvaneGetFolderTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    ORX_RETURN_ON_ERROR(asInvalidReply(readFolderChain(dataOf(json), m_ids, m_names)));
    return asInvalidReply(m_item.deserialize(dataOf(json)));
}

HalvaneGetFileMetadataTask::HalvaneGetFileMetadataTask(int fileId, QObject* parent)
    : HalvaneTask(QStringLiteral("GetFileMetadata(ID=%1)").arg(fileId), parent), m_fileId(fileId) {}

Result<NetworkRequest> HalvaneGetFileMetadataTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/files/%1").arg(m_fileId), Method::Get);
}

Error HalvaneGetFileMetadataTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(m_item.deserialize(dataOf(json)));
}

HalvaneGetFilePathTask::HalvaneGetFilePathTask(int fileId, QObject* parent)
    : HalvaneTask(QStringLiteral("GetFilePath(ID=%1)").arg(fileId), parent), m_fileId(fileId) {}

Result<NetworkRequest> HalvaneGetFilePathTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/files/%1/path").arg(m_fileId), Method::Get);
}

Error HalvaneGetFilePathTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    return asInvalidReply(readFolderChain(dataOf(json), m_ids, m_names));
}

HalvaneGetFileVersionsTask::HalvaneGetFileVersionsTask(int fileId, QObject* parent)
    : HalvaneTask(QStringLiteral("GetFileVersions(ID=%1)").arg(fileId), parent), m_fileId(fileId) {}

Result<NetworkRequest> HalvaneGetFileVersionsTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/files/%1/versions").arg(m_fileId),
                                       Method::Get);
}

Error HalvaneGetFileVersionsTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    m_versions.clear();
    return asInvalidReply(
        forEachObject(dataOf(json), QStringLiteral("versions"), [this](const QJsonObject& element) {
            HalvaneFileVersion version;
            ORX_RETURN_ON_ERROR(readVersion(element, version));
            m_versions.append(version);
            return Error();
        }));
}

HalvaneGetVersionTraceTask::HalvaneGetVersionTraceTask(int fileId, int version, QObject* parent)
    : HalvaneTask(QStringLiteral("GetVersionTrace(ID=%1@%2)").arg(fileId).arg(version), parent)
    , m_fileId(fileId)
    , m_version(version) {}

Result<NetworkRequest> HalvaneGetVersionTraceTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(
        baseUrl, QStringLiteral("/files/%1/versions/%2/trace").arg(m_fileId).arg(m_version), Method::Get);
}

Error HalvaneGetVersionTraceTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const QJsonValue trace = dataOf(json).value(QStringLiteral("trace"));
    if (!trace.isObject())
        return asInvalidReply(
            Error(ErrorCode::ParseError, QStringLiteral("\"trace\" is missing or no object.")));
    m_trace = trace.toObject();
    return Error();
}

HalvanePutExtendedMetaDataTask::HalvanePutExtendedMetaDataTask(
    int fileId, const QList<HalvaneCompactExtendedMetaDataValue>& values, QObject* parent)
    : HalvaneTask(QStringLiteral("PutExtendedMetaData(ID=%1)").arg(fileId), parent)
    , m_fileId(fileId)
    , m_values(values)
    , m_record(UnattachedMetadata::find(fileId)) {}

Error HalvanePutExtendedMetaDataTask::doFinish() {
    if (m_record && !hasError())
        m_record->remove();
    m_record.reset();
    return HalvaneTask::doFinish();
}

Result<NetworkRequest> HalvanePutExtendedMetaDataTask::prepareRequest(const QUrl& baseUrl) const {
    auto request = HalvaneTask::prepareRequest(
        baseUrl, QStringLiteral("/files/%1/extended-metadata").arg(m_fileId), Method::Put);
    if (request.hasError())
        return request;
    QJsonArray values;
    for (const HalvaneCompactExtendedMetaDataValue& value : m_values)
        values.append(
            QJsonObject{{QStringLiteral("key"), value.key}, {QStringLiteral("value"), value.value}});
    setJsonBody(*request, {{QStringLiteral("values"), values}});
    request->idempotent = true;
    return request;
}

} // namespace orx
