#include "PackedFrames.h"

#include "PackedLimits.h"
#include "PackedText.h"

#include <xxhash.h>
#include <zstd.h>

#include <QtEndian>

#include <algorithm>
#include <cstring>

namespace orx::vonk {

namespace {

constexpr int level = 1;
constexpr quint32 zstdMagic = 0xFD2FB528;
constexpr size_t largestBlock = size_t(128) * 1024;

template <typename T>
char* put(char* to, T value, size_t size = sizeof(T)) {
    const T little = qToLittleEndian(value);
    std::memcpy(to, &little, size);
    return to + size;
}

//! A frame of raw blocks: magic, a descriptor that says "single segment, 4 bytes of content size, checksum",
//! the size, blocks of three bytes of header (last flag, type raw, size), the low half of XXH64.
void store(std::span<const char> content, PackedBuffer& frame) {
    const size_t blocks = std::max(size_t(1), (content.size() + largestBlock - 1) / largestBlock);
    frame.resize(9 + 3 * blocks + content.size() + 4);
    char* to = put(frame.data(), zstdMagic);
    to = put(to, quint8(0b1010'0100));
    to = put(to, quint32(content.size()));
    for (size_t done = 0, block = 1; block <= blocks; ++block) {
        const size_t size = std::min(largestBlock, content.size() - done);
        to = put(to, quint32((size << 3) | (block == blocks ? 1 : 0)), 3);
        to = std::copy_n(content.data() + done, size, to);
        done += size;
    }
    put(to, quint32(XXH64(content.data(), content.size(), 0)));
}

Error damaged(const char* reason) {
    return Error(ErrorCode::ChecksumMismatch,
                 translated("A part of the packed acquisition is damaged: %1.").arg(QLatin1String(reason)));
}

} // namespace

quint64 digest64(std::span<const char> bytes) {
    return XXH3_64bits(bytes.data(), bytes.size());
}

QByteArray digest128(std::span<const char> bytes) {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(bytes.data(), bytes.size()));
    return QByteArray(reinterpret_cast<const char*>(canonical.digest), sizeof canonical.digest);
}

qint64 largestFrame(qint64 contentSize) {
    return qint64(ZSTD_compressBound(size_t(contentSize)));
}

struct FrameCompressor::Private {
    std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx*)> context{ZSTD_createCCtx(), &ZSTD_freeCCtx};
};

FrameCompressor::FrameCompressor() : d(std::make_unique<Private>()) {
    ZSTD_CCtx_setParameter(d->context.get(), ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(d->context.get(), ZSTD_c_checksumFlag, 1);
}

FrameCompressor::~FrameCompressor() = default;

Error FrameCompressor::compress(std::span<const char> content, PackedBuffer& frame) {
    frame.resize(size_t(largestFrame(qint64(content.size()))));
    const size_t size =
        ZSTD_compress2(d->context.get(), frame.data(), frame.size(), content.data(), content.size());
    if (ZSTD_isError(size) != 0)
        return Error(ErrorCode::General,
                     translated("Could not compress: %1.").arg(QLatin1String(ZSTD_getErrorName(size))));
    if (size * 100 > content.size() * 97)
        store(content, frame);
    else
        frame.resize(size);
    return {};
}

struct FrameDecompressor::Private {
    std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> context{ZSTD_createDCtx(), &ZSTD_freeDCtx};
};

FrameDecompressor::FrameDecompressor() : d(std::make_unique<Private>()) {}

FrameDecompressor::~FrameDecompressor() = default;

Error FrameDecompressor::decompress(std::span<const char> frame, qint64 contentSize, PackedBuffer& content) {
    // The magic is looked at here because the library would take a skippable frame for one without content.
    if (frame.size() < sizeof zstdMagic || qFromLittleEndian<quint32>(frame.data()) != zstdMagic)
        return damaged("a frame does not begin as one");
    if (ZSTD_getFrameContentSize(frame.data(), frame.size()) != quint64(contentSize))
        return damaged("a frame has another size than its table says");
    if (ZSTD_getDictID_fromFrame(frame.data(), frame.size()) != 0)
        return damaged("a frame needs a dictionary");
    if (ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size())
        return damaged("a frame ends at another place than its table says");
    content.resize(size_t(contentSize));
    const size_t size =
        ZSTD_decompressDCtx(d->context.get(), content.data(), content.size(), frame.data(), frame.size());
    if (ZSTD_isError(size) != 0)
        return damaged(ZSTD_getErrorName(size));
    return size == content.size() ? Error() : damaged("a frame is shorter than its table says");
}

} // namespace orx::vonk
