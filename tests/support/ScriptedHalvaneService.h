#pragma once

#include <NetworkRequest.h>

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>

#include <optional>

namespace orx::testing {

//! A request as the service sees it: the path below /api/v1, percent-decoded.
struct ScriptedRequest {
    QByteArray method;
    QString path;
    QList<HttpHeader> headers;
    QByteArray body;

    //! "PUT /uploads/1/chunks/0".
    QString line() const;
    QByteArray header(const QByteArray& name) const { return NetworkRequest::header(headers, name); }
    //! The body as an object; empty when it is none.
    QJsonObject json() const;
};

struct ScriptedReply {
    int status = 200;
    QList<HttpHeader> headers;
    QByteArray body;
};

//! The calls of docs/protocol.md that the client library makes, answered from memory: one user who may do
//! everything (in one folder and what is below it, when the test says so), no clock. The contract suite holds
//! it to the real server.
class ScriptedHalvaneService {
public:
    struct Version {
        QByteArray content;
        QString alias;
        QString dataType;
        QString sourceModifiedAt;
        QJsonObject vonkTrace;
    };
    struct File {
        int id = -1;
        int folderId = -1;
        QString name;
        QList<Version> versions; //!< version 1 first
        QJsonArray extendedMetadata;
        int listedChange = 0; //!< of its folder, when its item in the listing became what it is
        QJsonObject toJson() const;
    };
    struct Folder {
        int id = -1;
        int parentId = -1;
        QString name;
        QList<int> groups;
        int changes = 0;
        int listedChange = 0; //!< as that of a file, of its parent
    };

    static constexpr int RootFolder = 1;

    ScriptedHalvaneService();

    ScriptedReply answer(const ScriptedRequest& request);

    QString userName() const { return m_user; }
    QString password() const { return m_password; }
    QByteArray token() const { return m_token; }
    void setChunkSize(qint64 bytes) { m_chunkSize = bytes; }
    //! Without an id the next free one.
    int addFolder(const QString& name, int parentId = RootFolder, int id = -1);
    int addFile(const QString& name, const QByteArray& content, int folderId = RootFolder, int id = -1);
    void addVersion(int fileId, const QByteArray& content);
    const QMap<int, File>& files() const { return m_files; }
    const QMap<int, Folder>& folders() const { return m_folders; }
    int openUploadCount() const;
    //! What is neither this folder nor below it looks absent from now on, but for the root, which is empty.
    void restrictTo(int folderId) { m_outermost = folderId; }

private:
    struct Upload;
    struct Keyed {
        QByteArray request;
        ScriptedReply reply;
    };
    using Parts = QStringList;

    ScriptedReply login(const QJsonObject& body) const;
    ScriptedReply route(const ScriptedRequest& request, const Parts& parts);
    ScriptedReply routeFolders(const ScriptedRequest& request, const Parts& parts);
    ScriptedReply routeFiles(const ScriptedRequest& request, const Parts& parts);
    ScriptedReply routeUploads(const ScriptedRequest& request, const Parts& parts);
    ScriptedReply createFolder(const ScriptedRequest& request);
    ScriptedReply listing(const ScriptedRequest& request, const Folder& folder, const QString& key) const;
    ScriptedReply versions(const File& file) const;
    ScriptedReply content(const ScriptedRequest& request, const File& file, const QString& version) const;
    ScriptedReply putMetadata(const ScriptedRequest& request, File& file);
    ScriptedReply openUpload(const ScriptedRequest& request);
    //! The upload as it is, for who asks again with the key that opened it.
    ScriptedReply reopened(const QByteArray& key) const;
    ScriptedReply putChunk(const ScriptedRequest& request, Upload& upload, const QString& index);
    ScriptedReply putContentSha256(const ScriptedRequest& request, Upload& upload);
    ScriptedReply finalize(const ScriptedRequest& request);
    ScriptedReply commit(Upload& upload, const QJsonObject& body);
    ScriptedReply byKey(const QString& key) const;
    //! The reply of an earlier call with the same key, or an error when that call was another one.
    std::optional<ScriptedReply> remembered(const QByteArray& call, const ScriptedRequest& request) const;
    ScriptedReply remember(const QByteArray& call, const ScriptedRequest& request,
                           const ScriptedReply& reply);
    QJsonObject folderJson(const Folder& folder, bool withPath) const;
    QJsonArray chain(int folderId) const;
    bool isReadable(int folderId) const;
    QJsonObject userJson() const;

    struct Upload {
        int id = -1;
        QString name;
        qint64 size = 0;
        int targetId = -1;
        int targetType = 1;
        qint64 chunkSize = 0;
        QMap<int, QByteArray> chunks;
        QString contentSha256;
        QString sourceModifiedAt;
        std::optional<int> expectedVersion;
        QByteArray key;
        bool open = true;
        std::optional<QJsonObject> result;
        int chunkCount() const;
        QJsonObject toJson() const;
    };

    //! Entity tags of one service are not those of another.
    int m_instance = 0;
    //! The outermost folder that the user may read.
    int m_outermost = RootFolder;
    QString m_user = QStringLiteral("anna");
    QString m_password = QStringLiteral("correct horse battery");
    QByteArray m_token = "scripted-token";
    qint64 m_chunkSize = 8;
    QMap<int, Folder> m_folders;
    QMap<int, File> m_files;
    QMap<int, Upload> m_uploads;
    QHash<QByteArray, Keyed> m_keyed;
    int m_nextFolder = 2;
    int m_nextFile = 1;
};

//! 32 lower-case hexadecimal digits.
QByteArray xxh3Hex(const QByteArray& data);
//! 64 lower-case hexadecimal digits.
QByteArray sha256Hex(const QByteArray& data);

} // namespace orx::testing
