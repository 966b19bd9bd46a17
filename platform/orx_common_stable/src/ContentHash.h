#pragma once

#include "orx_common_stable_export.h"

#include <QByteArray>

struct evp_md_ctx_st;
struct XXH3_state_s;

namespace orx {

//! SHA-256 of a content that comes piece by piece. Thread: one at a time.
class ORX_COMMON_STABLE_EXPORT ContentHash {
public:
    ContentHash();
    ~ContentHash();
    ContentHash(const ContentHash&) = delete;
    ContentHash& operator=(const ContentHash&) = delete;

    void add(const char* data, qint64 size);
    //! 64 lower-case hexadecimal digits of everything added so far; more may be added afterwards.
    QByteArray hexDigest() const;
    //! Forgets everything that was added.
    void reset();

    static bool isHexDigest(const QByteArray& text);

private:
    evp_md_ctx_st* m_context;
};

//! XXH3-128 of one chunk that comes piece by piece. Thread: one at a time.
class ORX_COMMON_STABLE_EXPORT ChunkHash {
public:
    ChunkHash();
    ~ChunkHash();
    ChunkHash(const ChunkHash&) = delete;
    ChunkHash& operator=(const ChunkHash&) = delete;

    void add(const char* data, qint64 size);
    //! 32 lower-case hexadecimal digits in canonical (big-endian) order.
    QByteArray hexDigest() const;
    void reset();

    static QByteArray of(const QByteArray& chunk);

private:
    XXH3_state_s* m_state;
};

} // namespace orx
