#include "PackedFile.h"

#include "PackedText.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::vonk {

bool Descriptor::close() {
    const int number = std::exchange(m_number, -1);
    return number < 0 || ::close(number) == 0;
}

Error readFailure(int error, const QString& path) {
    if (error == ENOENT)
        return Error(ErrorCode::NotFound, translated("\"%1\" does not exist.").arg(path));
    return Error(ErrorCode::FileNotReadable,
                 translated("Could not read \"%1\": %2").arg(path, qt_error_string(error)));
}

Error writeFailure(int error, const QString& path) {
    if (error == ENOSPC || error == EDQUOT)
        return Error(ErrorCode::StorageFull,
                     translated("There is no room for \"%1\"; free some space.").arg(path));
    if (error == EEXIST)
        return Error(ErrorCode::AlreadyExists, translated("\"%1\" exists already.").arg(path));
    return Error(ErrorCode::FileNotWritable,
                 translated("Could not write \"%1\": %2").arg(path, qt_error_string(error)));
}

qint64 readFully(int descriptor, std::span<char> buffer, qint64 offset) {
    size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t bytes =
            ::pread(descriptor, buffer.data() + done, buffer.size() - done, offset + off_t(done));
        if (bytes < 0 && errno == EINTR)
            continue;
        if (bytes < 0)
            return -1;
        if (bytes == 0)
            break;
        done += size_t(bytes);
    }
    return qint64(done);
}

qint64 writeFully(int descriptor, std::span<const char> bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(descriptor, bytes.data() + done, bytes.size() - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return -1;
        done += size_t(written);
    }
    return qint64(done);
}

Result<PackedFile> PackedFile::open(const QString& path) {
    PackedFile file;
    file.m_path = path;
    file.m_descriptor =
        Descriptor(::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info = {};
    if (!file.m_descriptor.isOpen() || ::fstat(*file.m_descriptor, &info) != 0)
        return ORX_ECATCH(readFailure(errno, path));
    if (!S_ISREG(info.st_mode))
        return Error(ErrorCode::FileNotReadable, translated("\"%1\" is not a file.").arg(path));
    file.m_size = info.st_size;
    return file;
}

PackedFile PackedFile::ofEnds(qint64 size, const QByteArray& head, const QByteArray& tail) {
    PackedFile file;
    file.m_size = size;
    file.m_ends = std::make_shared<Ends>(Ends{head.left(size), tail.right(size), std::nullopt});
    return file;
}

Error PackedFile::readEnds(qint64 offset, std::span<char> buffer) const {
    const qint64 wanted = qint64(buffer.size());
    const qint64 tailOffset = m_size - m_ends->tail.size();
    if (offset >= tailOffset && offset + wanted <= m_size) {
        std::memcpy(buffer.data(), m_ends->tail.constData() + (offset - tailOffset), buffer.size());
        return {};
    }
    if (offset + wanted <= m_ends->head.size()) {
        std::memcpy(buffer.data(), m_ends->head.constData() + offset, buffer.size());
        return {};
    }
    if (!m_ends->missing)
        m_ends->missing = offset;
    return Error(ErrorCode::FileNotReadable, translated("A part of the file is not at hand."));
}

Error PackedFile::read(qint64 offset, std::span<char> buffer) const {
    if (m_ends)
        return readEnds(offset, buffer);
    const qint64 bytes = readFully(*m_descriptor, buffer, offset);
    if (bytes < 0)
        return readFailure(errno, m_path);
    if (size_t(bytes) < buffer.size())
        return Error(
            ErrorCode::FileChanged,
            translated("\"%1\" became shorter while it was read; try again when nothing writes to it.")
                .arg(m_path));
    return {};
}

Result<QByteArray> PackedFile::read(qint64 offset, qint64 size) const {
    QByteArray bytes(size, Qt::Uninitialized);
    ORX_RETURN_ON_ERROR(read(offset, {bytes.data(), size_t(size)}));
    return bytes;
}

} // namespace orx::vonk
