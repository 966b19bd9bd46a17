#include "StagedFile.h"

#include "PackedText.h"

#include <AtomicFile.h>
#include <FilePlace.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::vonk {

namespace {

//! What is written between two requests to begin writing back, so that the flush at the end has little to do.
constexpr qint64 sliceSize = qint64(8) * 1024 * 1024;

} // namespace

QByteArray encodedPath(const QString& path) {
    return QFile::encodeName(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
}

Result<StagedFile> StagedFile::create(const QString& path, qint64 bytes, const WorkWatch& watch) {
    // What QTemporaryDir gives when it could not be made.
    if (path.isEmpty())
        return Error(
            ErrorCode::FileNotWritable,
            translated("There is no place for a packed acquisition: its path is empty. Is there a directory "
                       "for temporary files, and may you write to it?"));
    StagedFile file;
    file.m_path = path;
    file.m_target = encodedPath(path);
    struct stat info = {};
    if (::lstat(file.m_target.constData(), &info) == 0)
        return ORX_ECATCH(writeFailure(EEXIST, path));
    auto room = DiskRoom::take(QFileInfo(path).absolutePath(), bytes, path, watch);
    ORX_RETURN_ON_ERROR(room.error());
    file.m_room = std::move(*room);
    const QByteArray temporary = FilePlace::temporaryBeside(file.m_target);
    file.m_file = Descriptor(::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.m_file.isOpen())
        return ORX_ECATCH(writeFailure(errno, path));
    file.m_temporary = temporary;
    return file;
}

StagedFile::~StagedFile() {
    if (!m_temporary.isEmpty())
        ::unlink(m_temporary.constData());
}

Error StagedFile::write(std::span<const char> bytes) {
    if (writeFully(*m_file, bytes) < 0)
        return ORX_ECATCH(writeFailure(errno, m_path));
    m_written += qint64(bytes.size());
    m_room->written(qint64(bytes.size()));
    if (m_written - m_flushed >= sliceSize) {
        ::sync_file_range(*m_file, m_flushed, m_written - m_flushed, SYNC_FILE_RANGE_WRITE);
        m_flushed = m_written;
    }
    return {};
}

Error StagedFile::commit() {
    if (::fsync(*m_file) != 0 || !m_file.close())
        return ORX_ECATCH(writeFailure(errno, m_path));
    if (const int failure = FilePlace::take(m_temporary, m_target); failure != 0)
        return ORX_ECATCH(writeFailure(failure, m_path));
    m_temporary.clear();
    return AtomicFile::syncDirectory(QFileInfo(QFile::decodeName(m_target)).path());
}

} // namespace orx::vonk
