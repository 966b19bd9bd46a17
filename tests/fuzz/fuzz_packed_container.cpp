// Packed files that lie. The first byte says what the rest is: a whole file; or the manifest of a small file
// of either version; or changes of its chunk table and frames. The digests of what lies are right, so that
// the rules behind them are reached. Whatever it is, it is refused with an error, or passes every check.
#include "FuzzCheck.h"
#include "SmallWriter.h"

#include <PackedPaths.h>
#include <Vonk.h>

#include <QJsonDocument>

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

void read(const QString& path) {
    Vonk vonk(path);
    if (const Error error = vonk.open(); error.hasError())
        return expectRefusal(error);
    if (const Error error = vonk.validate(Vonk::Check::Quick); error.hasError())
        return expectRefusal(error);
    FUZZ_CHECK(!checkEntryPaths(vonk.metadata().entries).hasError());
    if (const Error error = vonk.validate(Vonk::Check::Full); error.hasError())
        return expectRefusal(error);
    FUZZ_CHECK(VonkMetadata::fromJson(vonk.metadata().toJson())->entries == vonk.metadata().entries);
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
    read(QStringLiteral("/proc/self/fd/%1").arg(file));
    close(file);
    return 0;
}
