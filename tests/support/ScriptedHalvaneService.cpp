#include "ScriptedHalvaneService.h"
#include "ScriptedReplies.h"

#include <QCryptographicHash>
#include <QJsonDocument>

#include <xxhash.h>

#include <atomic>

namespace orx::testing {

using namespace scripted;
using Code = HalvaneServerErrorCode;

namespace {

//! What `Range` asks of \a size bytes, as offset and length; nothing when it lies outside.
std::optional<std::pair<qint64, qint64>> parseRange(const QByteArray& range, qint64 size) {
    const QByteArray text = range.mid(6);
    const qsizetype dash = text.indexOf('-');
    const QByteArray first = text.left(dash);
    const QByteArray last = text.mid(dash + 1);
    if (first.isEmpty()) {
        const qint64 count = std::min(last.toLongLong(), size);
        return count > 0 ? std::optional(std::pair(size - count, count)) : std::nullopt;
    }
    const qint64 begin = first.toLongLong();
    const qint64 end = last.isEmpty() ? size - 1 : std::min(last.toLongLong(), size - 1);
    return begin < size && begin <= end ? std::optional(std::pair(begin, end - begin + 1)) : std::nullopt;
}

} // namespace

QByteArray xxh3Hex(const QByteArray& data) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(data.constData(), size_t(data.size())));
    return QByteArray(reinterpret_cast<const char*>(canonical.digest), sizeof(canonical.digest)).toHex();
}

QByteArray sha256Hex(const QByteArray& data) {
    return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
}

QString ScriptedRequest::line() const {
    return QString::fromLatin1(method) + u' ' + path;
}

QJsonObject ScriptedRequest::json() const {
    return QJsonDocument::fromJson(body).object();
}

QJsonObject ScriptedHalvaneService::File::toJson() const {
    const Version& last = versions.last();
    return {{QStringLiteral("id"), id},
            {QStringLiteral("folder_id"), folderId},
            {QStringLiteral("name"), name},
            {QStringLiteral("alias"), last.alias},
            {QStringLiteral("last_version"), int(versions.size())},
            {QStringLiteral("size"), last.content.size()},
            {QStringLiteral("sha256"), QString::fromLatin1(sha256Hex(last.content))},
            {QStringLiteral("data_type"), last.dataType},
            {QStringLiteral("created_at"), Time},
            {QStringLiteral("modified_at"), Time},
            {QStringLiteral("source_modified_at"), textOrNull(last.sourceModifiedAt)},
            {QStringLiteral("created_by"), QStringLiteral("anna")}};
}

ScriptedHalvaneService::ScriptedHalvaneService() {
    static std::atomic<int> instances = 0;
    m_instance = ++instances;
    m_folders.insert(RootFolder, Folder{RootFolder, -1, QStringLiteral("/"), {}});
}

int ScriptedHalvaneService::addFolder(const QString& name, int parentId, int id) {
    const int folderId = id == -1 ? m_nextFolder : id;
    m_nextFolder = std::max(m_nextFolder, folderId + 1);
    m_folders.insert(folderId, Folder{folderId, parentId, name, {}});
    Folder& parent = m_folders[parentId];
    m_folders[folderId].listedChange = ++parent.changes;
    // The listing that this parent is in shows that it has children.
    if (parent.parentId != -1)
        parent.listedChange = ++m_folders[parent.parentId].changes;
    return folderId;
}

int ScriptedHalvaneService::addFile(const QString& name, const QByteArray& content, int folderId, int id) {
    const int fileId = id == -1 ? m_nextFile : id;
    m_nextFile = std::max(m_nextFile, fileId + 1);
    m_files.insert(fileId, File{fileId, folderId, name, {}, {}});
    addVersion(fileId, content);
    return fileId;
}

void ScriptedHalvaneService::addVersion(int fileId, const QByteArray& content) {
    File& file = m_files[fileId];
    file.versions.append(Version{content, QString(), QStringLiteral("Regular"), QString(), {}});
    file.listedChange = ++m_folders[file.folderId].changes;
}

int ScriptedHalvaneService::openUploadCount() const {
    return int(std::count_if(m_uploads.begin(), m_uploads.end(), [](const Upload& u) { return u.open; }));
}

ScriptedReply ScriptedHalvaneService::answer(const ScriptedRequest& request) {
    const Parts parts = request.path.split(u'/', Qt::SkipEmptyParts);
    if (request.line() == u"GET /health")
        return success({{QStringLiteral("healthy"), true}});
    if (request.line() == u"POST /login")
        return login(request.json());
    if (request.header("Authorization") != "Bearer " + m_token)
        return failure(401, Code::NotAuthenticated, QStringLiteral("Log in first."));
    return route(request, parts);
}

ScriptedReply ScriptedHalvaneService::login(const QJsonObject& body) const {
    if (body[QStringLiteral("user")] != m_user || body[QStringLiteral("password")] != m_password)
        return failure(401, Code::NotAuthenticated,
                       QStringLiteral("The user name or the password is wrong."));
    return success({{QStringLiteral("token"), QString::fromLatin1(m_token)},
                    {QStringLiteral("expires_at"), Time},
                    {QStringLiteral("user"), userJson()}});
}

QJsonObject ScriptedHalvaneService::userJson() const {
    return {{QStringLiteral("id"), 1},
            {QStringLiteral("name"), m_user},
            {QStringLiteral("is_admin"), true},
            {QStringLiteral("groups"), QJsonArray()}};
}

ScriptedReply ScriptedHalvaneService::route(const ScriptedRequest& request, const Parts& parts) {
    const QString line = request.line();
    if (line == u"POST /logout")
        return success();
    if (line == u"GET /whoami") {
        return success(
            {{QStringLiteral("user"), userJson()},
             {QStringLiteral("token_expires_at"), Time},
             {QStringLiteral("server"), QJsonObject{{QStringLiteral("name"), QStringLiteral("scripted")},
                                                    {QStringLiteral("version"), QStringLiteral("1")}}}});
    }
    if (!parts.isEmpty() && parts[0] == u"folders")
        return routeFolders(request, parts);
    if (!parts.isEmpty() && parts[0] == u"files")
        return routeFiles(request, parts);
    if (!parts.isEmpty() && parts[0] == u"uploads")
        return routeUploads(request, parts);
    return notFound(QStringLiteral("call ") + line);
}

// Folders

ScriptedReply ScriptedHalvaneService::routeFolders(const ScriptedRequest& request, const Parts& parts) {
    if (request.line() == u"POST /folders")
        return createFolder(request);
    const auto folder = m_folders.constFind(parts.value(1).toInt());
    const bool isVisible = folder != m_folders.cend() && (folder->id == RootFolder || isReadable(folder->id));
    if (request.method != "GET" || !isVisible)
        return notFound(QStringLiteral("folder with the id %1").arg(parts.value(1)));
    if (parts.size() == 2)
        return success(folderJson(*folder, true));
    return listing(request, *folder, parts[2]);
}

ScriptedReply ScriptedHalvaneService::createFolder(const ScriptedRequest& request) {
    if (const auto reply = remembered("folders", request))
        return *reply;
    const QJsonObject body = request.json();
    const QString name = body[QStringLiteral("name")].toString();
    const std::optional<int> parentId = intField(body, QStringLiteral("parent_id"));
    if (!body[QStringLiteral("name")].isString())
        return badField(QStringLiteral("name"));
    if (!parentId)
        return badField(QStringLiteral("parent_id"));
    if (const auto problem = nameProblem(name))
        return *problem;
    if (!m_folders.contains(*parentId))
        return notFound(QStringLiteral("folder with the id %1").arg(*parentId));
    const int id = addFolder(name, *parentId);
    return remember("folders", request,
                    success({{QStringLiteral("id"), id}, {QStringLiteral("name"), name}}));
}

ScriptedReply ScriptedHalvaneService::listing(const ScriptedRequest& request, const Folder& folder,
                                              const QString& key) const {
    const QByteArray prefix =
        '"' + QByteArray::number(m_instance) + '-' + QByteArray::number(folder.id) + '-';
    const QByteArray tag = prefix + QByteArray::number(folder.changes) + '"';
    const QByteArray known = request.header("If-None-Match");
    if (known.contains(tag))
        return {304, {{"ETag", tag}}, {}};
    const bool isDelta = request.header("A-IM") == "changes" && known.startsWith(prefix);
    const int since = isDelta ? known.mid(prefix.size()).chopped(1).toInt() : -1;
    QJsonArray items;
    if (key == u"files") {
        for (const File& file : m_files) {
            if (file.folderId == folder.id && file.listedChange > since && isReadable(folder.id))
                items.append(file.toJson());
        }
    } else {
        for (const Folder& child : m_folders) {
            if (child.parentId == folder.id && child.listedChange > since && isReadable(child.id))
                items.append(folderJson(child, false));
        }
    }
    ScriptedReply reply = success({{key, items}});
    if (isDelta) {
        reply.status = 226;
        reply.headers += {{"IM", "changes"}, {"Delta-Base", known}};
    }
    reply.headers.append({"ETag", tag});
    return reply;
}

QJsonObject ScriptedHalvaneService::folderJson(const Folder& folder, bool withPath) const {
    const bool hasChildren = std::any_of(m_folders.begin(), m_folders.end(), [&](const Folder& f) {
        return f.parentId == folder.id && isReadable(f.id);
    });
    QJsonObject object{
        {QStringLiteral("id"), folder.id},
        {QStringLiteral("name"), folder.name},
        {QStringLiteral("parent_id"), folder.parentId},
        {QStringLiteral("has_children"), hasChildren},
        {QStringLiteral("usergroup_ids"), QJsonValue()},
        {QStringLiteral("privilege_ids"), isReadable(folder.id) ? QStringLiteral("1,2,3,4,5") : QString()}};
    if (withPath)
        object.insert(QStringLiteral("path"), chain(folder.id));
    return object;
}

//! From the outermost readable folder on, without the root.
QJsonArray ScriptedHalvaneService::chain(int folderId) const {
    QJsonArray path;
    int id = folderId;
    do {
        const Folder folder = m_folders.value(id);
        path.prepend(QJsonObject{{QStringLiteral("folder_id"), folder.id},
                                 {QStringLiteral("folder_name"), folder.name}});
        id = folder.id == m_outermost ? RootFolder : folder.parentId;
    } while (id > RootFolder);
    return path;
}

bool ScriptedHalvaneService::isReadable(int folderId) const {
    int id = folderId;
    while (id != m_outermost && id != -1)
        id = m_folders.value(id).parentId;
    return id == m_outermost;
}

// Files

ScriptedReply ScriptedHalvaneService::routeFiles(const ScriptedRequest& request, const Parts& parts) {
    const auto found = m_files.find(parts.value(1).toInt());
    if (found == m_files.end() || !isReadable(found->folderId))
        return notFound(QStringLiteral("file with the id %1").arg(parts.value(1)));
    const QString rest = parts.mid(2).join(u'/');
    const bool reads = request.method == "GET";
    if (reads && rest.isEmpty())
        return success(found->toJson());
    if (reads && rest == u"path") {
        const QJsonArray path = found->folderId == RootFolder ? QJsonArray() : chain(found->folderId);
        return success({{QStringLiteral("path"), path}});
    }
    if (reads && rest == u"versions")
        return versions(*found);
    if (reads && rest == u"extended-metadata")
        return success({{QStringLiteral("values"), found->extendedMetadata}});
    if (request.method == "PUT" && rest == u"extended-metadata")
        return putMetadata(request, *found);
    if ((reads || request.method == "HEAD") && parts.size() == 5 && parts[4] == u"content")
        return content(request, *found, parts[3]);
    return notFound(QStringLiteral("call ") + request.line());
}

ScriptedReply ScriptedHalvaneService::versions(const File& file) const {
    QJsonArray list;
    for (const Version& version : file.versions) {
        list.append(QJsonObject{{QStringLiteral("version"), int(list.size()) + 1},
                                {QStringLiteral("size"), version.content.size()},
                                {QStringLiteral("sha256"), QString::fromLatin1(sha256Hex(version.content))},
                                {QStringLiteral("alias"), version.alias},
                                {QStringLiteral("data_type"), version.dataType},
                                {QStringLiteral("created_at"), Time},
                                {QStringLiteral("source_modified_at"), textOrNull(version.sourceModifiedAt)},
                                {QStringLiteral("created_by"), m_user},
                                {QStringLiteral("verified"), true}});
    }
    return success({{QStringLiteral("versions"), list}});
}

ScriptedReply ScriptedHalvaneService::content(const ScriptedRequest& request, const File& file,
                                              const QString& version) const {
    const int number = version == u"latest" ? int(file.versions.size()) : version.toInt();
    if (number < 1 || number > file.versions.size())
        return notFound(QStringLiteral("version %1 of the file %2").arg(version).arg(file.id));
    const QByteArray bytes = file.versions[number - 1].content;
    const QByteArray sha256 = sha256Hex(bytes);
    const QByteArray tag =
        '"' + QByteArray::number(file.id) + '-' + QByteArray::number(number) + '-' + sha256 + '"';
    ScriptedReply reply{200,
                        {{"ETag", tag},
                         {"Accept-Ranges", "bytes"},
                         {"Halvane-Content-Sha256", sha256},
                         {"Halvane-File-Version", QByteArray::number(number)},
                         {"Content-Type", "application/octet-stream"}},
                        bytes};
    const QByteArray range = request.header("Range");
    const QByteArray validator = request.header("If-Range");
    if (!range.isEmpty() && (validator.isEmpty() || validator == tag)) {
        const auto part = parseRange(range, bytes.size());
        if (!part)
            return failure(416, Code::RangeNotSatisfiable, QStringLiteral("The content is shorter."));
        reply.status = 206;
        reply.body = bytes.mid(part->first, part->second);
        reply.headers.append({"Content-Range", "bytes " + QByteArray::number(part->first) + '-' +
                                                   QByteArray::number(part->first + part->second - 1) + '/' +
                                                   QByteArray::number(bytes.size())});
    }
    reply.headers.append({"Content-Length", QByteArray::number(reply.body.size())});
    if (request.method == "HEAD")
        reply.body.clear();
    return reply;
}

ScriptedReply ScriptedHalvaneService::putMetadata(const ScriptedRequest& request, File& file) {
    const QJsonValue values = request.json().value(QStringLiteral("values"));
    if (!values.isArray())
        return badField(QStringLiteral("values"));
    file.extendedMetadata = values.toArray();
    return success();
}

// Idempotency

std::optional<ScriptedReply> ScriptedHalvaneService::remembered(const QByteArray& call,
                                                                const ScriptedRequest& request) const {
    const QByteArray key = request.header("Idempotency-Key");
    const auto found = m_keyed.constFind(call + ' ' + key);
    if (key.isEmpty() || found == m_keyed.cend())
        return std::nullopt;
    if (found->request != request.body) {
        return failure(422, Code::IdempotencyMismatch,
                       QStringLiteral("The idempotency key belongs to another request."));
    }
    return found->reply;
}

ScriptedReply ScriptedHalvaneService::remember(const QByteArray& call, const ScriptedRequest& request,
                                               const ScriptedReply& reply) {
    if (const QByteArray key = request.header("Idempotency-Key"); !key.isEmpty())
        m_keyed.insert(call + ' ' + key, Keyed{request.body, reply});
    return reply;
}

} // namespace orx::testing
