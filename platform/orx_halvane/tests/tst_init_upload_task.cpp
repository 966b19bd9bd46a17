#include "TransferFixture.h"

#include <ContentHash.h>
#include <HalvaneError.h>
#include <HalvaneUploadSessions.h>
#include <NetworkError.h>

#include <QJsonDocument>

#include <utime.h>

using namespace orx;
using orx::testing::FakeHalvane;

namespace {

class InitUploadTask : public orx::testing::TransferFixture {};

TEST_F(InitUploadTask, OpensAnUploadOfTheFileAsItIs) {
    const utimbuf times{0, 1'600'000'000};
    ASSERT_EQ(::utime(QFile::encodeName(path).constData(), &times), 0);
    const int id = init();
    ASSERT_EQ(id, 1);
    const FakeHalvane::Upload upload = fake.uploads.value(1);
    EXPECT_EQ(upload.name, QStringLiteral("run 1.mzML"));
    EXPECT_EQ(upload.size, 10);
    EXPECT_EQ(upload.targetId, 7);
    EXPECT_EQ(upload.targetType, 1);
    EXPECT_EQ(upload.sourceModifiedAt.toString(), QStringLiteral("2020-09-13T12:26:40.000Z"));
    EXPECT_EQ(fake.log, QList<QByteArray>{"POST /uploads"});
    const auto session = HalvaneUploadSessions::find(id);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->record.idempotencyKey, upload.key);
    EXPECT_EQ(session->record.uploadId, id);
    EXPECT_EQ(session->chunkSize, 4);
    EXPECT_TRUE(session->received.isEmpty());
    EXPECT_FALSE(session->finalized);
    EXPECT_EQ(freeRecords().size(), 0) << "the record is this upload's";
}

TEST_F(InitUploadTask, TheRecordIsThereBeforeTheRequestGoesOut) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Hang});
    HalvaneInitUploadTask task(parameters());
    task.exec();
    processUntil([this] { return fake.count("POST") == 1; });
    task.cancel();
    processUntil([&task] { return task.isIdle(); });
    const QList<HalvaneUploadRecord> records = freeRecords();
    ASSERT_EQ(records.size(), 1) << "cancelled, it is free for the next run";
    EXPECT_EQ(records.first().idempotencyKey,
              NetworkRequest::header(fake.requests.first().headers, "Idempotency-Key"));
}

TEST_F(InitUploadTask, ALostReplyOpensOneUploadOnly) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::LoseReply});
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(fake.uploads.size(), 1);
    EXPECT_EQ(fake.count("POST /uploads"), 2);
}

TEST_F(InitUploadTask, GoesOnWithTheOpenUploadOfAnEarlierRun) {
    fake.expectFault({"PUT /chunks/1", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    const int first = init();
    ASSERT_TRUE(postChunks(first).hasError());
    EXPECT_EQ(init(), first);
    EXPECT_EQ(fake.uploads.size(), 1);
    EXPECT_EQ(fake.count("GET /uploads/by-key/"), 1);
    const auto session = HalvaneUploadSessions::find(first);
    ASSERT_TRUE(session);
    EXPECT_EQ(session->received.value(0), ChunkHash::of("abcd"));
}

TEST_F(InitUploadTask, AChangedFileIsAnotherUpload) {
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    ASSERT_TRUE(postChunks(init()).hasError());
    writeFile("ABCDEFGHIJKL");
    EXPECT_EQ(init(), 2);
}

TEST_F(InitUploadTask, FindsAnUploadThatWasFinalisedUnheard) {
    const int id = init();
    ASSERT_FALSE(postChunks(id).hasError());
    for (int i = 0; i < 7; ++i)
        fake.expectFault({"POST /finalize", FakeHalvane::Fault::LoseReply});
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::Lose});
    {
        HalvaneFinalizeUploadTask lost({{QStringLiteral("upload_id"), id}});
        lost.exec();
        processUntil([this] { return fake.uploads.value(1).fileId != 0; });
        lost.cancel();
        processUntil([&lost] { return lost.isIdle(); });
    }
    EXPECT_EQ(init(), id);
    ASSERT_TRUE(HalvaneUploadSessions::find(id));
    EXPECT_TRUE(HalvaneUploadSessions::find(id)->finalized);
    EXPECT_EQ(fake.files.size(), 1);
}

TEST_F(InitUploadTask, OpensANewUploadWhenTheServerForgotTheOldOne) {
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    ASSERT_TRUE(postChunks(init()).hasError());
    const QByteArray oldKey = fake.uploads.value(1).key;
    fake.uploads[1].open = false;
    EXPECT_EQ(init(), 2);
    EXPECT_NE(fake.uploads.value(2).key, oldKey);
    EXPECT_EQ(freeRecords().size(), 0) << "the void record is gone";
}

TEST_F(InitUploadTask, OpensANewUploadWhenItsKeyIsThatOfAnotherRequest) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Answer, FakeHalvane::failure(422, 13)});
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(fake.count("POST /uploads"), 2);
    EXPECT_NE(NetworkRequest::header(fake.requests.at(0).headers, "Idempotency-Key"),
              NetworkRequest::header(fake.requests.at(1).headers, "Idempotency-Key"));
}

TEST_F(InitUploadTask, DoesNotTryForEver) {
    for (int i = 0; i < 100; ++i)
        fake.expectFault({"POST /uploads", FakeHalvane::Fault::Answer, FakeHalvane::failure(422, 13)});
    HalvaneInitUploadTask task(parameters());
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::IdempotencyMismatch));
    EXPECT_LT(fake.log.size(), 50);
}

TEST_F(InitUploadTask, ReportsTheServersRefusalAndForgetsTheRecord) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Answer,
                      FakeHalvane::failure(404, 3, "There is no folder with the id 7.")});
    HalvaneInitUploadTask task(parameters());
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("There is no folder with the id 7."));
    EXPECT_EQ(task.uploadId(), -1);
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(InitUploadTask, AServerInTroubleLeavesTheRecordForTheNextRun) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Answer, FakeHalvane::failure(507, 10)});
    HalvaneInitUploadTask task(parameters());
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::StorageFull));
    const QList<HalvaneUploadRecord> left = freeRecords();
    ASSERT_EQ(left.size(), 1);
    EXPECT_EQ(init(), 1);
    EXPECT_EQ(fake.uploads.value(1).key, left.first().idempotencyKey);
}

TEST_F(InitUploadTask, AFileOfAnotherSizeThanPreparedIsChanged) {
    const HalvaneFileUploadParameters before = parameters();
    writeFile("longer than before");
    HalvaneInitUploadTask task(before);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_TRUE(fake.log.isEmpty());
}

TEST_F(InitUploadTask, AMissingFileIsNotReadable) {
    const HalvaneFileUploadParameters before = parameters();
    ASSERT_TRUE(QFile::remove(path));
    HalvaneInitUploadTask task(before);
    EXPECT_TRUE(run(task).is(ErrorCode::FileNotReadable));
    EXPECT_TRUE(fake.log.isEmpty());
}

TEST_F(InitUploadTask, AReplyWithoutAnUploadIsNotUsable) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Answer,
                      FakeHalvane::text(200, R"({"status":"success","data":{"upload_id":"five"}})")});
    HalvaneInitUploadTask task(parameters());
    EXPECT_TRUE(run(task).is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(InitUploadTask, DestroyedWhileTheServerThinksItLeavesNothingRunning) {
    fake.expectFault({"POST /uploads", FakeHalvane::Fault::Hang});
    {
        HalvaneInitUploadTask task(parameters());
        task.exec();
        processUntil([this] { return fake.count("POST") == 1; });
    }
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(InitUploadTask, CancelledAtOnceItReleasesWhatItsWorkerFound) {
    {
        HalvaneInitUploadTask task(parameters());
        task.exec();
        task.cancel();
        EXPECT_TRUE(task.isCanceled());
        processUntil([&task] { return task.isFinished() && task.isIdle(); });
    }
    EXPECT_TRUE(fake.log.isEmpty());
    const qsizetype left = freeRecords().size();
    EXPECT_EQ(init(), 1) << "whatever was left did not stand in the way";
    EXPECT_LE(left, 1);
}

} // namespace
