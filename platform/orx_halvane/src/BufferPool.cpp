#include "BufferPool.h"

#include <mutex>
#include <vector>

namespace orx {

struct BufferPool::Store {
    std::mutex mutex;
    std::vector<std::unique_ptr<QByteArray>> unused;
    size_t keep = 0;

    std::unique_ptr<QByteArray> take() {
        const std::lock_guard lock(mutex);
        if (unused.empty())
            return std::make_unique<QByteArray>();
        std::unique_ptr<QByteArray> buffer = std::move(unused.back());
        unused.pop_back();
        return buffer;
    }

    void giveBack(std::unique_ptr<QByteArray> buffer) {
        const std::lock_guard lock(mutex);
        if (unused.size() < keep)
            unused.push_back(std::move(buffer));
    }
};

BufferPool::BufferPool(qint64 bufferSize, int keep)
    : m_store(std::make_shared<Store>()), m_bufferSize(bufferSize) {
    m_store->keep = size_t(keep);
}

BufferPool::~BufferPool() = default;

std::shared_ptr<QByteArray> BufferPool::take() {
    std::unique_ptr<QByteArray> buffer = m_store->take();
    buffer->resize(m_bufferSize);
    const auto giveBack = [store = std::weak_ptr<Store>(m_store)](QByteArray* raw) {
        std::unique_ptr<QByteArray> owned(raw);
        if (const std::shared_ptr<Store> alive = store.lock())
            alive->giveBack(std::move(owned));
    };
    return std::shared_ptr<QByteArray>(buffer.release(), giveBack);
}

} // namespace orx
