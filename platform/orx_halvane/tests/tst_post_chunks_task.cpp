#include "TransferFixture.h"

#include <ContentHash.h>
#include <HalvaneError.h>
#include <HalvaneTransferMonitor.h>
#include <HalvaneUploadSessions.h>
#include <NetworkError.h>

#include <algorithm>

#include <unistd.h>

using namespace orx;
using orx::testing::FakeHalvane;
using orx::testing::Reported;

namespace {

QByteArray sha256(const QByteArray& content) {
    ContentHash hash;
    hash.add(content.constData(), content.size());
    return hash.hexDigest();
}

class PostChunksTask : public orx::testing::TransferFixture {
protected:
    QByteArray content(int uploadId) const {
        const FakeHalvane::Upload upload = fake.uploads.value(uploadId);
        QByteArray whole;
        for (int i = 0; i < upload.chunks.size(); ++i)
            whole += upload.chunks.value(i);
        return whole;
    }
    static void expectWellFormed(const Reported& reported) {
        ASSERT_FALSE(reported.progress.isEmpty());
        EXPECT_TRUE(std::is_sorted(reported.progress.begin(), reported.progress.end()));
        EXPECT_EQ(std::adjacent_find(reported.progress.begin(), reported.progress.end()),
                  reported.progress.end())
            << "a value is said once";
        EXPECT_EQ(reported.progress.last(), 100);
    }
    void interruptAfter(int chunks) {
        const int id = init();
        fake.expectFault({"PUT /chunks/" + QByteArray::number(chunks), FakeHalvane::Fault::Answer,
                          FakeHalvane::failure(401, 2, "The token has expired.")});
        EXPECT_TRUE(isHalvaneError(postChunks(id), HalvaneServerErrorCode::NotAuthenticated));
        fake.log.clear();
        fake.requests.clear();
    }
};

TEST_F(PostChunksTask, SendsEveryChunkOnceAndTheContentsHashWithTheLast) {
    const int id = init();
    Reported reported;
    const Error error = postChunks(id, &reported);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(content(id), "abcdefghij");
    EXPECT_EQ(fake.uploads.value(id).sha256, sha256("abcdefghij"));
    EXPECT_EQ(fake.count("PUT"), 3);
    EXPECT_TRUE(NetworkRequest::header(fake.last("/chunks/0")->headers, "Halvane-Content-Sha256").isEmpty());
    EXPECT_EQ(NetworkRequest::header(fake.last("/chunks/2")->headers, "Halvane-Content-Sha256"),
              sha256("abcdefghij"));
    EXPECT_TRUE(fake.last("/chunks/0")->idempotent);
    expectWellFormed(reported);
    ASSERT_TRUE(HalvaneUploadSessions::find(id)) << "for the finalisation";
    EXPECT_EQ(HalvaneUploadSessions::find(id)->contentSha256, sha256("abcdefghij"));
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(PostChunksTask, KeepsTwoChunksInFlightAndNotMore) {
    writeFile(QByteArray(100, 'x'));
    const int id = init();
    fake.chunksAwaited = 2;
    ASSERT_FALSE(postChunks(id).hasError());
    EXPECT_EQ(fake.maxChunksInFlight, 2);
    EXPECT_EQ(content(id), QByteArray(100, 'x'));
}

TEST_F(PostChunksTask, AnEmptyFileSendsItsHashAloneAndEndsAtAHundred) {
    writeFile("");
    const int id = init();
    Reported reported;
    ASSERT_FALSE(postChunks(id, &reported).hasError());
    EXPECT_EQ(fake.log, QList<QByteArray>({"POST /uploads", "PUT /uploads/1/content-sha256"}));
    EXPECT_EQ(fake.uploads.value(id).sha256, sha256(""));
    EXPECT_EQ(reported.progress, QList<int>{100});
}

TEST_F(PostChunksTask, ResumesWithWhatIsMissingOnly) {
    interruptAfter(1);
    fake.uploads[1].chunks.remove(2); // it may have been in flight beside the refused one
    const int id = init();
    Reported reported;
    ASSERT_FALSE(postChunks(id, &reported).hasError());
    EXPECT_EQ(fake.count("/chunks/0"), 0);
    EXPECT_EQ(fake.count("/chunks/1"), 1);
    EXPECT_EQ(content(id), "abcdefghij");
    EXPECT_EQ(reported.progress.first(), 40) << "resumed bytes count";
    expectWellFormed(reported);
    const HalvaneTransferSnapshot sums = HalvaneTransferMonitor::snapshot();
    EXPECT_EQ(sums.bytesResumed, 4);
}

TEST_F(PostChunksTask, AFullyResumedFileSendsItsHashAlone) {
    const int id = init();
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    ASSERT_FALSE(postChunks(id).hasError());
    ASSERT_TRUE(finalize(id).hasError());
    fake.uploads[id].sha256.clear();
    fake.log.clear();
    ASSERT_EQ(init(), id);
    Reported reported;
    ASSERT_FALSE(postChunks(id, &reported).hasError());
    EXPECT_EQ(fake.count("/chunks/"), 0);
    EXPECT_EQ(fake.count("/content-sha256"), 1);
    EXPECT_EQ(fake.uploads.value(id).sha256, sha256("abcdefghij"));
    expectWellFormed(reported);
    EXPECT_FALSE(finalize(id).hasError());
}

TEST_F(PostChunksTask, AChunkWithAnotherChecksumThanTheServersIsSentAgain) {
    interruptAfter(2);
    fake.uploads[1].chunks[0] = "WXYZ";
    const int id = init();
    ASSERT_FALSE(postChunks(id).hasError());
    EXPECT_EQ(fake.count("/chunks/0"), 1);
    EXPECT_EQ(fake.count("/chunks/1"), 0);
    EXPECT_EQ(content(id), "abcdefghij");
}

TEST_F(PostChunksTask, ALostConnectionCountsNoByteTwice) {
    const int id = init();
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::LoseReply});
    fake.expectFault({"PUT /chunks/1", FakeHalvane::Fault::Lose});
    Reported reported;
    ASSERT_FALSE(postChunks(id, &reported).hasError());
    EXPECT_EQ(fake.count("PUT"), 5);
    EXPECT_EQ(content(id), "abcdefghij");
    expectWellFormed(reported);
    const HalvaneTransferSnapshot sums = HalvaneTransferMonitor::snapshot();
    EXPECT_EQ(sums.bytesDone, 10);
    EXPECT_EQ(sums.bytesResumed, 0);
}

TEST_F(PostChunksTask, ADamagedChunkIsSentAgain) {
    const int id = init();
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(422, 7)});
    fake.expectFault({"PUT /chunks/2", FakeHalvane::Fault::Answer, FakeHalvane::failure(422, 7)});
    Reported reported;
    ASSERT_FALSE(postChunks(id, &reported).hasError());
    EXPECT_EQ(content(id), "abcdefghij");
    EXPECT_EQ(fake.uploads.value(id).sha256, sha256("abcdefghij"));
    expectWellFormed(reported);
}

TEST_F(PostChunksTask, AChunkThatArrivesDamagedAgainAndAgainEndsTheTask) {
    const int id = init();
    for (int i = 0; i < 3; ++i)
        fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(422, 7)});
    EXPECT_TRUE(isHalvaneError(postChunks(id), HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_EQ(fake.count("/chunks/0"), 3);
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(PostChunksTask, ALostLoginEndsItAndALaterRunGoesOn) {
    interruptAfter(1);
    EXPECT_EQ(freeRecords().size(), 1);
    EXPECT_FALSE(HalvaneUploadSessions::find(1));
    EXPECT_TRUE(fake.uploads.value(1).open) << "the upload stays at the server";
}

TEST_F(PostChunksTask, AFileThatChangesWhileItIsSentIsAbandoned) {
    const int id = init();
    fake.onStep = [this, id] {
        if (fake.count("/chunks/0") == 1 && fake.uploads.value(id).chunks.contains(0)) {
            QFile file(path);
            if (file.open(QIODevice::Append))
                file.write("grown");
        }
    };
    writeFile(QByteArray("abcdefghij").repeated(100));
    fake.log.clear();
    fake.uploads.clear();
    const int large = init();
    const Error error = postChunks(large);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.traceText());
    EXPECT_EQ(error.errorMessage(),
              QStringLiteral("The file \"") + path +
                  QStringLiteral("\" changed while it was being sent; nothing of it counts. Start the upload "
                                 "again."));
    EXPECT_EQ(fake.log.last(), "DELETE /uploads/1");
    EXPECT_FALSE(fake.uploads.value(1).open);
    EXPECT_EQ(freeRecords().size(), 0) << "the record is gone";
    EXPECT_EQ(fake.inFlight, 0);
}

TEST_F(PostChunksTask, AFileThatShrankSinceItWasAnnouncedIsAbandoned) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto before = input(id);
    ASSERT_EQ(::truncate(QFile::encodeName(path).constData(), 5), 0);
    HalvanePostChunksTask task(before, &file);
    EXPECT_TRUE(run(task).is(ErrorCode::FileChanged));
    EXPECT_EQ(fake.count("/chunks/"), 0);
    EXPECT_FALSE(fake.uploads.value(id).open);
}

TEST_F(PostChunksTask, SaysWhenTheAbandonedUploadStaysAtTheServer) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto before = input(id);
    writeFile("ABCDEFGHIJKLMNO");
    fake.expectFault({"DELETE /uploads/1", FakeHalvane::Fault::Answer, FakeHalvane::failure(500, 12)});
    HalvanePostChunksTask task(before, &file);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged));
    EXPECT_EQ(task.error().warnings().size(), 1);
}

TEST_F(PostChunksTask, TheFileMayBeClosedOnceTheTaskRuns) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    HalvanePostChunksTask task(input(id), &file);
    task.exec();
    file.close();
    ASSERT_FALSE(task.waitForFinished(60'000).hasError());
    EXPECT_EQ(content(id), "abcdefghij");
}

TEST_F(PostChunksTask, AFileThatIsNotOpenIsNotReadable) {
    const int id = init();
    QFile file(path);
    HalvanePostChunksTask task(input(id), &file);
    EXPECT_TRUE(run(task).is(ErrorCode::FileNotReadable));
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(PostChunksTask, AsksTheServerAboutAnUploadOfAnotherProcess) {
    FakeHalvane::Upload upload;
    upload.size = 10;
    upload.chunks.insert(1, "efgh");
    const int id = fake.addUpload(upload);
    ASSERT_FALSE(postChunks(id).hasError());
    EXPECT_EQ(fake.log.first(), "GET /uploads/1");
    EXPECT_EQ(fake.count("/chunks/1"), 0);
    EXPECT_EQ(content(id), "abcdefghij");
}

TEST_F(PostChunksTask, AnUnknownUploadIsTheServersError) {
    EXPECT_TRUE(isHalvaneError(postChunks(99), HalvaneServerErrorCode::NotFound));
}

TEST_F(PostChunksTask, AnImpossibleChunkSizeIsNoUsableReply) {
    fake.chunkSize = 1LL << 40;
    const int id = init();
    EXPECT_TRUE(postChunks(id).is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
}

TEST_F(PostChunksTask, AnUploadThatIsFinalisedAlreadyNeedsNothing) {
    HalvaneUploadSession session;
    session.size = 10;
    session.finalized = true;
    HalvaneUploadSessions::add(5, session);
    Reported reported;
    EXPECT_FALSE(postChunks(5, &reported).hasError());
    EXPECT_TRUE(fake.log.isEmpty());
    EXPECT_EQ(reported.progress, QList<int>{100});
    HalvaneUploadSessions::take(5);
}

TEST_F(PostChunksTask, CancelledItAbortsItsRequestsAndALaterRunGoesOn) {
    const int id = init();
    fake.expectFault({"PUT /chunks/1", FakeHalvane::Fault::Hang});
    fake.expectFault({"PUT /chunks/2", FakeHalvane::Fault::Hang});
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    HalvanePostChunksTask task(input(id), &file);
    task.exec();
    processUntil([this] { return fake.count("/chunks/2") == 1; });
    task.cancel();
    processUntil([&task] { return task.isFinished() && task.isIdle(); });
    EXPECT_TRUE(task.isCanceled());
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(freeRecords().size(), 1);
    ASSERT_EQ(init(), id);
    EXPECT_FALSE(postChunks(id).hasError());
    EXPECT_EQ(content(id), "abcdefghij");
}

TEST_F(PostChunksTask, CancelledBeforeItBeganItReleasesTheRecordToo) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    HalvanePostChunksTask task(input(id), &file);
    task.cancel();
    task.exec();
    EXPECT_TRUE(task.isFinished());
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(PostChunksTask, DestroyedWhileItRunsItLeavesNoRequestAndNoDescriptor) {
    const int id = init();
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Hang});
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        HalvanePostChunksTask task(input(id), &file);
        task.exec();
        processUntil([this] { return fake.count("/chunks/0") == 1; });
    }
    EXPECT_EQ(fake.inFlight, 0);
    processUntil([this] { return descriptorsOfFile() == 0; });
    EXPECT_EQ(freeRecords().size(), 1);
}

class DestroyedByProgress : public PostChunksTask, public ::testing::WithParamInterface<int> {};

TEST_P(DestroyedByProgress, LeavesNothingRunningAndTheRecordFree) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    auto task = std::make_unique<HalvanePostChunksTask>(input(id), &file);
    QObject receiver;
    QObject::connect(task.get(), &BaseTask::progress, &receiver, [&task](int value) {
        if (value >= GetParam())
            task.reset();
    });
    task->exec();
    processUntil([&task] { return !task; });
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(freeRecords().size(), 1);
    EXPECT_FALSE(HalvaneUploadSessions::find(id));
}

// While bytes go out, when a chunk has arrived, at the end.
INSTANTIATE_TEST_SUITE_P(Values, DestroyedByProgress, ::testing::Values(1, 40, 100));

TEST_F(PostChunksTask, CancelledByWhoHearsOfItsEndItReleasesTheRecord) {
    const int id = init();
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    HalvanePostChunksTask task(input(id), &file);
    QObject::connect(&task, &BaseTask::progress, &task, [&task](int value) {
        if (value == 100)
            task.cancel();
    });
    EXPECT_TRUE(run(task).isCanceled());
    EXPECT_EQ(freeRecords().size(), 1);
}

} // namespace
