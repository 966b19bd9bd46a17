#include "ChunkReader.h"

#include <FileTime.h>

#include <QCoreApplication>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {
namespace {

// Read and hashed while it is in the processor's cache.
constexpr qint64 pieceSize = 256 * 1024;

} // namespace

struct ChunkReader::Stamp {
    qint64 size;
    qint64 modifiedNs;
    qint64 changedNs;
    bool operator==(const Stamp&) const = default;
};

ChunkReader::ChunkReader(int descriptor, const QString& path, const ChunkPlan& plan,
                         std::optional<qint64> modifiedNs)
    : m_descriptor(descriptor), m_path(path), m_plan(plan), m_modifiedNs(modifiedNs) {}

ChunkReader::~ChunkReader() {
    ::close(m_descriptor);
}

Result<ChunkReader::Chunk> ChunkReader::readNext(BufferPool& pool) {
    if (m_next == 0)
        ORX_RETURN_ON_ERROR(begin());
    Chunk chunk{pool.take(), {}, {}};
    chunk.data->resize(m_plan.length(m_next));
    ORX_RETURN_ON_ERROR(readChunk(*chunk.data));
    chunk.checksum = m_chunk.hexDigest();
    if (m_plan.isLast(m_next)) {
        ORX_RETURN_ON_ERROR(checkUnchanged());
        chunk.contentSha256 = m_content.hexDigest();
    }
    ++m_next;
    return chunk;
}

Result<QByteArray> ChunkReader::readEmpty() {
    ORX_RETURN_ON_ERROR(begin());
    return m_content.hexDigest();
}

Error ChunkReader::begin() {
    Result<Stamp> now = stamp();
    if (!now)
        return ORX_ECATCH(now).error();
    if (now->size != m_plan.size() || now->modifiedNs != m_modifiedNs.value_or(now->modifiedNs))
        return changed();
    m_begin = std::make_unique<Stamp>(*now);
    // Advice only: nothing depends on whether it is taken.
    ::posix_fadvise(m_descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    return Error();
}

Error ChunkReader::readChunk(QByteArray& buffer) {
    m_chunk.reset();
    qint64 done = 0;
    while (done < buffer.size()) {
        const size_t wanted = size_t(qMin(pieceSize, buffer.size() - done));
        const ssize_t count =
            ::pread(m_descriptor, buffer.data() + done, wanted, m_plan.offset(m_next) + done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return Error::fromErrno(
                errno, QCoreApplication::translate("orx::ChunkReader", "Could not read the file \"%1\"")
                           .arg(m_path));
        if (count == 0)
            return changed();
        m_content.add(buffer.constData() + done, count);
        m_chunk.add(buffer.constData() + done, count);
        done += count;
    }
    return Error();
}

Error ChunkReader::checkUnchanged() const {
    Result<Stamp> now = stamp();
    if (!now)
        return ORX_ECATCH(now).error();
    return *now == *m_begin ? Error() : changed();
}

Result<ChunkReader::Stamp> ChunkReader::stamp() const {
    struct stat status {};
    if (::fstat(m_descriptor, &status) != 0)
        return Error::fromErrno(
            errno,
            QCoreApplication::translate("orx::ChunkReader", "Could not look at the file \"%1\"").arg(m_path));
    return Stamp{status.st_size, nanosecondsOf(status.st_mtim), nanosecondsOf(status.st_ctim)};
}

Error ChunkReader::changed() const {
    return Error(ErrorCode::FileChanged,
                 QCoreApplication::translate("orx::ChunkReader",
                                             "The file \"%1\" changed while it was being sent; nothing of it "
                                             "counts. Start the upload again.")
                     .arg(m_path));
}

} // namespace orx
