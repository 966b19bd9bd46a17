#pragma once

#include "orx_common_ms_export.h"

#include <Result.h>

#include <QByteArray>
#include <QString>

#include <memory>

namespace orx {

//! Bytes that are read once, from the first to the last. One thread at a time.
class ORX_COMMON_MS_EXPORT ByteStream {
public:
    virtual ~ByteStream();
    //! Puts up to \a size (at least 1) bytes into \a to and returns how many; 0 only at the end.
    virtual Result<qsizetype> read(char* to, qsizetype size) = 0;
};

//! A regular file, opened for reading. Never blocks on a FIFO or device and never opens a terminal.
class ORX_COMMON_MS_EXPORT ReadOnlyFile final : public ByteStream {
public:
    //! FileNotReadable when it cannot be opened or is not a regular file.
    static Result<std::unique_ptr<ReadOnlyFile>> open(const QString& path);
    ~ReadOnlyFile() override;
    Q_DISABLE_COPY_MOVE(ReadOnlyFile)

    qint64 size() const { return m_size; }
    Result<qsizetype> read(char* to, qsizetype size) override;
    //! Up to \a size bytes from \a offset on, without moving the place of read(); fewer at the end.
    Result<QByteArray> bytesAt(qint64 offset, qsizetype size) const;

private:
    ReadOnlyFile(int descriptor, qint64 size) : m_descriptor(descriptor), m_size(size) {}

    int m_descriptor;
    qint64 m_size;
};

//! Bytes in memory that outlive the stream.
class ORX_COMMON_MS_EXPORT MemoryStream final : public ByteStream {
public:
    explicit MemoryStream(QByteArrayView bytes) : m_rest(bytes) {}
    Result<qsizetype> read(char* to, qsizetype size) override;

private:
    QByteArrayView m_rest;
};

//! What another stream holds in gzip form, which may be several members one after another. A stream that ends
//! within a member or fails its checksum is an error.
class ORX_COMMON_MS_EXPORT GunzipStream final : public ByteStream {
public:
    explicit GunzipStream(std::unique_ptr<ByteStream> packed);
    ~GunzipStream() override;
    Result<qsizetype> read(char* to, qsizetype size) override;

    static bool isGzip(QByteArrayView head) { return head.startsWith("\x1f\x8b"); }

private:
    struct Private;
    std::unique_ptr<Private> d;
};

//! The bytes of a file, unpacked when they are in gzip form.
ORX_COMMON_MS_EXPORT Result<std::unique_ptr<ByteStream>> openUnpacked(const QString& path);

} // namespace orx
