#include <ChunkSchedule.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

using Verdict = ChunkSchedule::Verdict;

ChunkPlan planOf(int chunks) {
    return *ChunkPlan::create(chunks * 4, 4);
}

QByteArray checksum(int index) {
    return QByteArray("sum") + QByteArray::number(index);
}

ChunkSchedule scheduleOf(int chunks, const QHash<int, QByteArray>& received = {}) {
    return ChunkSchedule(planOf(chunks), received, {2, 4, 3});
}

Verdict readOne(ChunkSchedule& schedule) {
    return schedule.onRead(checksum(schedule.startReading()));
}

TEST(ChunkSchedule, SendsTheChunksOfANewUploadInOrder) {
    ChunkSchedule schedule = scheduleOf(3);
    QList<int> sent;
    while (schedule.mayRead()) {
        EXPECT_EQ(readOne(schedule), Verdict::Send);
        const std::optional<int> index = schedule.takeNextToSend();
        ASSERT_TRUE(index);
        sent.append(*index);
        schedule.onSent(*index);
    }
    EXPECT_EQ(sent, QList<int>({0, 1, 2}));
    EXPECT_FALSE(schedule.needsContentHashAlone()) << "it travelled with the last chunk";
    EXPECT_TRUE(schedule.isComplete());
}

TEST(ChunkSchedule, KeepsNoMoreThanTheLimitsInFlightAndInMemory) {
    ChunkSchedule schedule = scheduleOf(10);
    while (schedule.mayRead())
        readOne(schedule);
    EXPECT_EQ(schedule.takeNextToSend(), 0);
    EXPECT_EQ(schedule.takeNextToSend(), 1);
    EXPECT_EQ(schedule.takeNextToSend(), std::nullopt) << "two are in flight";
    EXPECT_FALSE(schedule.mayRead()) << "four are held";
    schedule.onSent(1);
    ASSERT_TRUE(schedule.mayRead());
    EXPECT_EQ(schedule.startReading(), 4);
    EXPECT_FALSE(schedule.mayRead()) << "one reader";
}

TEST(ChunkSchedule, SkipsWhatTheServerHasOnlyWhenTheChecksumsAgree) {
    ChunkSchedule schedule = scheduleOf(4, {{0, checksum(0)}, {1, "stale"}, {3, checksum(3)}, {9, "x"}});
    EXPECT_EQ(readOne(schedule), Verdict::Skip);
    EXPECT_EQ(readOne(schedule), Verdict::Send);
    EXPECT_EQ(readOne(schedule), Verdict::Send);
    EXPECT_EQ(readOne(schedule), Verdict::Skip);
    EXPECT_EQ(schedule.takeNextToSend(), 1);
    EXPECT_EQ(schedule.takeNextToSend(), 2);
    EXPECT_FALSE(schedule.needsContentHashAlone()) << "two chunks are still in flight";
    schedule.onSent(2);
    schedule.onSent(1);
    EXPECT_TRUE(schedule.needsContentHashAlone()) << "the last chunk was skipped";
    EXPECT_FALSE(schedule.isComplete());
    schedule.onContentHashSent();
    EXPECT_TRUE(schedule.isComplete());
    EXPECT_FALSE(schedule.needsContentHashAlone());
}

TEST(ChunkSchedule, AnEmptyFileNeedsItsContentHashOnly) {
    ChunkSchedule schedule = scheduleOf(0);
    EXPECT_FALSE(schedule.mayRead());
    EXPECT_EQ(schedule.takeNextToSend(), std::nullopt);
    EXPECT_TRUE(schedule.needsContentHashAlone());
    schedule.onContentHashSent();
    EXPECT_TRUE(schedule.isComplete());
}

TEST(ChunkSchedule, SendsARefusedChunkAgainBeforeTheOthersButNotForEver) {
    ChunkSchedule schedule = scheduleOf(3);
    for (int i = 0; i < 3; ++i)
        readOne(schedule);
    EXPECT_EQ(schedule.takeNextToSend(), 0);
    EXPECT_TRUE(schedule.onRefused(0));
    EXPECT_EQ(schedule.takeNextToSend(), 0);
    EXPECT_TRUE(schedule.onRefused(0));
    EXPECT_EQ(schedule.takeNextToSend(), 0);
    EXPECT_FALSE(schedule.onRefused(0)) << "the third refusal counts";
    EXPECT_EQ(schedule.takeNextToSend(), 1);
}

TEST(ChunkSchedule, IsNotCompleteWhileAnEarlierChunkIsInFlight) {
    ChunkSchedule schedule = scheduleOf(2);
    readOne(schedule);
    readOne(schedule);
    EXPECT_EQ(schedule.takeNextToSend(), 0);
    EXPECT_EQ(schedule.takeNextToSend(), 1);
    schedule.onSent(1);
    EXPECT_FALSE(schedule.isComplete());
    schedule.onSent(0);
    EXPECT_TRUE(schedule.isComplete());
}

} // namespace
