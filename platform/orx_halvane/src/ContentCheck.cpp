#include "ContentCheck.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

constexpr qint64 hashPiece = 1024 * 1024;

} // namespace

ContentCheck::ContentCheck(const QString& path, qint64 size, const QByteArray& sha256)
    : m_path(path), m_size(size), m_sha256(sha256) {}

ContentCheck::~ContentCheck() {
    if (m_file >= 0)
        ::close(m_file);
}

std::optional<bool> ContentCheck::begin() {
    m_file = ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    struct stat status {};
    const bool mayBe =
        m_file >= 0 && ::fstat(m_file, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == m_size;
    return mayBe ? std::nullopt : std::optional(false);
}

std::optional<bool> ContentCheck::isSame(qint64 bytes) {
    if (m_file < 0) {
        if (const auto known = begin())
            return known;
    }
    QByteArray piece(hashPiece, Qt::Uninitialized);
    const qint64 end = qMin(m_size, m_hashed + bytes);
    while (m_hashed < end) {
        const ssize_t count =
            ::pread(m_file, piece.data(), size_t(qMin(hashPiece, end - m_hashed)), m_hashed);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        m_hash.add(piece.constData(), count);
        m_hashed += count;
    }
    if (m_hashed < m_size)
        return std::nullopt;
    return m_hash.hexDigest() == m_sha256;
}

} // namespace orx
