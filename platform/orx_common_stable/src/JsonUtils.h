#pragma once

#include "Result.h"

#include <QJsonArray>
#include <QJsonObject>

namespace orx {

//! Typed access to the members of a JSON object. Each function fails with ErrorCode::ParseError and a message
//! that names the key when the key is missing or its value is of another type. Thread: any.
class ORX_COMMON_STABLE_EXPORT JsonUtils {
public:
    static Result<QJsonObject> objectValue(const QJsonObject& object, const QString& key);
    static Result<QJsonArray> arrayValue(const QJsonObject& object, const QString& key);
    static Result<QString> stringValue(const QJsonObject& object, const QString& key);
    static Result<bool> boolValue(const QJsonObject& object, const QString& key);
    //! A whole number within 32 bits; 3.5 and 1e12 fail.
    static Result<int> intValue(const QJsonObject& object, const QString& key);
    //! A whole number whose magnitude is less than 2^53, so that none was rounded; others fail.
    static Result<qint64> int64Value(const QJsonObject& object, const QString& key);
    //! Whether the value is null; fails when the key is missing.
    static Result<bool> isNullValue(const QJsonObject& object, const QString& key);
    //! The text of a string; null for null; fails when the key is missing or holds anything else.
    static Result<QString> stringOrNullValue(const QJsonObject& object, const QString& key);
    //! Parses \a text as one object.
    static Result<QJsonObject> parseObject(const QByteArray& text);
};

} // namespace orx
