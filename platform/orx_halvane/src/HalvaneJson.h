#pragma once

#include <JsonUtils.h>

#include <QDateTime>

#include <functional>

//! Reading of the server's objects into members. Each function fails with ErrorCode::ParseError and a message
//! that names the key; the target is unspecified after a failure. "Optional" keys may be missing or null,
//! which clears the target.
namespace orx::halvane_json {

bool isGiven(const QJsonObject& object, const QString& key);

Error take(const QJsonObject& object, const QString& key, int& target);
Error take(const QJsonObject& object, const QString& key, qint64& target);
Error take(const QJsonObject& object, const QString& key, QString& target);
Error take(const QJsonObject& object, const QString& key, QJsonObject& target);
//! A time is ISO 8601; one without a zone is UTC.
Error take(const QJsonObject& object, const QString& key, QDateTime& target);

Error takeOptional(const QJsonObject& object, const QString& key, bool& target);
Error takeOptional(const QJsonObject& object, const QString& key, QString& target);
Error takeOptional(const QJsonObject& object, const QString& key, QDateTime& target);
//! Numbers joined with ",".
Error takeOptional(const QJsonObject& object, const QString& key, QList<int>& target);

//! An id: a whole number from 1 on.
Error takeId(const QJsonObject& object, const QString& key, int& target);

//! Calls \a read with each element of the array under \a key, all of which must be objects; an error names
//! the array, the position of the element and its id where it has one.
Error forEachObject(const QJsonObject& object, const QString& key,
                    const std::function<Error(const QJsonObject&)>& read);

//! Null for an invalid time.
QJsonValue fromTime(const QDateTime& time);

} // namespace orx::halvane_json
