#pragma once

#include "VonkMetadata.h"

namespace orx::vonk {

//! Walks over the chunks of a payload: for each entry its head and its data, then the end. It says how large
//! the next may be and is told how large it is. The entries must outlive it.
class ChunkCursor {
public:
    enum class Kind { Head, Data, End };
    struct Piece {
        Kind kind = Kind::Head;
        //! Index of the entry; of the last one for the end.
        qsizetype entry = 0;
        //! Of data: where in the file it begins.
        qint64 offset = 0;
        qint64 size = 0;
        //! Data of a file that has no more after this.
        bool isLastOfFile = false;
    };

    explicit ChunkCursor(const QList<VonkEntry>& entries);

    bool atEnd() const { return m_atEnd; }
    //! The most that the next chunk may hold: what is left of its stretch, at most chunkSize.
    qint64 largestNext() const;
    //! Whether the next chunk may have \a size bytes; heads and the end cannot be cut.
    bool accepts(qint64 size) const;
    //! Steps over the next chunk, of a size that is accepted.
    Piece take(qint64 size);
    //! The bytes of a head or of the end.
    QByteArray tarBytes(const Piece& piece) const;

private:
    qint64 sizeBefore() const;
    void enter();

    const QList<VonkEntry>& m_entries;
    Kind m_kind = Kind::Head;
    qsizetype m_entry = 0;
    qint64 m_offset = 0;
    qint64 m_left = 0;
    bool m_atEnd = false;
};

} // namespace orx::vonk
