#include "HalvaneTask.h"

#include "HalvaneConnection.h"
#include "HalvaneError.h"

#include <NetworkError.h>

#include <QJsonDocument>

#include <optional>

namespace orx {

namespace {

//! What a reply object is by its envelope.
enum class Envelope { Success, Failure, None };

struct ServerFailure {
    int code = 0;
    QString message;
};

//! The failure that an envelope tells of; nothing when it is none. Code 0 would be no error at all.
std::optional<ServerFailure> failureOf(const QJsonObject& json) {
    const auto error = JsonUtils::objectValue(json, QStringLiteral("error"));
    if (error.hasError())
        return std::nullopt;
    const auto code = JsonUtils::intValue(*error, QStringLiteral("code"));
    const auto message = JsonUtils::stringValue(*error, QStringLiteral("message"));
    if (code.hasError() || *code < 1 || message.hasError())
        return std::nullopt;
    return ServerFailure{*code, *message};
}

Envelope envelopeOf(const QJsonObject& json) {
    const QString status = json.value(QStringLiteral("status")).toString();
    if (status == QStringLiteral("success"))
        return Envelope::Success;
    if (status == QStringLiteral("error") && failureOf(json))
        return Envelope::Failure;
    return Envelope::None;
}

QString serverName() {
    return HalvaneConnection::instance().settings().machineSettingsPtr()->url().toDisplayString(
        QUrl::RemoveUserInfo);
}

bool isSuccess(int status) {
    return status >= 200 && status < 300;
}

} // namespace

HalvaneTask::HalvaneTask(const QString& name, QObject* parent) : NetworkTask(name, parent) {}

HalvaneTask::~HalvaneTask() = default;

Error HalvaneTask::notAServer(const QString& detail) {
    return Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply),
                 tr("The address \"%1\" does not answer like a Halvane server: %2 Check the server's URL.")
                     .arg(serverName(), detail));
}

Error HalvaneTask::notAReply() {
    return notAServer(tr("Its reply does not have the form of one."));
}

Error HalvaneTask::asInvalidReply(const Error& error) {
    if (!error.hasError() || error.domain() != ErrorDomain::General)
        return error;
    return ORX_ECATCH(notAServer(error.errorMessage()));
}

Error HalvaneTask::parseData(const QJsonObject& json) {
    switch (envelopeOf(json)) {
    case Envelope::Success:
        return Error();
    case Envelope::Failure: {
        const ServerFailure failure = *failureOf(json);
        return ORX_ECATCH(halvaneError(HalvaneServerErrorCode(failure.code), failure.message));
    }
    case Envelope::None:
        break;
    }
    return ORX_ECATCH(notAReply());
}

std::optional<QJsonObject> HalvaneTask::successData(const QJsonObject& json) {
    if (envelopeOf(json) != Envelope::Success)
        return std::nullopt;
    return json.value(QStringLiteral("data")).toObject();
}

void HalvaneTask::setJsonBody(NetworkRequest& request, const QJsonObject& body) {
    request.body = std::make_shared<const QByteArray>(QJsonDocument(body).toJson(QJsonDocument::Compact));
    request.setHeader("Content-Type", "application/json");
}

bool HalvaneTask::needsAuthentication() const {
    return true;
}

QUrl HalvaneTask::baseUrl() const {
    return HalvaneConnection::instance().apiUrl();
}

Error HalvaneTask::initialize() {
    ORX_RETURN_ON_ERROR(NetworkTask::initialize());
    const HalvaneConnection& connection = HalvaneConnection::instance();
    const QByteArray token = needsAuthentication() ? connection.token() : QByteArray();
    if (needsAuthentication() && token.isEmpty())
        return ORX_ECATCH(
            Error(ErrorCode::NotAuthenticated, tr("Nobody is logged in at a Halvane server. Log in first.")));
    if (!connection.apiUrl().isValid())
        return ORX_ECATCH(Error(
            ErrorDomain::Network, int(NetworkErrorCode::InvalidRequest),
            tr("\"%1\" is not the address of a server. It must look like https://host or https://host:port.")
                .arg(serverName())));
    setAuthenticationToken(token);
    return Error();
}

Error HalvaneTask::handleReply(const NetworkReply& reply) {
    const Result<QJsonObject> json = JsonUtils::parseObject(reply.body);
    const Envelope envelope = json.hasError() ? Envelope::None : envelopeOf(*json);
    if (isSuccess(reply.status)) {
        if (json.hasError())
            return ORX_ECATCH(notAServer(json.errorMessage()));
        if (envelope == Envelope::Failure)
            return ORX_ECATCH(
                notAServer(tr("It reports an error with the HTTP status %1.").arg(reply.status)));
        ORX_RETURN_ON_ERROR(parseData(*json));
        // Of calls that read nothing of it.
        return json->value(QStringLiteral("data")).isObject() ? Error() : ORX_ECATCH(notAReply());
    }
    if (envelope == Envelope::Failure)
        return ORX_ECATCH(HalvaneTask::parseData(*json));
    if (envelope == Envelope::Success)
        return ORX_ECATCH(notAServer(tr("It reports success with the HTTP status %1.").arg(reply.status)));
    return ORX_ECATCH(
        Error(ErrorDomain::Network, int(NetworkErrorCode::HttpStatus),
              tr("\"%1\" answered with the HTTP status %2 and no explanation that a Halvane server gives. "
                 "Check the server's URL; something between here and the server (a proxy) may be the cause.")
                  .arg(serverName(), QString::number(reply.status))));
}

HalvaneComplexTask::HalvaneComplexTask(const QString& name, QObject* parent)
    : CustomComplexTask(name, parent) {}

HalvaneComplexTask::HalvaneComplexTask(QObject* parent) : HalvaneComplexTask(QString(), parent) {}

HalvaneComplexTask::HalvaneComplexTask() : HalvaneComplexTask(nullptr) {}

HalvaneComplexTask::~HalvaneComplexTask() = default;

} // namespace orx
