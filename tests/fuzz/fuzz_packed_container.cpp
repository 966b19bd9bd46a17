// Packed files that lie. The first byte says what the rest is: a whole file; or the manifest of a small file
// of either version; or changes of its chunk table and frames. The digests of what lies are right, so that
// the rules behind them are reached. Whatever it is, it is refused with an error, by its ends as by the whole
// file, and nothing is made of it; or it passes every check, comes out as it says, and can be upgraded.
#include "FuzzCheck.h"
#include "SmallWriter.h"

#include <PackedPaths.h>
#include <Vonk.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <sys/mman.h>
#include <unistd.h>

using namespace orx;
using namespace orx::vonk;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

//! Each change: chunk, field, and four bytes of the value.
void changeChunks(SmallWriter& writer, const QByteArray& changes) {
    for (qsizetype at = 0; at + 6 <= changes.size(); at += 6) {
        SmallWriter::Chunk& chunk = writer.chunks[quint8(changes[at]) % writer.chunks.size()];
        quint32 value = 0;
        memcpy(&value, changes.constData() + at + 2, sizeof value);
        switch (quint8(changes[at + 1]) % 6) {
        case 0:
            chunk.frameSize = value;
            break;
        case 1:
            chunk.contentSize = value;
            break;
        case 2:
            chunk.frame[qsizetype(value % quint32(chunk.frame.size()))] = char(value >> 24);
            break;
        case 3:
            // What is appended may move the others.
            writer.chunks.append(SmallWriter::Chunk(chunk));
            continue;
        case 4:
            chunk.frame.insert(qsizetype(value % quint32(chunk.frame.size())), char(value >> 24));
            break;
        default:
            writer.tableOffsetLie = qint32(value);
            break;
        }
        chunk.digest = digestOf(chunk.frame);
    }
}

QByteArray packedFile(quint8 kind, const QByteArray& rest) {
    if (kind % 4 == 0)
        return rest;
    SmallWriter writer = smallSample(kind % 8 < 4 ? 2 : 1);
    if (kind % 4 == 1)
        changeChunks(writer, rest);
    else
        writer.manifest = QJsonDocument::fromJson(rest).object();
    return writer.bytes();
}

void expectRefusal(const Error& error) {
    FUZZ_CHECK(error.is(ErrorCode::ParseError) || error.is(ErrorCode::ChecksumMismatch) ||
               error.is(ErrorCode::InvalidArgument));
    FUZZ_CHECK(!error.errorMessage().isEmpty());
}

//! What was made in it is gone with the next input.
const QString& workPlace() {
    static const QTemporaryDir directory(QStringLiteral("/dev/shm/fuzz-packed-XXXXXX"));
    static const QString path = directory.path();
    FUZZ_CHECK(directory.isValid());
    return path;
}

void expectNothingMade() {
    FUZZ_CHECK(
        QDir(workPlace()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot));
}

//! Of a file of that many bytes \a tail are at hand first, and what is asked for then.
void expectSameByEnds(const QByteArray& bytes, const Error& whole, const VonkMetadata& metadata) {
    VonkEnds ends{bytes.size(), bytes.left(VonkLook::headSize), bytes.right(72)};
    for (int asked = 0;; ++asked) {
        FUZZ_CHECK(asked < 10);
        const auto look = Vonk::look(ends);
        if (look.hasError()) {
            expectRefusal(look.error());
            FUZZ_CHECK(whole.hasError());
            return;
        }
        if (look->metadata) {
            FUZZ_CHECK(!whole.hasError() && *look->metadata == metadata);
            return;
        }
        FUZZ_CHECK(look->missing >= 0 && look->missing < bytes.size());
        const qint64 tail = bytes.size() - look->missing;
        if (look->missing == 0)
            ends.head = bytes.left(2 * ends.head.size());
        else if (tail > ends.tail.size())
            ends.tail = bytes.right(tail);
        else
            FUZZ_CHECK(!"asks for what it has");
    }
}

void expectUnpacked(const Vonk& vonk) {
    const QString target = workPlace() + QStringLiteral("/target");
    FUZZ_CHECK(!vonk.unpack(target).hasError());
    QStringList expected;
    for (const VonkEntry& entry : vonk.metadata().entries) {
        const QString path = target + QLatin1Char('/') + entry.path;
        expected.append(path);
        FUZZ_CHECK(QFileInfo(path).isFile() == entry.isFile() && !QFileInfo(path).isSymLink());
        QFile file(path);
        FUZZ_CHECK(!entry.isFile() ||
                   (file.open(QIODevice::ReadOnly) && sha256Hex(file.readAll()) == entry.sha256));
    }
    QDirIterator items(target, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (items.hasNext())
        FUZZ_CHECK(expected.contains(items.next()));
    FUZZ_CHECK(QDir(target).removeRecursively());
    expectNothingMade();
}

void expectUpgraded(const Vonk& vonk) {
    const QString target = workPlace() + QStringLiteral("/target");
    const Error error = vonk.upgrade(target);
    // The manifest of the new format may take more room than it may have.
    if (error.hasError())
        return expectRefusal(error);
    Vonk upgraded(target);
    FUZZ_CHECK(!upgraded.open().hasError() && !upgraded.validate(Vonk::Check::Full).hasError());
    FUZZ_CHECK(upgraded.metadata().formatVersion == vonkVersion());
    FUZZ_CHECK(upgraded.metadata().entries == vonk.metadata().entries);
    FUZZ_CHECK(QFile::remove(target));
}

void expectNothingOf(const Vonk& vonk, ErrorCode code) {
    const QString target = workPlace() + QStringLiteral("/target");
    for (const Error& error : {vonk.unpack(target), vonk.upgrade(target)})
        FUZZ_CHECK(error.is(code) || error.is(ErrorCode::StorageFull));
    expectNothingMade();
}

void read(const QString& path, const QByteArray& bytes) {
    Vonk vonk(path);
    Error error = vonk.open();
    if (!error.hasError())
        error = vonk.validate(Vonk::Check::Quick);
    expectSameByEnds(bytes, error, vonk.metadata());
    if (error.hasError()) {
        expectRefusal(error);
        if (vonk.isOpen())
            expectNothingOf(vonk, error.errorCode());
        return;
    }
    FUZZ_CHECK(!checkEntryPaths(vonk.metadata().entries).hasError());
    error = vonk.validate(Vonk::Check::Full);
    if (error.hasError()) {
        expectRefusal(error);
        return expectNothingOf(vonk, error.errorCode());
    }
    FUZZ_CHECK(VonkMetadata::fromJson(vonk.metadata().toJson())->entries == vonk.metadata().entries);
    expectUnpacked(vonk);
    expectUpgraded(vonk);
    expectNothingMade();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    const QByteArray bytes =
        packedFile(data[0], QByteArray(reinterpret_cast<const char*>(data + 1), qsizetype(size - 1)));
    const int file = memfd_create("packed", MFD_CLOEXEC);
    FUZZ_CHECK(file >= 0);
    FUZZ_CHECK(write(file, bytes.constData(), size_t(bytes.size())) == bytes.size());
    read(QStringLiteral("/proc/self/fd/%1").arg(file), bytes);
    close(file);
    return 0;
}
