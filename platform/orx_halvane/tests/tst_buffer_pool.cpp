#include <BufferPool.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

TEST(BufferPool, GivesABufferOutAgainWhenItsLastHolderLetsGo) {
    BufferPool pool(1 << 20, 2);
    std::shared_ptr<QByteArray> first = pool.take();
    EXPECT_EQ(first->size(), 1 << 20);
    const QByteArray* raw = first.get();
    first->resize(3);
    std::shared_ptr<const QByteArray> second = std::move(first);
    EXPECT_NE(pool.take().get(), raw) << "it is still held";
    second.reset();
    const std::shared_ptr<QByteArray> again = pool.take();
    EXPECT_EQ(again.get(), raw);
    EXPECT_EQ(again->size(), 1 << 20);
}

TEST(BufferPool, BuffersMayOutliveThePool) {
    auto pool = std::make_unique<BufferPool>(16, 1);
    const std::shared_ptr<QByteArray> buffer = pool->take();
    pool.reset();
    buffer->fill('x');
    EXPECT_EQ(*buffer, QByteArray(16, 'x'));
}

} // namespace
