#pragma once

#include "VonkMetadata.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>

namespace orx::vonk {

//! Writes packed files of both versions in memory, straight from docs/packed-acquisition.md and apart from
//! the library's own writer. Everything can be made to lie before bytes() is called: only the digests of
//! header, manifest, table and footer are always right.
class SmallWriter {
public:
    struct Chunk {
        QByteArray frame;
        quint32 frameSize = 0;
        quint32 contentSize = 0;
        quint64 digest = 0;
    };

    explicit SmallWriter(int major, int minor = 0);

    //! Adds an entry with head and data chunks of at most \a chunkSize bytes.
    void addFile(const QString& path, const QByteArray& content, qint64 seconds = 1'700'000'000,
                 int chunkSize = 1 << 20);
    void addDirectory(const QString& path, qint64 seconds = 1'700'000'000);
    //! Adds the end chunk and makes the manifest.
    void finish();

    QByteArray bytes() const;
    static Chunk chunkOf(const QByteArray& content);

    quint16 major;
    quint16 minor;
    QString name = QStringLiteral("run1.raw");
    QString kind = QStringLiteral("test");
    QList<VonkEntry> entries;
    QList<Chunk> chunks;
    //! Made by finish(); of version 1 without the frames, which bytes() adds.
    QJsonObject manifest;
    //! Added to what header and footer say.
    qint64 sizeLie = 0;
    qint64 manifestOffsetLie = 0;
    qint64 tableOffsetLie = 0;
    qint64 countLie = 0;

private:
    void addHead(const VonkEntry& entry);
    QByteArray bytesV1() const;
    QByteArray bytesV2() const;
};

//! The acquisition of the kept files: an empty file, one of three chunks, and one with a name beyond ASCII;
//! from version 2 on their directory too.
SmallWriter smallSample(int major);

QByteArray sha256Hex(const QByteArray& content);
//! XXH3-64.
quint64 digestOf(const QByteArray& bytes);

} // namespace orx::vonk
