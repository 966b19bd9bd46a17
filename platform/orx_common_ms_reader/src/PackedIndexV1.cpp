#include "PackedIndex_p.h"

#include "PackedLimits.h"
#include "PackedText.h"

#include <ContentHash.h>
#include <JsonUtils.h>

#include <QJsonArray>
#include <QtEndian>

namespace orx::vonk {

namespace {

constexpr qint64 headerSize = 72;

QByteArray sha256Of(const QByteArray& bytes) {
    ContentHash hash;
    hash.add(bytes.constData(), bytes.size());
    return hash.hexDigest();
}

//! The entry as the current format has it, so that both are read by the same rules.
Result<QJsonObject> currentEntry(const QJsonValue& value) {
    const QJsonObject json = value.toObject();
    const auto name = JsonUtils::stringValue(json, QStringLiteral("name"));
    const auto bytes = JsonUtils::int64Value(json, QStringLiteral("bytes"));
    const auto mtime = JsonUtils::int64Value(json, QStringLiteral("mtime"));
    const auto digest = JsonUtils::stringValue(json, QStringLiteral("sha256"));
    for (const Error& error : {name.error(), bytes.error(), mtime.error(), digest.error()})
        ORX_RETURN_ON_ERROR(error);
    return QJsonObject{{QStringLiteral("path"), *name},
                       {QStringLiteral("type"), QStringLiteral("file")},
                       {QStringLiteral("size"), *bytes},
                       {QStringLiteral("modified"), QString::number(*mtime)},
                       {QStringLiteral("sha256"), *digest}};
}

Result<VonkMetadata> readMetadata(const QJsonObject& json) {
    const auto version = JsonUtils::stringValue(json, QStringLiteral("version"));
    const auto name = JsonUtils::stringValue(json, QStringLiteral("name"));
    const auto source = JsonUtils::stringValue(json, QStringLiteral("source"));
    const auto files = JsonUtils::arrayValue(json, QStringLiteral("files"));
    for (const Error& error : {version.error(), name.error(), source.error(), files.error()})
        ORX_RETURN_ON_ERROR(error);
    QJsonArray entries;
    for (const QJsonValue& value : *files) {
        const auto entry = currentEntry(value);
        ORX_RETURN_ON_ERROR(entry.error());
        entries.append(*entry);
    }
    return VonkMetadata::fromJson({{QStringLiteral("format_version"), *version},
                                   {QStringLiteral("entries"), entries},
                                   {QStringLiteral("name"), *name},
                                   {QStringLiteral("source_kind"), *source}});
}

bool isSize(const QJsonValue& value) {
    return value.isDouble() && value.toInteger(-1) > 0 && value.toInteger(-1) <= INT32_MAX;
}

Result<std::vector<ChunkRow>> readRows(const QJsonObject& json) {
    const auto frames = JsonUtils::arrayValue(json, QStringLiteral("frames"));
    ORX_RETURN_ON_ERROR(frames.error());
    std::vector<ChunkRow> rows;
    for (const QJsonValue& value : *frames) {
        const QJsonArray row = value.toArray();
        if (row.size() != 2 || !isSize(row[0]) || !isSize(row[1]))
            return unreadableIndex(translated("its list of frames is not one"));
        rows.push_back({quint32(row[0].toInteger()), quint32(row[1].toInteger()), 0});
    }
    return rows;
}

} // namespace

Result<PackedIndex> readIndexV1(const PackedFile& file) {
    if (file.size() < headerSize + frameLead)
        return damagedIndex(translated("its end is missing"));
    const auto header = file.read(0, headerSize);
    ORX_RETURN_ON_ERROR(header.error());
    const char* const at = header->constData();
    const qint64 offset = qint64(qFromLittleEndian<quint64>(at + 24));
    const qint64 size = qint64(qFromLittleEndian<quint64>(at + 32));
    if (!beginsFrame({at, size_t(headerSize)}, kHeaderKind, headerSize) ||
        qFromLittleEndian<quint32>(at + 20) != 0)
        return damagedIndex(translated("its header is not what it was"));
    if (size < 0 || size > largestManifest || offset < headerSize || offset > file.size() ||
        offset + frameLead + size != file.size())
        return damagedIndex(translated("its end is missing or not what it was"));
    const auto tail = file.read(offset, frameLead + size);
    ORX_RETURN_ON_ERROR(tail.error());
    const QByteArray text = tail->mid(frameLead);
    if (!beginsFrame({tail->constData(), size_t(tail->size())}, kManifestKind, tail->size()) ||
        sha256Of(text) != header->mid(40, 32).toHex())
        return damagedIndex(translated("its manifest is not what it was"));
    const auto json = parseManifest(text);
    ORX_RETURN_ON_ERROR(json.error());
    auto metadata = readMetadata(*json);
    ORX_RETURN_ON_ERROR(metadata.error());
    auto rows = readRows(*json);
    ORX_RETURN_ON_ERROR(rows.error());
    return PackedIndex{std::move(*metadata), std::move(*rows), headerSize, offset, false};
}

} // namespace orx::vonk
