#include "StagedFile.h"

#include "PackedText.h"

#include <FilePlace.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
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

Error takeForGood(const QByteArray& temporary, const QByteArray& target, const QString& path) {
    if (const int taken = FilePlace::take(temporary, target); taken != 0)
        return ORX_ECATCH(writeFailure(taken == ENOTEMPTY ? EEXIST : taken, path));
    const int unflushed = FilePlace::flushName(target);
    if (unflushed == 0)
        return {};
    // A name that a power cut might take away again is not handed out.
    if (::rename(target.constData(), temporary.constData()) == 0)
        return ORX_ECATCH(writeFailure(unflushed, path));
    return Error(
        ErrorCode::FileNotWritable,
        translated("\"%1\" is there and complete, but a power cut might take its name away: %2. Look "
                   "after the disk.")
            .arg(path, qt_error_string(unflushed)));
}

Result<StagedFile> StagedFile::create(const QString& path, qint64 bytes,
                                      const std::shared_ptr<DiskRoom>& room) {
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
    ORX_RETURN_ON_ERROR(file.takeRoom(bytes, room));
    const QByteArray temporary = FilePlace::temporaryBeside(file.m_target);
    file.m_file = Descriptor(::open(temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!file.m_file.isOpen())
        return ORX_ECATCH(writeFailure(errno, path));
    file.m_temporary = temporary;
    return file;
}

StagedFile::~StagedFile() {
    if (m_temporary.isEmpty())
        return;
    ::unlink(m_temporary.constData());
    m_file.close();
    m_room->release();
}

Error StagedFile::takeRoom(qint64 bytes, const std::shared_ptr<DiskRoom>& room) {
    const QString directory = QFileInfo(m_path).absolutePath();
    if (room) {
        m_room = room;
        return room->growTo(directory, bytes, m_path);
    }
    auto taken = DiskRoom::take(directory, bytes, m_path);
    ORX_RETURN_ON_ERROR(taken.error());
    m_room = std::move(*taken);
    return {};
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
    ORX_RETURN_ON_ERROR(takeForGood(m_temporary, m_target, m_path));
    m_temporary.clear();
    m_room->finish();
    return {};
}

} // namespace orx::vonk
