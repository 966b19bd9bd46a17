#include "blobs/chunk_buffers.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace halvane::server {

struct ChunkBuffers::Store {
    struct Free {
        void operator()(std::byte* memory) const { std::free(memory); }
    };
    struct Block {
        std::unique_ptr<std::byte, Free> memory;
        std::size_t size = 0;
    };

    std::mutex mutex;
    std::size_t left;
    std::vector<Block> unused;

    explicit Store(std::size_t limit) : left(limit) {}

    // With the mutex held; without memory when the bound is reached.
    Block takeBlock(std::size_t size) {
        for (Block& block : unused)
            if (block.size == size) {
                Block found = std::move(block);
                std::swap(block, unused.back());
                unused.pop_back();
                return found;
            }
        while (left < size && !unused.empty()) {
            left += unused.back().size;
            unused.pop_back();
        }
        if (left < size)
            return {};
        Block made{std::unique_ptr<std::byte, Free>(
                       static_cast<std::byte*>(std::aligned_alloc(directAlignment, size))),
                   size};
        if (made.memory)
            left -= size;
        return made;
    }
};

ChunkBuffers::ChunkBuffers(std::size_t limit) : m_store(std::make_shared<Store>(limit)) {}

ChunkBuffers::Buffer ChunkBuffers::take(std::size_t size) {
    const std::size_t rounded = (size + directAlignment - 1) / directAlignment * directAlignment;
    Store::Block block;
    {
        const std::lock_guard lock(m_store->mutex);
        block = m_store->takeBlock(rounded);
    }
    if (!block.memory)
        return nullptr;
    auto holder = std::make_shared<Store::Block>(std::move(block));
    const auto giveBack = [holder, store = m_store](std::span<std::byte>* span) {
        delete span;
        const std::lock_guard lock(store->mutex);
        store->unused.push_back(std::move(*holder));
    };
    return {new std::span<std::byte>(holder->memory.get(), size), giveBack};
}

} // namespace halvane::server
