#pragma once

#include "orx_common_ms_reader_export.h"

#include "VonkMetadata.h"
#include "WorkWatch.h"

#include <QString>

#include <memory>
#include <optional>

namespace orx::vonk {

//! What is at hand of a packed file that lies elsewhere.
struct ORX_COMMON_MS_READER_EXPORT VonkEnds {
    //! Of the whole file.
    qint64 size = 0;
    //! From its first byte on.
    QByteArray head;
    //! Up to its last byte.
    QByteArray tail;
};

//! What the ends tell: the metadata, or which byte is to be had too, with all from there to the end of the
//! file (with as many as the head is to have, when it is the first byte).
struct ORX_COMMON_MS_READER_EXPORT VonkLook {
    static constexpr qint64 headSize = 128;

    std::optional<VonkMetadata> metadata;
    qint64 missing = -1;
};

//! A packed acquisition file that is read: docs/packed-acquisition.md. Once open it stays readable, also when
//! the file is removed. Messages name the file. Thread: any, one at a time.
//!
//! Errors of all calls: ErrorCode::NotFound and FileNotReadable; ParseError for what is no packed
//! acquisition or has a newer format; ChecksumMismatch for a damaged one (a cut one among them);
//! InvalidArgument for one with paths that are not allowed; FileChanged when it became shorter.
class ORX_COMMON_MS_READER_EXPORT Vonk {
public:
    //! The value is fixed.
    enum class OpenMode : int { Read = 0 };
    //! How much validate() looks at.
    enum class Check : int {
        Quick = 0, //!< structure and manifest: milliseconds whatever the size; finds every truncation
        Full = 1   //!< every byte
    };

    explicit Vonk(const QString& path);
    ~Vonk();
    Vonk(Vonk&&) noexcept;
    Vonk& operator=(Vonk&&) noexcept;

    //! Opens the file and reads what it says about itself.
    Error open(OpenMode mode = OpenMode::Read);
    bool isOpen() const;
    //! ErrorCode::InvalidArgument unless open, as for the calls below.
    Error validate(Check check = Check::Quick, const WorkWatch& watch = {}) const;
    //! Empty unless open.
    const VonkMetadata& metadata() const;
    //! The quick check on the ends of a file. Messages name no file; errors as above.
    static Result<VonkLook> look(const VonkEnds& ends);

    //! The SHA-256 of the packed file itself, in 64 lower-case hexadecimal digits. Blocks.
    Result<QByteArray> sha256(const WorkWatch& watch = {}) const;

    //! Makes the directory \a target with "content" in it, checking every byte on the way. It appears
    //! complete and durable or not at all. ErrorCode::AlreadyExists when something is there, StorageFull,
    //! FileNotWritable. Blocks; several threads of its own work meanwhile.
    Error unpack(const QString& target, const WorkWatch& watch = {}) const;
    //! Writes the new file \a target with the same content in the current format, copying the compressed data
    //! and checking every byte on the way. Errors and durability as above.
    Error upgrade(const QString& target, const WorkWatch& watch = {}) const;

private:
    Error withPath(const Error& error) const;

    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx::vonk
