#include "ScriptedHalvaneServer.h"

#include <HalvaneConnection.h>

#include <QJsonDocument>
#include <QObject>
#include <QPointer>

namespace orx::testing {
namespace {

//! Small, so that bodies come in several pieces.
constexpr qsizetype PieceSize = 16;

QRegularExpression patternOf(const QString& text) {
    QString expression = QRegularExpression::escape(text);
    expression.replace(QStringLiteral("\\*"), QStringLiteral(".*"));
    return QRegularExpression(QRegularExpression::anchoredPattern(expression));
}

QByteArray methodName(NetworkRequest::Method method) {
    switch (method) {
    case NetworkRequest::Method::Head:
        return "HEAD";
    case NetworkRequest::Method::Get:
        return "GET";
    case NetworkRequest::Method::Post:
        return "POST";
    case NetworkRequest::Method::Put:
        return "PUT";
    case NetworkRequest::Method::Delete:
        return "DELETE";
    }
    return {};
}

ScriptedRequest recorded(const NetworkRequest& request) {
    QString path = request.url.path(QUrl::FullyDecoded);
    const QString prefix = QStringLiteral("/api/v1");
    if (path.startsWith(prefix))
        path.remove(0, prefix.size());
    return {methodName(request.method), path, request.headers, request.body ? *request.body : QByteArray()};
}

Error networkFailure(NetworkErrorCode code) {
    return Error(ErrorDomain::Network, int(code), QStringLiteral("The scripted connection failed."));
}

} // namespace

//! One request on its way; deleting it aborts it.
class ScriptedHalvaneServer::Call : public QObject, public TransportCall {
public:
    Call(ScriptedHalvaneServer* server, NetworkRequest request, ReplyHandler handler)
        : m_server(server), m_request(std::move(request)), m_handler(std::move(handler)) {}
    ~Call() override {
        if (m_server)
            m_server->m_calls.removeOne(this);
    }

    void resume() override { schedule(); }
    void detach() { m_server = nullptr; }
    bool isHeld() const { return m_held; }
    void hold() { m_held = true; }
    void release() {
        m_held = false;
        schedule();
    }
    void setReply(const ScriptedReply& reply) {
        m_reply = {reply.status, reply.headers, reply.body, Error()};
    }
    void setFailure(NetworkErrorCode code) { m_reply.error = networkFailure(code); }
    //! The connection ends after this many bytes of the body.
    void cutBody(qint64 bytes) {
        m_reply.body.truncate(bytes);
        setFailure(NetworkErrorCode::ConnectionLost);
    }
    //! Lets the reply come with the next turn of the event loop.
    void schedule() {
        QMetaObject::invokeMethod(
            this, [this] { deliver(); }, Qt::QueuedConnection);
    }

private:
    void deliver() {
        if (!m_server)
            return;
        const QPointer<Call> guard(this);
        if (const auto tell = m_request.onBytesSent; tell && m_request.body)
            tell(m_request.body->size());
        if (!guard)
            return;
        if (m_request.sink && m_reply.status / 100 == 2 && !feedSink())
            return;
        m_server->m_calls.removeOne(this);
        // The handler may delete this call.
        const ReplyHandler handler = std::move(m_handler);
        const NetworkReply reply = m_reply;
        handler(reply);
    }

    //! False when the sink wants a pause.
    bool feedSink() {
        using Verdict = BodySink::Verdict;
        Verdict verdict = Verdict::Taken;
        if (!m_begun)
            verdict = m_request.sink->begin(m_reply.status, m_reply.headers);
        m_begun = true;
        while (verdict == Verdict::Taken && m_offset < m_reply.body.size()) {
            const QByteArray piece = m_reply.body.mid(m_offset, PieceSize);
            verdict = m_request.sink->take(piece.constData(), piece.size());
            if (verdict == Verdict::Taken)
                m_offset += piece.size();
        }
        if (verdict == Verdict::Pause)
            return false;
        if (verdict == Verdict::Abort)
            m_reply.error = Error(ErrorCode::Canceled, QStringLiteral("The reply was refused."));
        m_reply.body.clear();
        return true;
    }

    ScriptedHalvaneServer* m_server;
    NetworkRequest m_request;
    ReplyHandler m_handler;
    NetworkReply m_reply;
    qsizetype m_offset = 0;
    bool m_begun = false;
    bool m_held = false;
};

ScriptedFault ScriptedFault::failure(int status, HalvaneServerErrorCode code, const QString& message) {
    const QJsonObject error{{QStringLiteral("code"), int(code)}, {QStringLiteral("message"), message}};
    const QJsonObject envelope{{QStringLiteral("status"), QStringLiteral("error")},
                               {QStringLiteral("error"), error}};
    return raw(status, QJsonDocument(envelope).toJson(QJsonDocument::Compact));
}

ScriptedFault ScriptedFault::html(int status) {
    return raw(status, "<!doctype html><html><body>Welcome to the hotel's network</body></html>");
}

ScriptedFault ScriptedFault::raw(int status, const QByteArray& body) {
    return {Kind::Reply, {status, {{"Content-Type", "text/html"}}, body}, {}, 0};
}

ScriptedHalvaneServer::ScriptedHalvaneServer() {
    Transport::setOverride(this);
}

ScriptedHalvaneServer::~ScriptedHalvaneServer() {
    Transport::setOverride(nullptr);
    for (Call* call : std::as_const(m_calls))
        call->detach();
}

void ScriptedHalvaneServer::connectClient() {
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(QStringLiteral("http://scripted.invalid"))),
                        *connection.settings().userSettingsPtr()));
    connection.setCredentials(m_service.userName(), m_service.token());
}

std::unique_ptr<TransportCall> ScriptedHalvaneServer::send(const NetworkRequest& request,
                                                           ReplyHandler handler) {
    auto call = std::make_unique<Call>(this, request, std::move(handler));
    m_calls.append(call.get());
    m_peak = std::max(m_peak, int(m_calls.size()));
    m_requests.append(recorded(request));
    if (onRequest)
        onRequest(m_requests.last());
    answer(call.get(), m_requests.last());
    return call;
}

void ScriptedHalvaneServer::answer(Call* call, const ScriptedRequest& request) {
    using Kind = ScriptedFault::Kind;
    const std::optional<ScriptedFault> fault = takeFault(request.line());
    if (fault && fault->kind == Kind::Hang)
        return;
    if (fault && fault->kind == Kind::NetworkError) {
        call->setFailure(fault->error);
        call->schedule();
        return;
    }
    ScriptedReply reply = fault && fault->kind == Kind::Reply ? fault->reply : m_service.answer(request);
    if (fault && fault->kind == Kind::TruncatedJson)
        reply.body.truncate(reply.body.size() / 2);
    if (fault && fault->kind == Kind::ReplyLost)
        call->setFailure(fault->error);
    else
        call->setReply(reply);
    if (fault && fault->kind == Kind::TruncatedBody)
        call->cutBody(fault->bytes);
    if (fault && fault->kind == Kind::Hold)
        call->hold();
    else
        call->schedule();
}

void ScriptedHalvaneServer::script(const QString& pattern, const ScriptedFault& fault, int times) {
    m_scripts.append({patternOf(pattern), fault, times});
}

std::optional<ScriptedFault> ScriptedHalvaneServer::takeFault(const QString& line) {
    for (Script& script : m_scripts) {
        if (script.times == 0 || !script.pattern.match(line).hasMatch())
            continue;
        if (script.times > 0)
            --script.times;
        return script.fault;
    }
    return std::nullopt;
}

void ScriptedHalvaneServer::release() {
    const QList<Call*> calls = m_calls;
    for (Call* call : calls) {
        if (call->isHeld())
            call->release();
    }
}

int ScriptedHalvaneServer::heldCount() const {
    return int(
        std::count_if(m_calls.begin(), m_calls.end(), [](const Call* call) { return call->isHeld(); }));
}

QStringList ScriptedHalvaneServer::log() const {
    QStringList lines;
    for (const ScriptedRequest& request : m_requests)
        lines.append(request.line());
    return lines;
}

QList<ScriptedRequest> ScriptedHalvaneServer::requests(const QString& pattern) const {
    const QRegularExpression expression = patternOf(pattern);
    QList<ScriptedRequest> found;
    for (const ScriptedRequest& request : m_requests) {
        if (expression.match(request.line()).hasMatch())
            found.append(request);
    }
    return found;
}

} // namespace orx::testing
