#include "ByteStream.h"

#include "Texts.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace orx {

namespace {

constexpr qsizetype kPackedPiece = 64 * 1024;

Error unreadable(int reason) {
    return Error(ErrorCode::FileNotReadable,
                 msText("It cannot be read: %1.").arg(QString::fromLocal8Bit(std::strerror(reason))));
}

//! Repeats a call that a signal interrupted.
template <typename Call>
auto uninterrupted(Call call) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

} // namespace

ByteStream::~ByteStream() = default;

Result<std::unique_ptr<ReadOnlyFile>> ReadOnlyFile::open(const QString& path) {
    const QByteArray name = QFile::encodeName(path);
    struct stat status {};
    // Looked at first, since opening some devices does something.
    if (::stat(name.constData(), &status) != 0)
        return unreadable(errno);
    const auto notRegular = Error(ErrorCode::FileNotReadable, msText("It is not a regular file."));
    if (!S_ISREG(status.st_mode))
        return notRegular;
    const int descriptor =
        uninterrupted([&] { return ::open(name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
    if (descriptor < 0)
        return unreadable(errno);
    auto file = std::unique_ptr<ReadOnlyFile>(new ReadOnlyFile(descriptor, 0));
    // The name may have become something else meanwhile.
    if (::fstat(descriptor, &status) != 0)
        return unreadable(errno);
    if (!S_ISREG(status.st_mode))
        return notRegular;
    file->m_size = status.st_size;
    return file;
}

ReadOnlyFile::~ReadOnlyFile() {
    ::close(m_descriptor);
}

Result<qsizetype> ReadOnlyFile::read(char* to, qsizetype size) {
    const ssize_t count = uninterrupted([&] { return ::read(m_descriptor, to, size_t(size)); });
    if (count < 0)
        return unreadable(errno);
    return qsizetype(count);
}

Result<QByteArray> ReadOnlyFile::bytesAt(qint64 offset, qsizetype size) const {
    QByteArray bytes(size, Qt::Uninitialized);
    qsizetype filled = 0;
    while (filled < size) {
        const ssize_t count = uninterrupted([&] {
            return ::pread(m_descriptor, bytes.data() + filled, size_t(size - filled), offset + filled);
        });
        if (count < 0)
            return unreadable(errno);
        if (count == 0)
            break;
        filled += count;
    }
    bytes.truncate(filled);
    return bytes;
}

Result<qsizetype> MemoryStream::read(char* to, qsizetype size) {
    const qsizetype count = qMin(size, m_rest.size());
    std::copy_n(m_rest.data(), count, to);
    m_rest = m_rest.sliced(count);
    return count;
}

struct GunzipStream::Private {
    std::unique_ptr<ByteStream> packed;
    std::array<char, kPackedPiece> piece;
    z_stream state{};
    bool isReady = false;
    bool isBetweenMembers = true;
    bool isAtEnd = false;

    //! Whether there are packed bytes to go on with.
    Result<bool> fill();
    Error step();
};

GunzipStream::GunzipStream(std::unique_ptr<ByteStream> packed) : d(std::make_unique<Private>()) {
    d->packed = std::move(packed);
    d->isReady = inflateInit2(&d->state, 15 + 16) == Z_OK;
}

GunzipStream::~GunzipStream() {
    if (d->isReady)
        inflateEnd(&d->state);
}

Result<bool> GunzipStream::Private::fill() {
    if (state.avail_in > 0)
        return true;
    const auto count = packed->read(piece.data(), kPackedPiece);
    if (count.hasError())
        return count.error();
    state.next_in = reinterpret_cast<Bytef*>(piece.data());
    state.avail_in = uInt(*count);
    return *count > 0;
}

Error GunzipStream::Private::step() {
    // What follows a member and is no member is padding, as gzip itself has it.
    if (isBetweenMembers && state.total_in > 0) {
        if (*state.next_in != 0x1f) {
            isAtEnd = true;
            return Error();
        }
        inflateReset(&state);
    }
    isBetweenMembers = false;
    const int outcome = inflate(&state, Z_NO_FLUSH);
    if (outcome == Z_STREAM_END)
        isBetweenMembers = true;
    else if (outcome != Z_OK && outcome != Z_BUF_ERROR)
        return Error(ErrorCode::ParseError, msText("Its gzip data is damaged."));
    return Error();
}

Result<qsizetype> GunzipStream::read(char* to, qsizetype size) {
    if (!d->isReady)
        return Error(ErrorCode::General, msText("There is not enough memory to unpack it."));
    d->state.next_out = reinterpret_cast<Bytef*>(to);
    d->state.avail_out = uInt(qMin<qsizetype>(size, 1 << 30));
    const uInt wanted = d->state.avail_out;
    while (!d->isAtEnd && d->state.avail_out == wanted) {
        const auto hasMore = d->fill();
        if (hasMore.hasError())
            return hasMore.error();
        if (!*hasMore) {
            if (!d->isBetweenMembers)
                return Error(ErrorCode::ParseError, msText("Its gzip data ends too early."));
            d->isAtEnd = true;
            break;
        }
        ORX_RETURN_ON_ERROR(d->step());
    }
    return qsizetype(wanted - d->state.avail_out);
}

Result<std::unique_ptr<ByteStream>> openUnpacked(const QString& path) {
    auto file = ReadOnlyFile::open(path);
    if (file.hasError())
        return file.error();
    const auto head = (*file)->bytesAt(0, 2);
    if (head.hasError())
        return head.error();
    if (GunzipStream::isGzip(*head))
        return std::unique_ptr<ByteStream>(std::make_unique<GunzipStream>(*std::move(file)));
    return std::unique_ptr<ByteStream>(*std::move(file));
}

} // namespace orx
