#pragma once

#include <FileCopy.h>
#include <Result.h>

#include <QByteArray>
#include <QString>

#include <memory>
#include <optional>
#include <span>

namespace orx::vonk {

//! A file descriptor that is closed with it.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : m_number(std::exchange(other.m_number, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_number, other.m_number);
        return *this;
    }
    int operator*() const { return m_number; }
    bool isOpen() const { return m_number >= 0; }
    //! False, with errno, when a write was lost: network file systems tell of it here.
    bool close();

private:
    int m_number = -1;
};

//! Errors of calls on the file \a path, by errno: NotFound, FileNotReadable; StorageFull, AlreadyExists,
//! FileNotWritable.
Error readFailure(int error, const QString& path);
Error writeFailure(int error, const QString& path);

//! Fills \a buffer from \a offset on; fewer bytes only at the end of the file. -1 and errno after a failure.
qint64 readFully(int descriptor, std::span<char> buffer, qint64 offset);
//! -1 and errno after a failure.
qint64 writeFully(int descriptor, std::span<const char> bytes);

//! A packed file that is being read: stays readable when its name goes. Thread: any.
class PackedFile {
public:
    //! ErrorCode::NotFound or FileNotReadable (also for what is no regular file).
    static Result<PackedFile> open(const QString& path);
    //! One that lies elsewhere, with what is at hand of it: the beginning and the end. Thread: one.
    static PackedFile ofEnds(qint64 size, const QByteArray& head, const QByteArray& tail);

    QString path() const { return m_path; }
    qint64 size() const { return m_size; }
    //! ErrorCode::FileChanged when the file has become shorter, FileNotReadable (also for what is not at
    //! hand).
    Error read(qint64 offset, std::span<char> buffer) const;
    Result<QByteArray> read(qint64 offset, qint64 size) const;
    //! Where the first read began that failed because its bytes are not at hand; none when none did.
    std::optional<qint64> missing() const { return m_ends ? m_ends->missing : std::nullopt; }

private:
    struct Ends {
        QByteArray head;
        QByteArray tail;
        std::optional<qint64> missing;
    };
    Error readEnds(qint64 offset, std::span<char> buffer) const;

    QString m_path;
    Descriptor m_descriptor;
    qint64 m_size = 0;
    std::shared_ptr<Ends> m_ends;
};

} // namespace orx::vonk
