#include "HalvaneJson.h"

#include <NumberUtils.h>

#include <QCoreApplication>

namespace orx::halvane_json {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::HalvaneJson", text);
}

template <typename Value>
Error store(Result<Value> value, Value& target) {
    if (value.hasError())
        return ORX_ECATCH(std::move(value).error());
    target = *std::move(value);
    return Error();
}

template <typename Value>
Error takeUnlessAbsent(const QJsonObject& object, const QString& key, Value& target) {
    if (isGiven(object, key))
        return take(object, key, target);
    target = Value();
    return Error();
}

QString nameOfElement(const QJsonValue& element, const QString& key, qsizetype position) {
    const QJsonValue id = element.toObject().value(QStringLiteral("id"));
    const QString name = translated("Element %1 of \"%2\"").arg(QString::number(position + 1), key);
    return id.isDouble() ? translated("%1 (id %2)").arg(name, QString::number(id.toDouble(), 'g', 15)) : name;
}

} // namespace

bool isGiven(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    return !value.isUndefined() && !value.isNull();
}

Error take(const QJsonObject& object, const QString& key, int& target) {
    return store(JsonUtils::intValue(object, key), target);
}

Error take(const QJsonObject& object, const QString& key, qint64& target) {
    return store(JsonUtils::int64Value(object, key), target);
}

Error take(const QJsonObject& object, const QString& key, QString& target) {
    return store(JsonUtils::stringValue(object, key), target);
}

Error take(const QJsonObject& object, const QString& key, QJsonObject& target) {
    return store(JsonUtils::objectValue(object, key), target);
}

Error take(const QJsonObject& object, const QString& key, QDateTime& target) {
    QString text;
    ORX_RETURN_ON_ERROR(take(object, key, text));
    QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!time.isValid())
        return ORX_ECATCH(
            Error(ErrorCode::ParseError,
                  translated("The value \"%2\" of the key \"%1\" is not a time.").arg(key, text)));
    if (time.timeSpec() == Qt::LocalTime)
        time.setTimeSpec(Qt::UTC);
    target = time.toUTC();
    return Error();
}

Error takeOptional(const QJsonObject& object, const QString& key, bool& target) {
    target = false;
    return isGiven(object, key) ? store(JsonUtils::boolValue(object, key), target) : Error();
}

Error takeOptional(const QJsonObject& object, const QString& key, QString& target) {
    return takeUnlessAbsent(object, key, target);
}

Error takeOptional(const QJsonObject& object, const QString& key, QDateTime& target) {
    return takeUnlessAbsent(object, key, target);
}

Error takeOptional(const QJsonObject& object, const QString& key, QList<int>& target) {
    QString text;
    ORX_RETURN_ON_ERROR(takeOptional(object, key, text));
    target.clear();
    for (const QString& part : text.split(u',', Qt::SkipEmptyParts)) {
        const Result<int> number = NumberUtils::toInt(part);
        if (number.hasError())
            return ORX_ECATCH(Error(ErrorCode::ParseError,
                                    translated("The value of the key \"%1\" is no list of numbers: %2.")
                                        .arg(key, number.errorMessage())));
        target.append(*number);
    }
    return Error();
}

Error takeId(const QJsonObject& object, const QString& key, int& target) {
    ORX_RETURN_ON_ERROR(take(object, key, target));
    if (target < 1)
        return ORX_ECATCH(
            Error(ErrorCode::ParseError,
                  translated("The value %2 of the key \"%1\" is not an id.").arg(key).arg(target)));
    return Error();
}

Error forEachObject(const QJsonObject& object, const QString& key,
                    const std::function<Error(const QJsonObject&)>& read) {
    const Result<QJsonArray> array = JsonUtils::arrayValue(object, key);
    if (array.hasError())
        return ORX_ECATCH(Error(array.error()));
    for (qsizetype position = 0; position < array->size(); ++position) {
        const QJsonValue element = array->at(position);
        const Error error = element.isObject()
                                ? read(element.toObject())
                                : Error(ErrorCode::ParseError, translated("It is not an object."));
        if (error.hasError())
            return ORX_ECATCH(Error(ErrorCode::ParseError, nameOfElement(element, key, position) +
                                                               QStringLiteral(": ") + error.errorMessage()));
    }
    return Error();
}

QJsonValue fromTime(const QDateTime& time) {
    return time.isValid() ? QJsonValue(time.toUTC().toString(Qt::ISODateWithMs)) : QJsonValue();
}

} // namespace orx::halvane_json
