#include "VonkMetadata.h"

#include "PackedLimits.h"
#include "PackedText.h"

#include <ContentHash.h>
#include <JsonUtils.h>

#include <QJsonArray>
#include <QJsonDocument>

namespace orx::vonk {

namespace {

const QString kVersion = QStringLiteral("format_version");
const QString kEntries = QStringLiteral("entries");
const QString kName = QStringLiteral("name");
const QString kSourceKind = QStringLiteral("source_kind");
const QString kSummary = QStringLiteral("run_summary");
const QString kSummaryAbsent = QStringLiteral("run_summary_absent");
const QString kPath = QStringLiteral("path");
const QString kType = QStringLiteral("type");
const QString kSize = QStringLiteral("size");
const QString kModified = QStringLiteral("modified");
const QString kSha256 = QStringLiteral("sha256");
const QString kFile = QStringLiteral("file");
const QString kDirectory = QStringLiteral("directory");

QJsonObject entryToJson(const VonkEntry& entry) {
    QJsonObject json{{kPath, entry.path},
                     {kType, entry.isFile() ? kFile : kDirectory},
                     {kModified, entry.modified.toString()}};
    if (entry.isFile()) {
        json.insert(kSize, entry.size);
        json.insert(kSha256, QString::fromLatin1(entry.sha256));
    }
    return json;
}

Error malformed(const QString& path, const QString& what) {
    return Error(ErrorCode::ParseError,
                 translated("The entry \"%1\" of the packed acquisition has no valid %2.").arg(path, what));
}

Error readFileMembers(const QJsonObject& json, VonkEntry& entry) {
    const auto size = JsonUtils::int64Value(json, kSize);
    const auto digest = JsonUtils::stringValue(json, kSha256);
    for (const Error& error : {size.error(), digest.error()})
        ORX_RETURN_ON_ERROR(error);
    entry.size = *size;
    entry.sha256 = digest->toUtf8();
    if (entry.size < 0 || entry.size > largestPayload)
        return malformed(entry.path, kSize);
    return ContentHash::isHexDigest(entry.sha256) ? Error() : malformed(entry.path, kSha256);
}

Result<VonkEntry> entryFromJson(const QJsonValue& value) {
    const QJsonObject json = value.toObject();
    const auto path = JsonUtils::stringValue(json, kPath);
    const auto type = JsonUtils::stringValue(json, kType);
    const auto modified = JsonUtils::stringValue(json, kModified);
    for (const Error& error : {path.error(), type.error(), modified.error()})
        ORX_RETURN_ON_ERROR(error);
    VonkEntry entry;
    entry.path = *path;
    const auto time = PackedTime::fromString(*modified);
    if (!time)
        return malformed(entry.path, kModified);
    entry.modified = *time;
    if (*type == kDirectory) {
        entry.type = VonkEntry::Type::Directory;
        return entry;
    }
    if (*type != kFile)
        return malformed(entry.path, kType);
    ORX_RETURN_ON_ERROR(readFileMembers(json, entry));
    return entry;
}

Error readSummary(const QJsonObject& json, VonkMetadata& metadata) {
    if (json.contains(kSummary)) {
        auto summary = JsonUtils::objectValue(json, kSummary);
        ORX_RETURN_ON_ERROR(summary.error());
        metadata.runSummary = std::move(*summary);
    }
    if (json.contains(kSummaryAbsent)) {
        auto reason = JsonUtils::stringValue(json, kSummaryAbsent);
        ORX_RETURN_ON_ERROR(reason.error());
        metadata.runSummaryAbsent = std::move(*reason);
    }
    return {};
}

Error readVersion(const QString& text, VonkMetadata& metadata) {
    qsizetype end = 0;
    metadata.formatVersion = QVersionNumber::fromString(text, &end);
    if (!metadata.formatVersion.isNull() && end == text.size())
        return {};
    return Error(ErrorCode::ParseError,
                 translated("\"%1\" is not the format version of a packed acquisition.").arg(text));
}

} // namespace

QVersionNumber vonkVersion() {
    return QVersionNumber(2, 0);
}

qint64 VonkMetadata::totalSize() const {
    qint64 total = 0;
    for (const VonkEntry& entry : entries)
        total += entry.size;
    return total;
}

QJsonObject VonkMetadata::toJson() const {
    QJsonArray list;
    for (const VonkEntry& entry : entries)
        list.append(entryToJson(entry));
    QJsonObject json{
        {kVersion, formatVersion.toString()}, {kEntries, list}, {kName, name}, {kSourceKind, sourceKind}};
    if (runSummary)
        json.insert(kSummary, *runSummary);
    if (!runSummaryAbsent.isEmpty())
        json.insert(kSummaryAbsent, runSummaryAbsent);
    return json;
}

QByteArray VonkMetadata::toText() const {
    QJsonObject rest = toJson();
    const QJsonObject version{{kVersion, rest.take(kVersion)}};
    QByteArray text = QJsonDocument(version).toJson(QJsonDocument::Compact);
    text.chop(1);
    return text + ',' + QJsonDocument(rest).toJson(QJsonDocument::Compact).mid(1);
}

Result<VonkMetadata> VonkMetadata::fromJson(const QJsonObject& json) {
    const auto version = JsonUtils::stringValue(json, kVersion);
    const auto list = JsonUtils::arrayValue(json, kEntries);
    const auto name = JsonUtils::stringValue(json, kName);
    const auto kind = JsonUtils::stringValue(json, kSourceKind);
    for (const Error& error : {version.error(), list.error(), name.error(), kind.error()})
        ORX_RETURN_ON_ERROR(error);
    VonkMetadata metadata;
    ORX_RETURN_ON_ERROR(readVersion(*version, metadata));
    metadata.name = *name;
    metadata.sourceKind = *kind;
    for (const QJsonValue& value : *list) {
        auto entry = entryFromJson(value);
        ORX_RETURN_ON_ERROR(entry.error());
        metadata.entries.append(std::move(*entry));
    }
    ORX_RETURN_ON_ERROR(readSummary(json, metadata));
    return metadata;
}

} // namespace orx::vonk
