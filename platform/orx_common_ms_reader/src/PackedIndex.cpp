#include "PackedIndex_p.h"

#include "ChunkCursor.h"
#include "PackedFrames.h"
#include "PackedLimits.h"
#include "PackedPaths.h"
#include "PackedText.h"

#include <QJsonDocument>
#include <QtEndian>

#include <cstring>

namespace orx::vonk {

bool beginsFrame(std::span<const char> bytes, const char* kind, qint64 size) {
    return qint64(bytes.size()) >= frameLead && qFromLittleEndian<quint32>(bytes.data()) == skippableMagic &&
           qint64(qFromLittleEndian<quint32>(bytes.data() + 4)) == size - 8 &&
           std::memcmp(bytes.data() + 8, kind, 8) == 0;
}

Error damagedIndex(const QString& what) {
    return Error(ErrorCode::ChecksumMismatch, translated("it is damaged: %1.").arg(what));
}

Error unreadableIndex(const QString& what) {
    return Error(ErrorCode::ParseError, translated("%1.").arg(what));
}

Result<QJsonObject> parseManifest(QByteArrayView text) {
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromRawData(text.data(), text.size()));
    if (!document.isObject())
        return unreadableIndex(translated("its manifest is no JSON object"));
    return document.object();
}

Result<PackedIndex> readIndex(const PackedFile& file) {
    if (file.size() < headerLead)
        return unreadableIndex(translated("it is no packed acquisition"));
    const auto lead = file.read(0, headerLead);
    ORX_RETURN_ON_ERROR(lead.error());
    if (qFromLittleEndian<quint32>(lead->constData()) != skippableMagic ||
        std::memcmp(lead->constData() + 8, kHeaderKind, 8) != 0)
        return unreadableIndex(translated("it is no packed acquisition"));
    const int major = qFromLittleEndian<quint16>(lead->constData() + 16);
    const int minor = qFromLittleEndian<quint16>(lead->constData() + 18);
    if (major > vonkVersion().majorVersion())
        return unreadableIndex(
            translated("it has the format version %1.%2, and this program reads versions up to %3; update it")
                .arg(major)
                .arg(minor)
                .arg(vonkVersion().majorVersion()));
    auto index =
        major == 2 ? readIndexV2(file)
        : major == 1
            ? readIndexV1(file)
            : unreadableIndex(translated("it has the unknown format version %1.%2").arg(major).arg(minor));
    ORX_RETURN_ON_ERROR(index.error());
    if (index->metadata.formatVersion != QVersionNumber(major, minor))
        return damagedIndex(translated("header and manifest state different versions"));
    return index;
}

Error checkIndex(const PackedIndex& index) {
    ORX_RETURN_ON_ERROR(checkEntryPaths(index.metadata.entries));
    ChunkCursor cursor(index.metadata.entries);
    qint64 position = index.payloadOffset;
    for (const ChunkRow& row : index.chunks) {
        if (!cursor.accepts(row.contentSize))
            return damagedIndex(translated("its chunks do not fit its entries"));
        if (row.frameSize == 0 || qint64(row.frameSize) > largestFrame(row.contentSize))
            return damagedIndex(translated("a chunk has an impossible size"));
        cursor.take(row.contentSize);
        position += row.frameSize;
    }
    if (!cursor.atEnd())
        return damagedIndex(translated("it has fewer chunks than its entries need"));
    if (position != index.payloadEnd)
        return damagedIndex(translated("its chunks do not fill it"));
    return {};
}

} // namespace orx::vonk
