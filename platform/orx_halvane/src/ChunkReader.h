#pragma once

#include "BufferPool.h"
#include "ChunkPlan.h"
#include "ContentHash.h"

#include <optional>

namespace orx {

//! Reads a file from its first to its last byte in chunks, taking the checksum of each chunk and of the whole
//! content in the same pass, and makes sure that what was read is one state of the file. Blocks on the disk;
//! thread: one at a time, a worker.
//!
//! A file counts as changed when its size, its modification time or its change time differs from that at the
//! beginning. The change time catches a write whose modification time was set back; it also moves when the
//! file is replaced, renamed or given other permissions, after which the path does not name any more what
//! was announced.
class ORX_HALVANE_EXPORT ChunkReader {
public:
    struct Chunk {
        //! As long as the plan says.
        std::shared_ptr<QByteArray> data;
        //! XXH3-128, hexadecimal.
        QByteArray checksum;
        //! With the last chunk: SHA-256 of everything, hexadecimal.
        QByteArray contentSha256;
    };

    //! Takes \a descriptor over. \a path is for messages. \a modifiedNs: what the modification time must be,
    //! when that is known, in nanoseconds since the epoch.
    ChunkReader(int descriptor, const QString& path, const ChunkPlan& plan, std::optional<qint64> modifiedNs);
    ~ChunkReader();
    ChunkReader(const ChunkReader&) = delete;
    ChunkReader& operator=(const ChunkReader&) = delete;

    //! The next chunk. The last one comes only when the file is unchanged. Fails with ErrorCode::FileChanged
    //! or an error of the operating system; not to be called again after that.
    Result<Chunk> readNext(BufferPool& pool);
    //! For an empty file, instead of readNext(): its SHA-256 when it is unchanged.
    Result<QByteArray> readEmpty();

private:
    struct Stamp;
    Error begin();
    Error checkUnchanged() const;
    Result<Stamp> stamp() const;
    Error readChunk(QByteArray& buffer);
    Error changed() const;

    int m_descriptor;
    QString m_path;
    ChunkPlan m_plan;
    std::optional<qint64> m_modifiedNs;
    std::unique_ptr<Stamp> m_begin;
    int m_next = 0;
    ContentHash m_content;
    ChunkHash m_chunk;
};

} // namespace orx
