#include "SmallWriter.h"

#include "TarStream.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtEndian>

#include <xxhash.h>
#include <zstd.h>

#include <memory>

namespace orx::vonk {

namespace {

template <typename T>
QByteArray number(T value) {
    const T little = qToLittleEndian(value);
    return QByteArray(reinterpret_cast<const char*>(&little), sizeof little);
}

QByteArray skippable(const char* kind, const QByteArray& rest) {
    return number(quint32(0x184D2A56)) + number(quint32(8 + rest.size())) + kind + rest;
}

QByteArray withDigest(const QByteArray& bytes) {
    return bytes + number(quint64(XXH3_64bits(bytes.constData(), size_t(bytes.size()))));
}

QByteArray canonical128(const QByteArray& bytes) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(bytes.constData(), size_t(bytes.size())));
    return QByteArray(reinterpret_cast<const char*>(canonical.digest), 16);
}

QByteArray payloadOf(const QList<SmallWriter::Chunk>& chunks) {
    QByteArray payload;
    for (const auto& chunk : chunks)
        payload += chunk.frame;
    return payload;
}

} // namespace

SmallWriter smallSample(int major) {
    SmallWriter writer(major);
    if (major != 1)
        writer.addDirectory(QStringLiteral("content/run1.raw"), 1'600'000'000);
    writer.addFile(QStringLiteral("content/run1.raw/empty"), {});
    writer.addFile(QStringLiteral("content/run1.raw/scans.bin"), QByteArray(3000, 's') + "end", 1'700'000'001,
                   1500);
    writer.addFile(QStringLiteral("content/run1.raw/Überschrift.txt"), "m/z");
    writer.finish();
    return writer;
}

QByteArray sha256Hex(const QByteArray& content) {
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();
}

quint64 digestOf(const QByteArray& bytes) {
    return XXH3_64bits(bytes.constData(), size_t(bytes.size()));
}

SmallWriter::SmallWriter(int majorVersion, int minorVersion)
    : major(quint16(majorVersion)), minor(quint16(minorVersion)) {}

SmallWriter::Chunk SmallWriter::chunkOf(const QByteArray& content) {
    const std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context(ZSTD_createCCtx(), &ZSTD_freeCCtx);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    QByteArray frame(qsizetype(ZSTD_compressBound(size_t(content.size()))), '\0');
    frame.resize(qsizetype(ZSTD_compress2(context.get(), frame.data(), size_t(frame.size()),
                                          content.constData(), size_t(content.size()))));
    return {frame, quint32(frame.size()), quint32(content.size()),
            XXH3_64bits(frame.constData(), size_t(frame.size()))};
}

void SmallWriter::addHead(const VonkEntry& entry) {
    chunks.append(chunkOf(tarHead(entry, entries.isEmpty() ? 0 : entries.last().size)));
    entries.append(entry);
}

void SmallWriter::addFile(const QString& path, const QByteArray& content, qint64 seconds, int chunkSize) {
    addHead({path, VonkEntry::Type::File, content.size(), {seconds, 0}, sha256Hex(content)});
    for (qsizetype at = 0; at < content.size(); at += chunkSize)
        chunks.append(chunkOf(content.mid(at, chunkSize)));
}

void SmallWriter::addDirectory(const QString& path, qint64 seconds) {
    addHead({path, VonkEntry::Type::Directory, 0, {seconds, 0}, {}});
}

void SmallWriter::finish() {
    chunks.append(chunkOf(tarEnd(entries.last().size)));
    VonkMetadata metadata;
    metadata.formatVersion = QVersionNumber(major, minor);
    metadata.name = name;
    metadata.sourceKind = kind;
    metadata.entries = entries;
    manifest = metadata.toJson();
    if (major != 1)
        return;
    QJsonArray files;
    for (const VonkEntry& entry : std::as_const(entries))
        files.append(QJsonObject{{QStringLiteral("name"), entry.path},
                                 {QStringLiteral("bytes"), entry.size},
                                 {QStringLiteral("mtime"), entry.modified.seconds},
                                 {QStringLiteral("sha256"), QString::fromLatin1(entry.sha256)}});
    manifest = {{QStringLiteral("version"), QStringLiteral("%1.%2").arg(major).arg(minor)},
                {QStringLiteral("name"), name},
                {QStringLiteral("source"), kind},
                {QStringLiteral("files"), files}};
}

QByteArray SmallWriter::bytes() const {
    return major == 1 ? bytesV1() : bytesV2();
}

QByteArray SmallWriter::bytesV1() const {
    QJsonArray frames;
    for (const Chunk& chunk : chunks)
        frames.append(QJsonArray{qint64(chunk.frameSize), qint64(chunk.contentSize)});
    QJsonObject json = manifest;
    json.insert(QStringLiteral("frames"), frames);
    const QByteArray text = QJsonDocument(json).toJson(QJsonDocument::Compact);
    const QByteArray payload = payloadOf(chunks);
    const QByteArray header =
        skippable("VONKHEAD", number(major) + number(minor) + number(quint32(0)) +
                                  number(quint64(72 + payload.size() + manifestOffsetLie)) +
                                  number(quint64(text.size() + sizeLie)) +
                                  QCryptographicHash::hash(text, QCryptographicHash::Sha256));
    return header + payload + skippable("VONKMANI", text);
}

QByteArray SmallWriter::bytesV2() const {
    const QByteArray version = number(major) + number(minor) + number(quint32(0));
    QByteArray header = skippable("VONKHEAD", version + QByteArray(8, '\0'));
    header = withDigest(header.left(24));
    const QByteArray payload = payloadOf(chunks);
    QByteArray rows = number(quint64(chunks.size() + countLie));
    for (const Chunk& chunk : chunks)
        rows += number(chunk.frameSize) + number(chunk.contentSize) + number(chunk.digest);
    const QByteArray manifestFrame =
        skippable("VONKMANI", QJsonDocument(manifest).toJson(QJsonDocument::Compact));
    const QByteArray tableFrame = skippable("VONKTABL", rows);
    const qint64 manifestOffset = header.size() + payload.size();
    const qint64 tableOffset = manifestOffset + manifestFrame.size();
    const qint64 size = tableOffset + tableFrame.size() + 72;
    QByteArray footer =
        skippable("VONKFOOT", version + number(quint64(size + sizeLie)) +
                                  number(quint64(manifestOffset + manifestOffsetLie)) +
                                  number(quint64(tableOffset + tableOffsetLie)) +
                                  canonical128(manifestFrame + tableFrame) + QByteArray(8, '\0'));
    return header + payload + manifestFrame + tableFrame + withDigest(footer.left(64));
}

} // namespace orx::vonk
