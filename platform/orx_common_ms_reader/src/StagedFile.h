#pragma once

#include "DiskRoom.h"
#include "PackedFile.h"

#include <memory>

namespace orx::vonk {

//! A file that is written beside its place under a hidden name and appears there complete and durable, or
//! not at all: what was not committed is gone with the object.
class StagedFile {
public:
    //! ErrorCode::AlreadyExists when something is at \a path, FileNotWritable, and what DiskRoom::take() says
    //! of \a bytes there. Uses \a room where it was asked for before.
    static Result<StagedFile> create(const QString& path, qint64 bytes,
                                     const std::shared_ptr<DiskRoom>& room = nullptr);
    ~StagedFile();
    StagedFile(StagedFile&& other) noexcept = default;

    //! After what was written before.
    Error write(std::span<const char> bytes);
    Error commit();

private:
    StagedFile() = default;
    Error takeRoom(qint64 bytes, const std::shared_ptr<DiskRoom>& room);

    QString m_path;
    QByteArray m_target;
    QByteArray m_temporary;
    Descriptor m_file;
    qint64 m_written = 0;
    qint64 m_flushed = 0;
    std::shared_ptr<DiskRoom> m_room;
};

//! Gives what was flushed as \a temporary the name \a target, of \a path, for good; also in a directory that
//! may not be read. After an error it has its old name: ErrorCode::AlreadyExists, StorageFull,
//! FileNotWritable. When it could not be taken back, the error (FileNotWritable) says that it is there.
Error takeForGood(const QByteArray& temporary, const QByteArray& target, const QString& path);

//! Absolute and clean, as bytes for the system.
QByteArray encodedPath(const QString& path);

} // namespace orx::vonk
