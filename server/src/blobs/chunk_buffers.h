// Memory for chunks on their way to the disk, aligned so that the disk can take them without a copy. Bounded
// for the whole process. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace halvane::server {

// What addresses, offsets and lengths of direct writes are multiples of.
inline constexpr std::size_t directAlignment = 4096;

class ChunkBuffers {
public:
    using Buffer = std::shared_ptr<std::span<std::byte>>;

    // All buffers together have at most `limit` bytes; what is given back is kept for the next taker.
    explicit ChunkBuffers(std::size_t limit);

    // A buffer of `size` bytes with any content; null when the bound is reached. It may outlive this object.
    Buffer take(std::size_t size);

private:
    struct Store;
    std::shared_ptr<Store> m_store;
};

} // namespace halvane::server
