// How the chunk task's progress signals become the upload's: by the table, and through a running upload.
#include "ObjectWatch.h"
#include "UploadFixture.h"

#include <tasks/ChunkProgress.h>

#include <HalvaneUploadTasks.h>

#include <limits>

namespace orx::testing {
namespace {

struct Signal {
    int value;
    int maximum;
    int difference; //!< what the signal adds
};

//! Feeds the signals in order and compares what each adds.
void expectDifferences(std::initializer_list<Signal> signalsInOrder) {
    int last = 0;
    for (const Signal& signal : signalsInOrder)
        EXPECT_EQ(chunkProgressDifference(signal.value, signal.maximum, last), signal.difference)
            << signal.value << '/' << signal.maximum;
}

TEST(ChunkProgress, AgainstAMaximumOf100EachSignalAddsWhatItIsAhead) {
    expectDifferences({{0, 100, 0}, {10, 100, 10}, {10, 100, 0}, {55, 100, 45}, {100, 100, 45}});
}

TEST(ChunkProgress, AgainstAnotherMaximumThePercentageIsTakenAgainstTheLastRawValue) {
    // 1 of 4 is 25 %; 2 of 4 is 50 %, less the raw 1; 4 of 4 is 100 %, less the raw 2.
    expectDifferences({{1, 4, 25}, {2, 4, 49}, {4, 4, 98}});
    expectDifferences({{100, 1000, 10}, {200, 1000, -80}});
    expectDifferences({{50, 200, 25}, {50, 200, -25}});
}

TEST(ChunkProgress, PercentagesAreTruncated) {
    expectDifferences({{1, 3, 33}, {2, 3, 65}});
    expectDifferences({{199, 200, 99}});
    expectDifferences({{-1, 3, -33}});
}

TEST(ChunkProgress, AMaximumOf0AddsNothingAndIsForgotten) {
    int last = 7;
    EXPECT_EQ(chunkProgressDifference(50, 0, last), 0);
    EXPECT_EQ(last, 7);
}

TEST(ChunkProgress, TheRawValueIsKeptAlsoWhenNothingIsAdded) {
    int last = 0;
    EXPECT_EQ(chunkProgressDifference(1, 1000, last), 0);
    EXPECT_EQ(last, 1);
}

TEST(ChunkProgress, TheLargestValueWhoseHundredfoldFits) {
    constexpr int largest = std::numeric_limits<int>::max() / 100;
    expectDifferences({{largest, largest, 100}});
    expectDifferences({{largest, 1, 2'147'483'600}});
}

TEST(ChunkProgress, WhatDoesNotFitWrapsAround) {
    expectDifferences({{42'949'673, 1, 4}}); // 2^32 + 4
    expectDifferences({{std::numeric_limits<int>::min(), -1, 0}});
    int last = std::numeric_limits<int>::min();
    EXPECT_EQ(chunkProgressDifference(1, 100, last), std::numeric_limits<int>::min() + 1);
}

class ChunkProgressOfAnUpload : public UploadTest {
protected:
    //! Runs an upload up to the point where its chunks are being sent and nothing more comes.
    void SetUp() override {
        server.script(QStringLiteral("PUT /uploads/*"), ScriptedFault::hang(), ScriptedHalvaneServer::Always);
        task.exec();
        ASSERT_TRUE(waitUntil(
            [&] { return server.count(QStringLiteral("PUT /uploads/*")) == 2 || task.isFinished(); }));
        chunks = objects.only<HalvanePostChunksTask>();
        ASSERT_NE(chunks, nullptr);
        ASSERT_EQ(task.currentProgress(), 1);
        linesBefore = events.lines().size();
    }

    QStringList newLines() const { return events.lines().mid(linesBefore); }

    ObjectWatch objects;
    HalvaneFileUploadTask task{uploadOf(makeFile(QStringLiteral("run.mzML"))), nullptr};
    EventLog events{&task};
    HalvanePostChunksTask* chunks = nullptr;
    qsizetype linesBefore = 0;
};

TEST_F(ChunkProgressOfAnUpload, ASignalWithTheMaximum0ChangesNothing) {
    Q_EMIT chunks->progress(50, 0);
    EXPECT_TRUE(newLines().isEmpty());
    EXPECT_EQ(task.currentProgress(), 1);
    Q_EMIT chunks->progress(10, 100); // taken against 0, not against 50
    EXPECT_EQ(newLines(), QStringList{QStringLiteral("progress 11/102")});
}

TEST_F(ChunkProgressOfAnUpload, AgainstAMaximumOf100TheSignalsAddUpTo100) {
    Q_EMIT chunks->progress(30, 100);
    Q_EMIT chunks->progress(100, 100);
    EXPECT_EQ(newLines(),
              (QStringList{QStringLiteral("progress 31/102"), QStringLiteral("progress 101/102")}));
    EXPECT_EQ(task.currentProgress(), 101);
}

TEST_F(ChunkProgressOfAnUpload, AgainstAnotherMaximumTheRawValuesAreSubtracted) {
    Q_EMIT chunks->progress(1, 4); // + 25
    Q_EMIT chunks->progress(2, 4); // + 50 - 1
    Q_EMIT chunks->progress(4, 4); // + 100 - 2
    EXPECT_EQ(newLines(), (QStringList{QStringLiteral("progress 26/102"), QStringLiteral("progress 75/102"),
                                       QStringLiteral("progress 173/102")}));
}

TEST_F(ChunkProgressOfAnUpload, ASignalThatAddsNothingIsNotReported) {
    Q_EMIT chunks->progress(30, 100);
    Q_EMIT chunks->progress(30, 100);
    EXPECT_EQ(newLines(), QStringList{QStringLiteral("progress 31/102")});
}

TEST_F(ChunkProgressOfAnUpload, ASignalThatFallsBackIsReported) {
    Q_EMIT chunks->progress(30, 100);
    Q_EMIT chunks->progress(20, 100);
    EXPECT_EQ(newLines(),
              (QStringList{QStringLiteral("progress 31/102"), QStringLiteral("progress 21/102")}));
}

} // namespace
} // namespace orx::testing
