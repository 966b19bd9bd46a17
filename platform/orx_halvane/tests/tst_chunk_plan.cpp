#include <ChunkPlan.h>

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace orx;

namespace {

struct PlanCase {
    qint64 size;
    qint64 chunkSize;
    std::vector<qint64> lengths;
};

class ChunkPlanTable : public testing::TestWithParam<PlanCase> {};

TEST_P(ChunkPlanTable, CoversEveryByteOnceInOrder) {
    const PlanCase& expected = GetParam();
    const Result<ChunkPlan> plan = ChunkPlan::create(expected.size, expected.chunkSize);
    ASSERT_TRUE(plan) << plan.errorMessage().toStdString();
    std::vector<qint64> lengths;
    qint64 offset = 0;
    for (int index = 0; index < plan->count(); ++index) {
        EXPECT_EQ(plan->offset(index), offset);
        EXPECT_EQ(plan->isLast(index), index + 1 == plan->count());
        lengths.push_back(plan->length(index));
        offset += plan->length(index);
    }
    EXPECT_EQ(lengths, expected.lengths);
    EXPECT_EQ(offset, expected.size);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ChunkPlanTable,
                         testing::Values(PlanCase{0, 4, {}}, PlanCase{1, 4, {1}}, PlanCase{4, 4, {4}},
                                         PlanCase{5, 4, {4, 1}}, PlanCase{8, 4, {4, 4}},
                                         PlanCase{3, 1, {1, 1, 1}}));

TEST(ChunkPlan, ReachesBeyondFourGigabytes) {
    const qint64 size = 5'000'000'000'000;
    const Result<ChunkPlan> plan = ChunkPlan::create(size, 8 << 20);
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->count(), 596'047);
    EXPECT_EQ(plan->offset(596'046) + plan->length(596'046), size);
}

struct Refusal {
    qint64 size;
    qint64 chunkSize;
};

class ChunkPlanRefusals : public testing::TestWithParam<Refusal> {};

TEST_P(ChunkPlanRefusals, AreUnusableRepliesOfTheServer) {
    const Result<ChunkPlan> plan = ChunkPlan::create(GetParam().size, GetParam().chunkSize);
    ASSERT_TRUE(plan.hasError());
    EXPECT_EQ(plan.error().domain(), ErrorDomain::Network);
    EXPECT_FALSE(plan.errorMessage().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Numbers, ChunkPlanRefusals,
                         testing::Values(Refusal{-1, 4}, Refusal{10, 0}, Refusal{10, -8},
                                         Refusal{10, ChunkPlan::maxChunkSize + 1},
                                         Refusal{3'000'000'000, 1}));

} // namespace
