#include "HalvaneProcessIdentity.h"
#include "HalvaneRateEstimator.h"
#include "HalvaneTransferMonitor.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace orx;
using namespace std::chrono_literals;

namespace {

constexpr HalvaneRateEstimator::Time kStart{1h};

struct Step {
    std::chrono::milliseconds at;
    qint64 sum;
    double expectedRate;
};

void expectRates(const QList<Step>& steps) {
    HalvaneRateEstimator estimator;
    for (const Step& step : steps) {
        estimator.sample(kStart + step.at, step.sum);
        EXPECT_DOUBLE_EQ(estimator.rate(), step.expectedRate) << "at " << step.at.count() << " ms";
    }
}

class MonitorTest : public ::testing::Test {
protected:
    void SetUp() override { HalvaneTransferMonitor::reset(); }
    void TearDown() override { HalvaneTransferMonitor::reset(); }
};

} // namespace

TEST(RateEstimator, IsUnknownUntilThereIsASpan) {
    expectRates({{0ms, 0, 0}, {100ms, 1000, 0}, {499ms, 5000, 0}, {500ms, 5000, 10000}});
}

TEST(RateEstimator, IsTheMeanOfASteadyTransfer) {
    expectRates({{0ms, 0, 0}, {1000ms, 100, 100}, {2000ms, 200, 100}, {3000ms, 300, 100}});
}

TEST(RateEstimator, ForgetsWhatIsOlderThanItsWindow) {
    expectRates(
        {{0ms, 0, 0}, {1000ms, 1000, 1000}, {2000ms, 1000, 500}, {6000ms, 1000, 0}, {7000ms, 2000, 200}});
}

TEST(RateEstimator, SurvivesARepeatedTimeAndOneThatRunsBackwards) {
    expectRates({{0ms, 0, 0}, {0ms, 0, 0}, {1000ms, 500, 500}, {900ms, 9999, 500}, {1000ms, 500, 500}});
}

TEST(RateEstimator, ManyCloseSamplesChangeNothing) {
    HalvaneRateEstimator estimator;
    for (int i = 0; i <= 200'000; ++i)
        estimator.sample(kStart + std::chrono::microseconds(i * 10), i);
    EXPECT_NEAR(estimator.rate(), 100'000, 1);
}

TEST_F(MonitorTest, SumsWhatRuns) {
    const auto first = HalvaneTransferMonitor::begin(1000);
    const auto second = HalvaneTransferMonitor::begin(500);
    first->setResumed(400);
    first->setDone(600);
    second->setDone(100);
    const HalvaneTransferSnapshot sum = HalvaneTransferMonitor::snapshot(kStart);
    EXPECT_EQ(sum.bytesTotal, 1500);
    EXPECT_EQ(sum.bytesDone, 700);
    EXPECT_EQ(sum.bytesResumed, 400);
    EXPECT_EQ(sum.bytesMoved, 300);
    EXPECT_EQ(sum.running, 2);
    EXPECT_EQ(sum.bytesPerSecond, 0);
    EXPECT_FALSE(sum.remaining);
}

TEST_F(MonitorTest, NeverCountsAByteTwice) {
    const auto transfer = HalvaneTransferMonitor::begin(1000);
    transfer->setDone(600);
    transfer->setDone(200); // a chunk that is sent again
    EXPECT_EQ(HalvaneTransferMonitor::snapshot(kStart).bytesDone, 600);
    transfer->setDone(5000);
    EXPECT_EQ(HalvaneTransferMonitor::snapshot(kStart).bytesDone, 1000);
}

TEST_F(MonitorTest, CompleteTransfersStayInTheSumsAndBrokenOnesLeaveThem) {
    auto complete = HalvaneTransferMonitor::begin(1000);
    complete->setDone(1000);
    complete.reset();
    auto broken = HalvaneTransferMonitor::begin(500);
    broken->setDone(200);
    broken.reset();
    auto again = HalvaneTransferMonitor::begin(500);
    again->setResumed(200);
    const HalvaneTransferSnapshot sum = HalvaneTransferMonitor::snapshot(kStart);
    EXPECT_EQ(sum.bytesTotal, 1500);
    EXPECT_EQ(sum.bytesDone, 1200);
    EXPECT_EQ(sum.bytesMoved, 1200) << "the bytes that the broken transfer moved did cross the network";
    EXPECT_EQ(sum.running, 1);
}

TEST_F(MonitorTest, TellsRateAndRemainingTimeOfWhatReallyMoves) {
    const auto transfer = HalvaneTransferMonitor::begin(10'000);
    transfer->setResumed(4'000);
    HalvaneTransferMonitor::snapshot(kStart);
    transfer->setDone(6'000);
    const HalvaneTransferSnapshot sum = HalvaneTransferMonitor::snapshot(kStart + 2s);
    EXPECT_DOUBLE_EQ(sum.bytesPerSecond, 1'000);
    ASSERT_TRUE(sum.remaining);
    EXPECT_EQ(*sum.remaining, 4s);
}

TEST_F(MonitorTest, ResetForgetsWhatIsGone) {
    HalvaneTransferMonitor::begin(10)->setDone(10);
    EXPECT_EQ(HalvaneTransferMonitor::snapshot(kStart).bytesDone, 10);
    HalvaneTransferMonitor::reset();
    const HalvaneTransferSnapshot sum = HalvaneTransferMonitor::snapshot(kStart);
    EXPECT_EQ(sum.bytesTotal, 0);
    EXPECT_EQ(sum.bytesMoved, 0);
    EXPECT_EQ(sum.running, 0);
}

TEST(ProcessStat, ReadsStateAndStartTimeBehindAnyName) {
    const QByteArray tail = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20 21";
    for (const char* name : {"(halvane)", "(a b)", "(a) R 9 (b)", "()"}) {
        const auto stat = HalvaneProcessStat::parse(QByteArray("99 ") + name + tail);
        EXPECT_EQ(stat.state, 'S') << name;
        EXPECT_EQ(stat.startTime, 4711) << name;
    }
    for (const char* bad : {"", "99", "99 (a) S 1 2", "99 a S", "no numbers at all )"})
        EXPECT_EQ(HalvaneProcessStat::parse(bad).startTime, -1) << bad;
}

TEST(ProcessIdentity, TellsALivingProcessFromOthers) {
    const HalvaneProcessIdentity self = HalvaneProcessIdentity::ofThisProcess();
    EXPECT_EQ(self.pid, ::getpid());
    EXPECT_GT(self.startTime, 0);
    EXPECT_FALSE(self.bootId.isEmpty());
    EXPECT_TRUE(self.isAlive());

    HalvaneProcessIdentity laterProcess = self;
    laterProcess.startTime -= 1;
    EXPECT_FALSE(laterProcess.isAlive()) << "the same id, given to another process";
    HalvaneProcessIdentity otherBoot = self;
    otherBoot.bootId = QStringLiteral("00000000-0000-0000-0000-000000000000");
    EXPECT_FALSE(otherBoot.isAlive());
    EXPECT_FALSE(HalvaneProcessIdentity().isAlive());
}
