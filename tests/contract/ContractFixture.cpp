#include "ContractFixture.h"

#include <HalvaneConnection.h>

#include <QJsonDocument>

namespace orx::testing {

using Method = NetworkRequest::Method;

QJsonObject Answer::json() const {
    return QJsonDocument::fromJson(body).object();
}

QJsonObject Answer::data() const {
    const QJsonObject envelope = json();
    EXPECT_EQ(envelope[QStringLiteral("status")].toString(), QStringLiteral("success")) << body.constData();
    return envelope[QStringLiteral("data")].toObject();
}

int Answer::errorCode() const {
    const QJsonObject envelope = json();
    if (envelope[QStringLiteral("status")].toString() != u"error")
        return 0;
    const QJsonObject error = envelope[QStringLiteral("error")].toObject();
    EXPECT_FALSE(error[QStringLiteral("message")].toString().isEmpty());
    return error[QStringLiteral("code")].toInt();
}

ContractTest::ContractTest() {
    if (GetParam() == Backend::Scripted) {
        m_client = std::make_unique<ClientEnvironment>(QUrl(QStringLiteral("http://scripted.invalid")));
        m_scripted = std::make_unique<ScriptedHalvaneServer>();
        m_scripted->service().setChunkSize(ChunkSize);
        m_scripted->connectClient();
        return;
    }
    m_real = std::make_unique<RealServer>();
    m_real->setArguments({QStringLiteral("--chunk-size"), QString::number(ChunkSize)});
    EXPECT_TRUE(m_real->start());
    m_client = std::make_unique<ClientEnvironment>(m_real->url());
    EXPECT_TRUE(m_client->login());
}

ContractTest::~ContractTest() = default;

QString ContractTest::userName() const {
    return m_scripted ? m_scripted->service().userName() : QString::fromLatin1(RealServer::AdminName);
}

QString ContractTest::password() const {
    return m_scripted ? m_scripted->service().password() : QString::fromLatin1(RealServer::AdminPassword);
}

Answer ContractTest::call(Method method, const QString& path, const QByteArray& body,
                          const QList<HttpHeader>& headers) const {
    NetworkRequest request;
    request.url = HalvaneConnection::instance().apiUrl();
    request.url.setPath(request.url.path() + path);
    request.method = method;
    request.headers = headers;
    if (NetworkRequest::header(headers, "Authorization").isEmpty())
        request.setHeader("Authorization", "Bearer " + HalvaneConnection::instance().token());
    if (method == Method::Post || method == Method::Put)
        request.body = std::make_shared<const QByteArray>(body);
    std::optional<NetworkReply> reply;
    const auto sent = Transport::ofThisThread().send(request, [&](const NetworkReply& r) { reply = r; });
    EXPECT_TRUE(waitUntil([&] { return reply.has_value(); })) << qPrintable(path);
    if (!reply)
        return {};
    EXPECT_FALSE(reply->error.hasError()) << qPrintable(reply->error.errorMessage());
    return {reply->status, reply->headers, reply->body};
}

Answer ContractTest::get(const QString& path, const QList<HttpHeader>& headers) const {
    return call(Method::Get, path, {}, headers);
}

Answer ContractTest::post(const QString& path, const QJsonObject& body, const QByteArray& key) const {
    QList<HttpHeader> headers{{"Content-Type", "application/json"}};
    if (!key.isEmpty())
        headers.append({"Idempotency-Key", key});
    return call(Method::Post, path, QJsonDocument(body).toJson(QJsonDocument::Compact), headers);
}

Answer ContractTest::open(const QString& name, qint64 size, const QByteArray& key, int target,
                          int type) const {
    return post(QStringLiteral("/uploads"),
                {{QStringLiteral("name"), name},
                 {QStringLiteral("size"), size},
                 {QStringLiteral("target_id"), target},
                 {QStringLiteral("target_type"), type},
                 {QStringLiteral("source_modified_at"), QJsonValue()}},
                key);
}

Answer ContractTest::putChunk(int upload, int index, const QByteArray& chunk, const QByteArray& xxh3) const {
    return call(Method::Put, QStringLiteral("/uploads/%1/chunks/%2").arg(upload).arg(index), chunk,
                {{"Halvane-Chunk-Xxh3", xxh3.isEmpty() ? xxh3Hex(chunk) : xxh3}});
}

void ContractTest::sendAll(int upload, const QByteArray& content) const {
    for (int index = 0; index * ChunkSize < content.size(); ++index)
        EXPECT_EQ(putChunk(upload, index, content.mid(index * ChunkSize, ChunkSize)).status, 200);
    EXPECT_EQ(call(Method::Put, QStringLiteral("/uploads/%1/content-sha256").arg(upload), {},
                   {{"Halvane-Content-Sha256", sha256Hex(content)}})
                  .status,
              200);
}

Answer ContractTest::finalize(int upload, const QByteArray& key) const {
    return post(
        QStringLiteral("/uploads/finalize"),
        {{QStringLiteral("upload_id"), upload}, {QStringLiteral("file_alias"), QStringLiteral("alias")}},
        key);
}

int ContractTest::makeFile(const QString& name, const QByteArray& content, int folder) const {
    const QByteArray key = "made-" + QByteArray::number(++m_keys);
    const int upload = open(name, content.size(), key, folder).data()[QStringLiteral("upload_id")].toInt();
    sendAll(upload, content);
    return finalize(upload, key).data()[QStringLiteral("file")].toObject()[QStringLiteral("id")].toInt();
}

int ContractTest::addVersion(int fileId, const QByteArray& content) const {
    const QByteArray key = "made-" + QByteArray::number(++m_keys);
    const int upload = open(QStringLiteral("a name"), content.size(), key, fileId, 0)
                           .data()[QStringLiteral("upload_id")]
                           .toInt();
    sendAll(upload, content);
    return finalize(upload, key).data()[QStringLiteral("file")].toObject()[QStringLiteral("version")].toInt();
}

int ContractTest::makeFolder(const QString& name, int parent) const {
    return post(QStringLiteral("/folders"),
                {{QStringLiteral("name"), name}, {QStringLiteral("parent_id"), parent}})
        .data()[QStringLiteral("id")]
        .toInt();
}

void ContractTest::becomeReaderOf(int folder) const {
    if (m_scripted) {
        m_scripted->service().restrictTo(folder);
        return;
    }
    const QString group = QStringLiteral("readers");
    const QString user = QStringLiteral("ben");
    const QString secret = QStringLiteral("the password");
    m_real->admin({QStringLiteral("group"), QStringLiteral("add"), QStringLiteral("--name"), group});
    m_real->admin({QStringLiteral("user"), QStringLiteral("add"), QStringLiteral("--name"), user,
                   QStringLiteral("--group"), group, QStringLiteral("--password-stdin")},
                  secret.toUtf8() + '\n');
    m_real->admin({QStringLiteral("grant"), QStringLiteral("--folder"), QString::number(folder),
                   QStringLiteral("--group"), group, QStringLiteral("--privileges"), QStringLiteral("1")});
    EXPECT_TRUE(m_client->login(user, secret));
}

std::string backendName(const ::testing::TestParamInfo<Backend>& info) {
    return info.param == Backend::Scripted ? "Scripted" : "Real";
}

} // namespace orx::testing
