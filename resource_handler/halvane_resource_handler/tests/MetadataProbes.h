#pragma once

#include "UploadFixture.h"

#include <ResourceMetadata.h>

#include <algorithm>

// What the tests of metadata and handlers share.
namespace orx::testing {

//! Whether \a error passed through a function whose signature holds \a function.
inline bool passedThrough(const Error& error, const QString& function) {
    const auto places = error.trace();
    return std::any_of(places.begin(), places.end(),
                       [&](const Error::TraceEntry& place) { return place.function.contains(function); });
}

//! How often a function whose signature holds \a function stamped \a error.
inline qsizetype stampsOf(const Error& error, const QString& function) {
    const auto places = error.trace();
    return std::count_if(places.begin(), places.end(),
                         [&](const Error::TraceEntry& place) { return place.function.contains(function); });
}

//! loadFromJson() as the framework calls it: the metadata classes do not offer it themselves.
inline Error load(ResourceMetadata& metadata, const QJsonObject& json) {
    return metadata.loadFromJson(json);
}

inline QJsonObject without(QJsonObject json, const QString& key) {
    json.remove(key);
    return json;
}

inline QJsonObject with(QJsonObject json, const QString& key, const QJsonValue& value) {
    json.insert(key, value);
    return json;
}

inline HalvaneFileItem fileItem(int id, const QString& name, int folderId = 7, int version = 3) {
    HalvaneFileItem item;
    item.setId(id);
    item.setName(name);
    item.setFolderId(folderId);
    item.setLastVersion(version);
    item.setSize(250000);
    return item;
}

inline QJsonObject serialized(const HalvaneFileItem& item) {
    QJsonObject json;
    item.serialize(json);
    return json;
}

} // namespace orx::testing
