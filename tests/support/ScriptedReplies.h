#pragma once

#include "ScriptedHalvaneService.h"

#include <HalvaneError.h>

#include <QJsonDocument>

// What the parts of the scripted service make their replies of.
namespace orx::testing::scripted {

inline const QString Time = QStringLiteral("2026-03-01T12:00:00.000Z");

inline ScriptedReply jsonReply(int status, const QJsonObject& object) {
    return {
        status, {{"Content-Type", "application/json"}}, QJsonDocument(object).toJson(QJsonDocument::Compact)};
}

inline ScriptedReply success(const QJsonObject& data = {}) {
    return jsonReply(200,
                     {{QStringLiteral("status"), QStringLiteral("success")}, {QStringLiteral("data"), data}});
}

inline ScriptedReply failure(int status, HalvaneServerErrorCode code, const QString& message) {
    const QJsonObject error{{QStringLiteral("code"), int(code)}, {QStringLiteral("message"), message}};
    return jsonReply(status,
                     {{QStringLiteral("status"), QStringLiteral("error")}, {QStringLiteral("error"), error}});
}

inline ScriptedReply notFound(const QString& what) {
    return failure(404, HalvaneServerErrorCode::NotFound, QStringLiteral("There is no %1.").arg(what));
}

inline ScriptedReply badField(const QString& name) {
    return failure(400, HalvaneServerErrorCode::BadRequest,
                   QStringLiteral("The field \"%1\" is missing or mistyped.").arg(name));
}

//! A name that the server would refuse gives the reply that says so.
inline std::optional<ScriptedReply> nameProblem(const QString& name) {
    const bool control = std::any_of(name.begin(), name.end(), [](QChar c) {
        return c.unicode() < 0x20 || (c.unicode() >= 0x7f && c.unicode() <= 0x9f) || c == u'/';
    });
    if (name.isEmpty() || name == u"." || name == u".." || name.toUtf8().size() > 255 || control)
        return failure(422, HalvaneServerErrorCode::InvalidName,
                       QStringLiteral("The name \"%1\" is not allowed.").arg(name));
    return std::nullopt;
}

inline std::optional<int> intField(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    return value.isDouble() ? std::optional(value.toInt(-1)) : std::nullopt;
}

inline QJsonValue textOrNull(const QString& text) {
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

} // namespace orx::testing::scripted
