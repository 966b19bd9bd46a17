#include "JsonUtils.h"

#include <QCoreApplication>
#include <QJsonDocument>

#include <cmath>
#include <limits>

namespace orx {
namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::JsonUtils", text);
}

Result<QJsonValue> valueOf(const QJsonObject& object, const QString& key) {
    const auto it = object.constFind(key);
    if (it == object.constEnd())
        return Error(ErrorCode::ParseError, translated("The key \"%1\" is missing.").arg(key));
    return QJsonValue(*it);
}

Error wrongType(const QString& key, const char* expected) {
    return Error(ErrorCode::ParseError,
                 translated("The value of the key \"%1\" is not %2.").arg(key, QLatin1StringView(expected)));
}

Result<double> wholeNumber(const QJsonObject& object, const QString& key, double limit) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    const double number = value->toDouble();
    if (!value->isDouble() || std::trunc(number) != number || std::fabs(number) > limit)
        return wrongType(key, "a whole number in range");
    return number;
}

} // namespace

Result<QJsonObject> JsonUtils::objectValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    return value->isObject() ? Result<QJsonObject>(value->toObject())
                             : Result<QJsonObject>(wrongType(key, "an object"));
}

Result<QJsonArray> JsonUtils::arrayValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    return value->isArray() ? Result<QJsonArray>(value->toArray())
                            : Result<QJsonArray>(wrongType(key, "an array"));
}

Result<QString> JsonUtils::stringValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    return value->isString() ? Result<QString>(value->toString()) : Result<QString>(wrongType(key, "a text"));
}

Result<bool> JsonUtils::boolValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    return value->isBool() ? Result<bool>(value->toBool()) : Result<bool>(wrongType(key, "true or false"));
}

Result<int> JsonUtils::intValue(const QJsonObject& object, const QString& key) {
    const Result<double> number = wholeNumber(object, key, 2147483648.0);
    if (number.hasError())
        return number.error();
    if (*number > double(std::numeric_limits<int>::max()))
        return wrongType(key, "a whole number in range");
    return int(*number);
}

Result<qint64> JsonUtils::int64Value(const QJsonObject& object, const QString& key) {
    // 2^53 is what 2^53 + 1 is rounded to.
    const Result<double> number = wholeNumber(object, key, 9007199254740991.0);
    if (number.hasError())
        return number.error();
    return qint64(*number);
}

Result<bool> JsonUtils::isNullValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    return value->isNull();
}

Result<QString> JsonUtils::stringOrNullValue(const QJsonObject& object, const QString& key) {
    const Result<QJsonValue> value = valueOf(object, key);
    if (value.hasError())
        return value.error();
    if (value->isNull())
        return QString();
    return value->isString() ? Result<QString>(value->toString())
                             : Result<QString>(wrongType(key, "a text or null"));
}

Result<QJsonObject> JsonUtils::parseObject(const QByteArray& text) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(text, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        return Error(ErrorCode::ParseError,
                     translated("This is not JSON: %1 at byte %2.")
                         .arg(parseError.errorString(), QString::number(parseError.offset)));
    }
    if (!document.isObject())
        return Error(ErrorCode::ParseError, translated("This JSON text is not an object."));
    return document.object();
}

} // namespace orx
