#include "PackedIndex_p.h"

#include "PackedFrames.h"
#include "PackedLimits.h"
#include "PackedText.h"

#include <QtEndian>

namespace orx::vonk {

namespace {

constexpr qint64 headerSize = 32;
constexpr qint64 footerSize = 72;
constexpr qint64 tableLead = frameLead + 8;
constexpr qint64 rowSize = 16;

template <typename T>
void append(QByteArray& bytes, T value) {
    const T little = qToLittleEndian(value);
    bytes.append(reinterpret_cast<const char*>(&little), sizeof little);
}

std::span<const char> spanOf(QByteArrayView bytes) {
    return {bytes.data(), size_t(bytes.size())};
}

QByteArray beginFrame(const char* kind, qint64 size) {
    QByteArray bytes;
    append(bytes, skippableMagic);
    append(bytes, quint32(size - 8));
    return bytes.append(kind, 8);
}

void appendVersion(QByteArray& bytes) {
    append(bytes, quint16(vonkVersion().majorVersion()));
    append(bytes, quint16(vonkVersion().minorVersion()));
    append(bytes, quint32(0));
}

struct Footer {
    quint32 version = 0;
    qint64 fileSize = 0;
    qint64 manifestOffset = 0;
    qint64 tableOffset = 0;
    QByteArray digest;
};

Error checkHeader(const PackedFile& file) {
    const auto bytes = file.read(0, headerSize);
    ORX_RETURN_ON_ERROR(bytes.error());
    if (!beginsFrame(spanOf(*bytes), kHeaderKind, headerSize) ||
        qFromLittleEndian<quint64>(bytes->constData() + 24) != digest64(spanOf(*bytes).first(24)))
        return damagedIndex(translated("its header is not what it was"));
    return {};
}

Result<Footer> readFooter(const PackedFile& file) {
    const auto bytes = file.read(file.size() - footerSize, footerSize);
    ORX_RETURN_ON_ERROR(bytes.error());
    const char* const at = bytes->constData();
    if (!beginsFrame(spanOf(*bytes), kFooterKind, footerSize) ||
        qFromLittleEndian<quint64>(at + 64) != digest64(spanOf(*bytes).first(64)))
        return damagedIndex(translated("its end is missing or not what it was"));
    Footer footer;
    footer.version = qFromLittleEndian<quint32>(at + 16);
    footer.fileSize = qint64(qFromLittleEndian<quint64>(at + 24));
    footer.manifestOffset = qint64(qFromLittleEndian<quint64>(at + 32));
    footer.tableOffset = qint64(qFromLittleEndian<quint64>(at + 40));
    footer.digest = bytes->mid(48, 16);
    return footer;
}

//! The sizes that follow from the footer, before anything is allocated for them.
Error checkFooter(const Footer& footer, const PackedFile& file) {
    if (footer.fileSize != file.size())
        return damagedIndex(
            translated("it has %1 bytes and was written with %2").arg(file.size()).arg(footer.fileSize));
    // Each compared with its neighbour first: none of the differences can overflow then.
    const bool isInOrder = footer.manifestOffset >= headerSize &&
                           footer.tableOffset >= footer.manifestOffset &&
                           footer.tableOffset <= file.size() - footerSize;
    if (!isInOrder)
        return damagedIndex(translated("its parts are not in order"));
    const qint64 manifest = footer.tableOffset - footer.manifestOffset - frameLead;
    const qint64 table = file.size() - footerSize - footer.tableOffset - tableLead;
    if (manifest < 0 || manifest > largestManifest || table < 0 || table % rowSize != 0 ||
        table / rowSize > mostChunks)
        return damagedIndex(translated("its manifest or its chunk table has an impossible size"));
    return {};
}

Result<std::vector<ChunkRow>> readTable(QByteArrayView frame) {
    const qint64 count = (frame.size() - tableLead) / rowSize;
    if (!beginsFrame(spanOf(frame), kTableKind, frame.size()) ||
        qFromLittleEndian<quint64>(frame.data() + frameLead) != quint64(count))
        return damagedIndex(translated("its chunk table is not one"));
    std::vector<ChunkRow> rows;
    rows.reserve(size_t(count));
    for (const char* at = frame.data() + tableLead; at != frame.data() + frame.size(); at += rowSize)
        rows.push_back({qFromLittleEndian<quint32>(at), qFromLittleEndian<quint32>(at + 4),
                        qFromLittleEndian<quint64>(at + 8)});
    return rows;
}

} // namespace

QByteArray packedHeader() {
    QByteArray bytes = beginFrame(kHeaderKind, headerSize);
    appendVersion(bytes);
    append(bytes, digest64(spanOf(bytes)));
    return bytes;
}

Result<QByteArray> packedTail(const VonkMetadata& metadata, const std::vector<ChunkRow>& chunks,
                              qint64 payloadEnd) {
    const QByteArray text = metadata.toText();
    if (text.size() > largestManifest || qint64(chunks.size()) > mostChunks)
        return Error(ErrorCode::InvalidArgument,
                     translated("\"%1\" has too many files for a packed acquisition, or too long a summary.")
                         .arg(metadata.name));
    QByteArray tail = beginFrame(kManifestKind, frameLead + text.size()) + text;
    const qint64 tableOffset = payloadEnd + tail.size();
    tail += beginFrame(kTableKind, tableLead + rowSize * qint64(chunks.size()));
    append(tail, quint64(chunks.size()));
    for (const ChunkRow& row : chunks) {
        append(tail, row.frameSize);
        append(tail, row.contentSize);
        append(tail, row.digest);
    }
    QByteArray footer = beginFrame(kFooterKind, footerSize);
    appendVersion(footer);
    append(footer, quint64(payloadEnd + tail.size() + footerSize));
    append(footer, quint64(payloadEnd));
    append(footer, quint64(tableOffset));
    footer += digest128(spanOf(tail));
    append(footer, digest64(spanOf(footer)));
    return tail + footer;
}

Result<PackedIndex> readIndexV2(const PackedFile& file) {
    if (file.size() < headerSize + footerSize)
        return damagedIndex(translated("its end is missing"));
    ORX_RETURN_ON_ERROR(checkHeader(file));
    const auto footer = readFooter(file);
    ORX_RETURN_ON_ERROR(footer.error());
    ORX_RETURN_ON_ERROR(checkFooter(*footer, file));
    const auto tail = file.read(footer->manifestOffset, file.size() - footerSize - footer->manifestOffset);
    ORX_RETURN_ON_ERROR(tail.error());
    if (digest128(spanOf(*tail)) != footer->digest)
        return damagedIndex(translated("its manifest or its chunk table is not what it was"));
    const qint64 manifestSize = footer->tableOffset - footer->manifestOffset;
    const auto manifest = QByteArrayView(*tail).first(manifestSize);
    if (!beginsFrame(spanOf(manifest), kManifestKind, manifestSize))
        return damagedIndex(translated("its manifest is not one"));
    auto rows = readTable(QByteArrayView(*tail).sliced(manifestSize));
    ORX_RETURN_ON_ERROR(rows.error());
    const auto json = parseManifest(manifest.sliced(frameLead));
    ORX_RETURN_ON_ERROR(json.error());
    auto metadata = VonkMetadata::fromJson(*json);
    ORX_RETURN_ON_ERROR(metadata.error());
    const QVersionNumber version(int(footer->version & 0xffff), int(footer->version >> 16));
    if (metadata->formatVersion != version)
        return damagedIndex(translated("footer and manifest state different versions"));
    return PackedIndex{std::move(*metadata), std::move(*rows), headerSize, footer->manifestOffset, true};
}

} // namespace orx::vonk
