#include "HalvaneSessionTasks.h"

#include "HalvaneJson.h"

#include <algorithm>

namespace orx {

namespace {

using namespace halvane_json;

Error readUser(const QJsonObject& data, HalvaneUser& user) {
    QJsonObject object;
    ORX_RETURN_ON_ERROR(take(data, QStringLiteral("user"), object));
    ORX_RETURN_ON_ERROR(takeId(object, QStringLiteral("id"), user.id));
    ORX_RETURN_ON_ERROR(take(object, QStringLiteral("name"), user.name));
    ORX_RETURN_ON_ERROR(takeOptional(object, QStringLiteral("is_admin"), user.isAdmin));
    user.groups.clear();
    if (!isGiven(object, QStringLiteral("groups")))
        return Error();
    return forEachObject(object, QStringLiteral("groups"), [&](const QJsonObject& element) {
        HalvaneUser::Group group;
        ORX_RETURN_ON_ERROR(takeId(element, QStringLiteral("id"), group.id));
        ORX_RETURN_ON_ERROR(take(element, QStringLiteral("name"), group.name));
        user.groups.append(group);
        return Error();
    });
}

//! A token goes into a header: anything but visible ASCII would not arrive as it is.
Error readToken(const QJsonObject& data, QByteArray& token) {
    QString text;
    ORX_RETURN_ON_ERROR(take(data, QStringLiteral("token"), text));
    const bool usable = !text.isEmpty() && std::all_of(text.begin(), text.end(),
                                                       [](QChar c) { return c > u' ' && c < QChar(0x7f); });
    if (!usable)
        return ORX_ECATCH(
            Error(ErrorCode::ParseError, HalvaneLoginTask::tr("The token that it gave cannot be used.")));
    token = text.toLatin1();
    return Error();
}

} // namespace

HalvaneLoginTask::HalvaneLoginTask(const QString& user, const QString& password, QObject* parent)
    : HalvaneTask(QStringLiteral("Login(%1)").arg(user), parent), m_userName(user), m_password(password) {}

Result<NetworkRequest> HalvaneLoginTask::prepareRequest(const QUrl& baseUrl) const {
    auto request =
        HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/login"), NetworkRequest::Method::Post);
    if (!request.hasError())
        setJsonBody(*request,
                    {{QStringLiteral("user"), m_userName}, {QStringLiteral("password"), m_password}});
    return request;
}

Error HalvaneLoginTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const QJsonObject data = json.value(QStringLiteral("data")).toObject();
    QByteArray token;
    ORX_RETURN_ON_ERROR(asInvalidReply(readToken(data, token)));
    ORX_RETURN_ON_ERROR(asInvalidReply(take(data, QStringLiteral("expires_at"), m_expiresAt)));
    ORX_RETURN_ON_ERROR(asInvalidReply(readUser(data, m_user)));
    m_token = token;
    return Error();
}

HalvaneLogoutTask::HalvaneLogoutTask(QObject* parent) : HalvaneTask(QStringLiteral("Logout"), parent) {}

Result<NetworkRequest> HalvaneLogoutTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/logout"), NetworkRequest::Method::Post);
}

HalvaneWhoAmITask::HalvaneWhoAmITask(QObject* parent) : HalvaneTask(QStringLiteral("WhoAmI"), parent) {}

Result<NetworkRequest> HalvaneWhoAmITask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, QStringLiteral("/whoami"), NetworkRequest::Method::Get);
}

Error HalvaneWhoAmITask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    const QJsonObject data = json.value(QStringLiteral("data")).toObject();
    ORX_RETURN_ON_ERROR(asInvalidReply(take(data, QStringLiteral("token_expires_at"), m_expiresAt)));
    return asInvalidReply(readUser(data, m_user));
}

} // namespace orx
