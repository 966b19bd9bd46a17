#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

namespace orx::vonk {

//! Bytes that are overwritten again and again: never cleared, memory kept.
class PackedBuffer {
public:
    PackedBuffer() = default;
    //! The other one is empty then, without memory.
    PackedBuffer(PackedBuffer&& other) noexcept
        : m_bytes(std::move(other.m_bytes))
        , m_size(std::exchange(other.m_size, 0))
        , m_capacity(std::exchange(other.m_capacity, 0)) {}
    PackedBuffer& operator=(PackedBuffer&& other) noexcept {
        m_bytes = std::move(other.m_bytes);
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
        return *this;
    }

    //! What was in it is lost when it has to grow.
    void resize(size_t size) {
        if (size > m_capacity) {
            m_bytes = std::make_unique_for_overwrite<char[]>(size);
            m_capacity = size;
        }
        m_size = size;
    }
    void assign(std::span<const char> bytes) {
        resize(bytes.size());
        std::copy(bytes.begin(), bytes.end(), m_bytes.get());
    }
    char* data() { return m_bytes.get(); }
    size_t size() const { return m_size; }
    std::span<const char> bytes() const { return {m_bytes.get(), m_size}; }

private:
    std::unique_ptr<char[]> m_bytes;
    size_t m_size = 0;
    size_t m_capacity = 0;
};

} // namespace orx::vonk
