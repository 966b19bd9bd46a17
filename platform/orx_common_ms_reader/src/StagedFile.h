#pragma once

#include "PackedFile.h"

namespace orx::vonk {

//! A file that is written beside its place under a hidden name and appears there complete and durable, or
//! not at all: what was not committed is gone with the object.
class StagedFile {
public:
    //! ErrorCode::AlreadyExists when something is at \a path, StorageFull when fewer than \a bytes are free
    //! there, FileNotWritable.
    static Result<StagedFile> create(const QString& path, qint64 bytes);
    ~StagedFile();
    StagedFile(StagedFile&& other) noexcept = default;

    //! After what was written before.
    Error write(std::span<const char> bytes);
    Error commit();

private:
    StagedFile() = default;

    QString m_path;
    QByteArray m_target;
    QByteArray m_temporary;
    Descriptor m_file;
    qint64 m_written = 0;
    qint64 m_flushed = 0;
};

//! ErrorCode::StorageFull when the file system of \a directory has fewer than \a bytes free for us.
Error checkRoom(const QString& directory, qint64 bytes, const QString& wanted);

//! Absolute and clean, as bytes for the system.
QByteArray encodedPath(const QString& path);

} // namespace orx::vonk
