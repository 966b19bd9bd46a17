#include <TransferProgress.h>

#include <gtest/gtest.h>

#include <limits>

using namespace orx;

namespace {

TEST(TransferProgress, CountsWhatIsUnderWayAndWhatHasArrived) {
    TransferProgress progress(200);
    progress.setUnderWay(0, 30);
    progress.setUnderWay(1, 20);
    EXPECT_EQ(progress.done(), 50);
    EXPECT_EQ(progress.takePercent(), 25);
    progress.settle(0, 100);
    EXPECT_EQ(progress.done(), 120);
    EXPECT_EQ(progress.takePercent(), 60);
    EXPECT_EQ(progress.takePercent(), std::nullopt) << "it has not grown";
}

TEST(TransferProgress, APieceThatIsSentAgainCountsOnce) {
    TransferProgress progress(100);
    progress.setUnderWay(0, 40);
    progress.setUnderWay(0, 0);
    EXPECT_EQ(progress.done(), 40) << "the sum never falls";
    progress.setUnderWay(0, 30);
    EXPECT_EQ(progress.done(), 40);
    progress.settle(0, 50);
    EXPECT_EQ(progress.done(), 50);
}

TEST(TransferProgress, ResumedBytesCountFromTheBeginning) {
    TransferProgress progress(100);
    progress.addResumed(60);
    EXPECT_EQ(progress.resumed(), 60);
    EXPECT_EQ(progress.done(), 60);
    EXPECT_EQ(progress.takePercent(), 60);
}

TEST(TransferProgress, AHundredComesOnCompletionOnly) {
    TransferProgress progress(100);
    progress.settle(0, 100);
    EXPECT_EQ(progress.takePercent(), 99);
    progress.complete();
    EXPECT_EQ(progress.takePercent(), 100);
    EXPECT_EQ(progress.takePercent(), std::nullopt);
}

TEST(TransferProgress, AnEmptyTransferGoesFromNothingToAHundred) {
    TransferProgress progress(0);
    EXPECT_EQ(progress.takePercent(), std::nullopt);
    progress.complete();
    EXPECT_EQ(progress.takePercent(), 100);
    EXPECT_EQ(progress.done(), 0);
}

TEST(TransferProgress, NeverExceedsTheTotal) {
    TransferProgress progress(10);
    progress.setUnderWay(0, 25);
    EXPECT_EQ(progress.done(), 10);
    EXPECT_EQ(progress.takePercent(), 99);
}

TEST(TransferProgress, HoldsTheLargestSizes) {
    const qint64 total = std::numeric_limits<qint64>::max();
    TransferProgress progress(total);
    progress.settle(0, total / 2);
    EXPECT_EQ(progress.takePercent(), 50);
}

} // namespace
