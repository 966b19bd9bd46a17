#include "FakeHalvane.h"

#include <ContentHash.h>
#include <NetworkError.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

#include <algorithm>

namespace orx::testing {
namespace {

const QByteArray basePath = "/api/v1";

NetworkReply success(const QJsonObject& data) {
    return FakeHalvane::text(200, QJsonDocument({{QStringLiteral("status"), QStringLiteral("success")},
                                                 {QStringLiteral("data"), data}})
                                      .toJson());
}

QByteArray methodName(NetworkRequest::Method method) {
    return QList<QByteArray>{"HEAD", "GET", "POST", "PUT", "DELETE"}.at(int(method));
}

QByteArray sha256Of(const QByteArray& content) {
    ContentHash hash;
    hash.add(content.constData(), content.size());
    return hash.hexDigest();
}

Error lost() {
    return Error(ErrorDomain::Network, int(NetworkErrorCode::ConnectionLost),
                 QStringLiteral("The connection was lost."));
}

} // namespace

//! One request: its reply's body goes to the sink piece by piece, each from the event loop.
class FakeHalvane::Call : public QObject, public TransportCall {
public:
    Call(FakeHalvane& owner, const NetworkRequest& request, ReplyHandler replyHandler)
        : m_fake(owner), m_request(request), m_handler(std::move(replyHandler)) {
        ++m_fake.inFlight;
        m_isChunk = request.url.path().contains(QStringLiteral("/chunks/"));
        m_fake.chunksInFlight += m_isChunk;
        m_fake.maxInFlight = std::max(m_fake.maxInFlight, m_fake.inFlight);
        m_fake.maxChunksInFlight = std::max(m_fake.maxChunksInFlight, m_fake.chunksInFlight);
    }
    ~Call() override { leave(); }
    void resume() override {
        later([this] { step(); });
    }
    void answerLater(const NetworkReply& reply, qint64 bodyLimit) {
        m_reply = reply;
        m_limit = bodyLimit;
        if (m_request.onBytesSent && m_request.body)
            later([this] { (void)tellSent(m_request.body->size() / 2); });
        later([this] { begin(); });
    }

private:
    void later(std::function<void()> call) { QTimer::singleShot(0, this, std::move(call)); }
    void leave() {
        if (std::exchange(m_left, true))
            return;
        --m_fake.inFlight;
        m_fake.chunksInFlight -= m_isChunk;
    }
    //! False when who heard of it deleted this object.
    bool tellSent(qint64 bytes) {
        const QPointer<Call> guard(this);
        if (const auto tell = m_request.onBytesSent)
            tell(bytes);
        return bool(guard);
    }
    void begin() {
        if (m_isChunk && m_fake.maxChunksInFlight < m_fake.chunksAwaited) {
            later([this] { begin(); });
            return;
        }
        if (m_request.body && m_reply.status != 0 && !tellSent(m_request.body->size()))
            return;
        const bool toSink = m_request.sink && m_reply.status >= 200 && m_reply.status < 300;
        if (!toSink) {
            deliver(m_reply);
            return;
        }
        if (m_request.sink->begin(m_reply.status, m_reply.headers) == BodySink::Verdict::Abort)
            deliver(aborted());
        else
            step();
    }
    void step() {
        const qint64 end = std::min<qint64>(m_reply.body.size(), m_limit);
        if (m_offset >= end) {
            NetworkReply reply = m_reply;
            reply.body.clear();
            if (m_limit < m_reply.body.size()) {
                reply = {};
                reply.error = lost();
            }
            deliver(reply);
            return;
        }
        const qint64 size = std::min(m_fake.pieceSize, end - m_offset);
        const QPointer<Call> guard(this);
        const BodySink::Verdict verdict = m_request.sink->take(m_reply.body.constData() + m_offset, size);
        if (guard && m_fake.onStep)
            m_fake.onStep();
        if (!guard || verdict == BodySink::Verdict::Pause)
            return;
        if (verdict == BodySink::Verdict::Abort) {
            deliver(aborted());
            return;
        }
        m_offset += size;
        later([this] { step(); });
    }
    static NetworkReply aborted() {
        NetworkReply reply;
        reply.error = Error(ErrorCode::Canceled, QStringLiteral("The sink wanted no more."));
        return reply;
    }
    //! By value: the handler deletes this object.
    void deliver(NetworkReply reply) { // NOLINT(performance-unnecessary-value-param)
        leave();
        const auto handler = std::exchange(m_handler, {});
        const auto onStep = m_fake.onStep;
        handler(reply);
        if (onStep)
            onStep();
    }

    FakeHalvane& m_fake;
    NetworkRequest m_request;
    ReplyHandler m_handler;
    NetworkReply m_reply;
    qint64 m_limit = 0;
    qint64 m_offset = 0;
    bool m_isChunk = false;
    bool m_left = false;
};

FakeHalvane::FakeHalvane() {
    Transport::setOverride(this);
}

FakeHalvane::~FakeHalvane() {
    Transport::setOverride(nullptr);
}

std::unique_ptr<TransportCall> FakeHalvane::send(const NetworkRequest& request, ReplyHandler handler) {
    const QByteArray path = request.url.path(QUrl::FullyEncoded).toUtf8().mid(basePath.size());
    const QByteArray line = methodName(request.method) + " " + path;
    log.append(line);
    requests.append(request);
    auto call = std::make_unique<Call>(*this, request, std::move(handler));
    const std::optional<Fault> fault = takeFault(line);
    const auto kind = fault ? std::optional(fault->kind) : std::nullopt;
    if (kind == Fault::Hang)
        return call;
    NetworkReply reply;
    if (kind == Fault::Answer)
        reply = fault->reply;
    else if (kind != Fault::Lose)
        reply = answer(request, path);
    // NOLINTNEXTLINE(misc-redundant-expression): it takes two values compared with an optional for one.
    if (kind == Fault::Lose || kind == Fault::LoseReply) {
        reply = {};
        reply.error = lost();
    }
    call->answerLater(reply, kind == Fault::CutBody ? fault->bytes : reply.body.size());
    return call;
}

std::optional<FakeHalvane::Fault> FakeHalvane::takeFault(const QByteArray& line) {
    const auto fits = [&line](const Fault& fault) {
        const qsizetype blank = fault.request.indexOf(' ');
        return line.startsWith(fault.request.left(blank + 1)) && line.endsWith(fault.request.mid(blank + 1));
    };
    const auto found = std::find_if(m_faults.begin(), m_faults.end(), fits);
    if (found == m_faults.end())
        return std::nullopt;
    const Fault fault = *found;
    m_faults.erase(found);
    return fault;
}

NetworkReply FakeHalvane::text(int status, const QByteArray& body) {
    NetworkReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

NetworkReply FakeHalvane::failure(int status, int code, const QByteArray& message) {
    return text(status, R"({"status":"error","error":{"code":)" + QByteArray::number(code) +
                            R"(,"message":")" + message + R"("}})");
}

int FakeHalvane::addUpload(const Upload& upload) {
    const int id = int(uploads.size()) + 1;
    uploads.insert(id, upload);
    return id;
}

int FakeHalvane::count(const QByteArray& text) const {
    return int(
        std::count_if(log.begin(), log.end(), [&](const QByteArray& line) { return line.contains(text); }));
}

const NetworkRequest* FakeHalvane::last(const QByteArray& text) const {
    for (qsizetype i = log.size() - 1; i >= 0; --i) {
        if (log.at(i).contains(text))
            return &requests.at(i);
    }
    return nullptr;
}

NetworkReply FakeHalvane::answer(const NetworkRequest& request, const QByteArray& path) {
    const QList<QByteArray> parts = path.mid(1).split('/');
    const auto number = [&parts](int index) { return parts.value(index).toInt(); };
    if (parts.first() == "files" && parts.size() == 2)
        return item(number(1));
    if (parts.value(2) == "extended-metadata")
        return success({});
    if (parts.first() == "files")
        return parts.size() == 3 ? versions(number(1)) : content(request, number(1), number(3));
    if (path == "/uploads")
        return open(request);
    if (path == "/uploads/finalize")
        return finalize(request);
    if (parts.value(1) == "by-key")
        return byKey(parts.value(2));
    const auto found = uploads.find(number(1));
    if (found == uploads.end())
        return failure(404, 3, "There is no such upload.");
    if (!found->open)
        return failure(410, 9, "The upload is gone.");
    if (request.method == NetworkRequest::Method::Get)
        return success(uploadObject(number(1)));
    if (request.method == NetworkRequest::Method::Delete) {
        found->open = false;
        return success({});
    }
    if (const QByteArray sha = NetworkRequest::header(request.headers, "Halvane-Content-Sha256");
        !sha.isEmpty())
        found->sha256 = sha;
    return parts.value(2) == "chunks" ? putChunk(request, *found, number(3)) : success({});
}

NetworkReply FakeHalvane::open(const NetworkRequest& request) {
    const QByteArray key = NetworkRequest::header(request.headers, "Idempotency-Key");
    for (auto it = uploads.constBegin(); it != uploads.constEnd(); ++it) {
        if (it->key == key)
            return success(uploadObject(it.key()));
    }
    const QJsonObject body = QJsonDocument::fromJson(*request.body).object();
    Upload upload;
    upload.name = body.value(QStringLiteral("name")).toString();
    upload.size = body.value(QStringLiteral("size")).toInteger(-1);
    upload.targetId = body.value(QStringLiteral("target_id")).toInt();
    upload.targetType = body.value(QStringLiteral("target_type")).toInt(-1);
    upload.sourceModifiedAt = body.value(QStringLiteral("source_modified_at"));
    upload.key = key;
    return success(uploadObject(addUpload(upload)));
}

NetworkReply FakeHalvane::byKey(const QByteArray& key) const {
    for (auto it = uploads.constBegin(); it != uploads.constEnd(); ++it) {
        if (it->key != key || (!it->open && it->fileId == 0))
            continue;
        if (it->fileId != 0)
            return success({{QStringLiteral("state"), QStringLiteral("finalized")},
                            {QStringLiteral("file"), fileObject(it->fileId, 1)}});
        return success({{QStringLiteral("state"), QStringLiteral("open")},
                        {QStringLiteral("upload"), uploadObject(it.key())}});
    }
    return failure(404, 3, "The key is unknown.");
}

NetworkReply FakeHalvane::putChunk(const NetworkRequest& request, Upload& upload, int index) {
    if (NetworkRequest::header(request.headers, "Halvane-Chunk-Xxh3") != ChunkHash::of(*request.body))
        return failure(422, 7, "The chunk is damaged.");
    if (request.body->size() != std::min(chunkSize, upload.size - index * chunkSize))
        return failure(400, 1, "The chunk has the wrong length.");
    upload.chunks.insert(index, *request.body);
    return success({{QStringLiteral("index"), index}});
}

NetworkReply FakeHalvane::finalize(const NetworkRequest& request) {
    const QByteArray key = NetworkRequest::header(request.headers, "Idempotency-Key");
    const QJsonObject body = QJsonDocument::fromJson(*request.body).object();
    const auto found = uploads.find(body.value(QStringLiteral("upload_id")).toInt());
    if (found == uploads.end())
        return failure(404, 3);
    if (found->fileId != 0)
        return found->key == key ? success({{QStringLiteral("file"), fileObject(found->fileId, 1)}})
                                 : failure(410, 9);
    QByteArray whole;
    for (int i = 0; i < found->chunks.size(); ++i)
        whole += found->chunks.value(i);
    if (whole.size() != found->size || found->sha256.isEmpty())
        return failure(409, 8);
    if (sha256Of(whole) != found->sha256)
        return failure(422, 7);
    found->key = key;
    found->open = false;
    found->fileId = m_nextFileId++;
    addVersion(found->fileId, {whole, found->sha256, found->sourceModifiedAt});
    return success({{QStringLiteral("file"), fileObject(found->fileId, 1)}});
}

NetworkReply FakeHalvane::item(int fileId) const {
    if (!files.contains(fileId))
        return failure(404, 3, "There is no such file.");
    const int last = int(files.value(fileId).size());
    QJsonObject object = fileObject(fileId, last);
    object.insert(QStringLiteral("last_version"), last);
    return success(object);
}

NetworkReply FakeHalvane::versions(int fileId) const {
    if (!files.contains(fileId))
        return failure(404, 3, "There is no such file.");
    QJsonArray list;
    for (const Version& version : files.value(fileId)) {
        QJsonObject object = fileObject(fileId, int(list.size()) + 1);
        object.insert(QStringLiteral("alias"), QString());
        object.insert(QStringLiteral("data_type"), QStringLiteral("Regular"));
        object.insert(QStringLiteral("created_at"), QStringLiteral("2026-03-01T12:00:00.000Z"));
        object.insert(QStringLiteral("created_by"), QStringLiteral("anna"));
        object.insert(QStringLiteral("verified"), true);
        object.insert(QStringLiteral("source_modified_at"),
                      version.sourceModifiedAt.isUndefined() ? QJsonValue() : version.sourceModifiedAt);
        list.append(object);
    }
    return success({{QStringLiteral("versions"), list}});
}

NetworkReply FakeHalvane::content(const NetworkRequest& request, int fileId, int version) const {
    const Version& wanted = files.value(fileId).at(version - 1);
    const QByteArray tag =
        "\"" + QByteArray::number(fileId) + "-" + QByteArray::number(version) + "-" + wanted.sha256 + "\"";
    NetworkReply reply = text(200, wanted.content);
    reply.headers = {{"ETag", tag}};
    if (stateChecksum)
        reply.headers.append({"Halvane-Content-Sha256", wanted.sha256});
    const QByteArray range = NetworkRequest::header(request.headers, "Range");
    if (range.isEmpty() || !honoursRanges || NetworkRequest::header(request.headers, "If-Range") != tag)
        return reply;
    const qint64 offset = range.mid(6).chopped(1).toLongLong();
    const QByteArray size = QByteArray::number(wanted.content.size());
    reply.status = 206;
    reply.body = wanted.content.mid(offset);
    reply.headers.append({"Content-Range", "bytes " + QByteArray::number(offset) + "-" +
                                               QByteArray::number(wanted.content.size() - 1) + "/" + size});
    return reply;
}

QJsonObject FakeHalvane::uploadObject(int id) const {
    const Upload& upload = *uploads.constFind(id);
    QJsonArray received;
    for (auto it = upload.chunks.constBegin(); it != upload.chunks.constEnd(); ++it)
        received.append(QJsonObject{{QStringLiteral("index"), it.key()},
                                    {QStringLiteral("xxh3"), QString::fromLatin1(ChunkHash::of(*it))}});
    return {{QStringLiteral("upload_id"), id},
            {QStringLiteral("name"), upload.name},
            {QStringLiteral("size"), upload.size},
            {QStringLiteral("target_id"), upload.targetId},
            {QStringLiteral("target_type"), upload.targetType},
            {QStringLiteral("chunk_size"), chunkSize},
            {QStringLiteral("received"), received}};
}

QJsonObject FakeHalvane::fileObject(int fileId, int version) const {
    const Version& made = files.value(fileId).at(version - 1);
    return {{QStringLiteral("id"), fileId},
            {QStringLiteral("version"), version},
            {QStringLiteral("folder_id"), 7},
            {QStringLiteral("name"), QStringLiteral("run")},
            {QStringLiteral("size"), made.content.size()},
            {QStringLiteral("sha256"), QString::fromLatin1(made.sha256)}};
}

} // namespace orx::testing
