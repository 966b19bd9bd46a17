#include "TransferFixture.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneError.h>
#include <HalvaneHistory.h>
#include <HalvaneItemTasks.h>
#include <HalvaneUploadSessions.h>

using namespace orx;
using orx::testing::FakeHalvane;

namespace {

class FinalizeUploadTask : public orx::testing::TransferFixture {
protected:
    int sent() {
        const int id = init();
        EXPECT_FALSE(postChunks(id).hasError());
        return id;
    }
    std::optional<int> recordedVersion(int fileId) const {
        const auto version = HalvaneHistory().fileVersion(path, fileId);
        EXPECT_TRUE(version) << qPrintable(version.errorMessage());
        return version.valueOr(std::nullopt);
    }
    HalvaneFileUploadParameters withMetadata() const {
        HalvaneFileUploadParameters upload = parameters();
        upload.extendedMetadata = {{QStringLiteral("operator"), QStringLiteral("anna")}};
        return upload;
    }
    //! The upload of a file whose metadata follow.
    int sentWithMetadata() {
        HalvaneInitUploadTask task(withMetadata());
        EXPECT_FALSE(run(task).hasError());
        EXPECT_FALSE(postChunks(task.uploadId()).hasError());
        return task.uploadId();
    }
};

TEST_F(FinalizeUploadTask, MakesTheFileAndRecordsItsVersion) {
    const int id = sent();
    const QByteArray key = fake.uploads.value(id).key;
    HalvaneFinalizeUploadTask task(
        {{QStringLiteral("upload_id"), id}, {QStringLiteral("file_alias"), QStringLiteral("first")}});
    const Error error = run(task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_TRUE(task.error().warnings().isEmpty());
    EXPECT_EQ(task.createdFileReference(), (HalvaneApiReference{100, 1}));
    EXPECT_EQ(task.createdFileId(), 100);
    EXPECT_EQ(task.sha256(),
              QStringLiteral("72399361da6a7754fec986dca5b7cbaf1c810a28ded4abaf56b2106d06cb78b0"));
    EXPECT_EQ(HalvaneAcknowledgedContents::find(HalvaneConnection::instance().serverKey(), 100, 1),
              task.sha256().toLatin1());
    EXPECT_EQ(recordedVersion(100), 1);
    EXPECT_EQ(freeRecords().size(), 0);
    EXPECT_FALSE(HalvaneUploadSessions::find(id));
    EXPECT_EQ(NetworkRequest::header(fake.last("finalize")->headers, "Idempotency-Key"), key);
    EXPECT_TRUE(fake.last("finalize")->body->contains("\"file_alias\":\"first\""));
    EXPECT_EQ(fake.last("finalize")->totalTimeout, std::chrono::seconds(120));
    EXPECT_EQ(init(), id + 1) << "a deliberate second upload is another one";
}

TEST_F(FinalizeUploadTask, WaitsLongerForALargerFile) {
    HalvaneUploadSession session;
    session.size = 2'000'000'000;
    HalvaneUploadSessions::add(5, session);
    EXPECT_TRUE(finalize(5).hasError());
    EXPECT_EQ(fake.last("finalize")->totalTimeout, std::chrono::seconds(220));
    EXPECT_EQ(fake.last("finalize")->silenceTimeout, std::chrono::seconds(220));
}

TEST_F(FinalizeUploadTask, ALostReplyGivesTheSameFileAndVersion) {
    const int id = sent();
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::LoseReply});
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::LoseReply});
    HalvaneApiReference reference;
    ASSERT_FALSE(finalize(id, &reference).hasError());
    EXPECT_EQ(reference, (HalvaneApiReference{100, 1}));
    EXPECT_EQ(fake.files.size(), 1);
    EXPECT_EQ(fake.count("finalize"), 3);
}

TEST_F(FinalizeUploadTask, WorksForAnUploadOfAnotherProcessWithAKeyOfItsOwn) {
    const int id = sent();
    HalvaneUploadSessions::take(id);
    HalvaneApiReference reference;
    ASSERT_FALSE(finalize(id, &reference).hasError());
    EXPECT_EQ(reference.fileId, 100);
    EXPECT_FALSE(NetworkRequest::header(fake.last("finalize")->headers, "Idempotency-Key").isEmpty());
}

TEST_F(FinalizeUploadTask, ADamagedContentIsAbandonedAndALaterRunBeginsAfresh) {
    const int id = sent();
    fake.uploads[id].chunks[1] = "EFGH";
    const Error error = finalize(id);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("Start the upload again")));
    EXPECT_EQ(fake.log.last(), "DELETE /uploads/1");
    EXPECT_EQ(freeRecords().size(), 0);
    EXPECT_EQ(init(), 2);
}

TEST_F(FinalizeUploadTask, AFileThatChangedAfterItsLastChunkIsRefused) {
    for (const char* content : {"klmnopqrst", "abcdefghij and more", ""}) {
        SCOPED_TRACE(content);
        writeFile("abcdefghij");
        const int id = sent();
        const int asked = fake.count("POST /finalize");
        writeFile(content);
        const Error error = finalize(id);
        EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.traceText());
        EXPECT_TRUE(error.errorMessage().contains(path));
        EXPECT_EQ(fake.count("POST /finalize"), asked);
        EXPECT_EQ(fake.log.last(), "DELETE /uploads/" + QByteArray::number(id));
        EXPECT_EQ(freeRecords().size(), 0);
        EXPECT_TRUE(fake.files.isEmpty());
    }
}

TEST_F(FinalizeUploadTask, AFileThatHasGoneWasSentAllTheSame) {
    const int id = sent();
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_FALSE(finalize(id).hasError());
    EXPECT_EQ(fake.files.size(), 1);
}

TEST_F(FinalizeUploadTask, AnIncompleteUploadCanBeResumed) {
    const int id = sent();
    fake.uploads[id].chunks.remove(2);
    const Error error = finalize(id);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::UploadIncomplete));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_EQ(freeRecords().size(), 1);
    ASSERT_EQ(init(), id);
    ASSERT_FALSE(postChunks(id).hasError());
    EXPECT_FALSE(finalize(id).hasError());
}

TEST_F(FinalizeUploadTask, AnUploadThatIsGoneIsForgotten) {
    const int id = sent();
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::Answer, FakeHalvane::failure(410, 9)});
    EXPECT_TRUE(isHalvaneError(finalize(id), HalvaneServerErrorCode::UploadGone));
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(FinalizeUploadTask, AnotherRefusalIsTheServersOwn) {
    const int id = sent();
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::Answer, FakeHalvane::failure(409, 4, "newer")});
    const Error error = finalize(id);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::VersionConflict));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("newer"));
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(FinalizeUploadTask, AnAnswerForAnotherContentIsAnError) {
    const int id = sent();
    fake.expectFault(
        {"POST /finalize", FakeHalvane::Fault::Answer,
         FakeHalvane::text(
             200, R"({"status":"success","data":{"file":{"id":3,"version":1,"size":10,"sha256":"00"}}})")});
    const Error error = finalize(id);
    EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_EQ(recordedVersion(3), std::nullopt);
}

TEST_F(FinalizeUploadTask, AHistoryThatCannotBeWrittenIsAWarning) {
    const int id = sent();
    qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(path) + "/no directory");
    HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), id}});
    const Error error = run(task);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(task.createdFileId(), 100);
    ASSERT_EQ(task.error().warnings().size(), 1);
    EXPECT_TRUE(task.error().warnings().first().contains(path));
}

TEST_F(FinalizeUploadTask, CancelledItReleasesTheRecordSoThatThingsCanBeSettled) {
    const int id = sent();
    fake.expectFault({"POST /finalize", FakeHalvane::Fault::Hang});
    HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), id}});
    task.exec();
    processUntil([this] { return fake.count("finalize") == 1; });
    task.cancel();
    processUntil([&task] { return task.isFinished() && task.isIdle(); });
    EXPECT_EQ(fake.inFlight, 0);
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(FinalizeUploadTask, CancelledWhileItRecordsItLeavesTheRecordOfAFileThatNobodyHeardOf) {
    HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), sent()}});
    fake.onStep = [this, &task] {
        if (fake.count("finalize") == 1)
            task.cancel();
    };
    task.exec();
    processUntil([&task] { return task.isFinished() && task.isIdle(); });
    EXPECT_TRUE(task.error().isCanceled());
    EXPECT_EQ(fake.files.size(), 1);
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(FinalizeUploadTask, TheRecordGoesWhenTheMetadataAreAttached) {
    HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), sentWithMetadata()}});
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(recordedVersion(100), 1);
    EXPECT_EQ(freeRecords().size(), 0) << "this process still works on it";
    HalvanePutExtendedMetaDataTask metadata(100, *withMetadata().extendedMetadata);
    ASSERT_FALSE(run(metadata).hasError());
    HalvaneSettleUploadTask settle(withMetadata());
    ASSERT_FALSE(run(settle).hasError());
    EXPECT_FALSE(settle.committedFile());
}

TEST_F(FinalizeUploadTask, TheRecordStaysWhenTheMetadataCannotBeAttached) {
    auto task = std::make_unique<HalvaneFinalizeUploadTask>(
        QJsonObject{{QStringLiteral("upload_id"), sentWithMetadata()}});
    ASSERT_FALSE(run(*task).hasError());
    HalvanePutExtendedMetaDataTask metadata(100, *withMetadata().extendedMetadata);
    task.reset();
    EXPECT_EQ(freeRecords().size(), 0);
    fake.expectFault({"PUT extended-metadata", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    EXPECT_TRUE(run(metadata).hasError());
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(FinalizeUploadTask, TheRecordStaysWhenNobodyGoesOnToTheMetadata) {
    const int id = sentWithMetadata();
    ASSERT_FALSE(finalize(id).hasError());
    EXPECT_EQ(freeRecords().size(), 1);
    HalvanePutExtendedMetaDataTask unrelated(100, {});
    ASSERT_FALSE(run(unrelated).hasError());
    EXPECT_EQ(freeRecords().size(), 1);
}

class SettleUploadTask : public FinalizeUploadTask {
protected:
    //! Sent and committed, but the client never hears of it.
    int committedUnheard() {
        const int id = sent();
        for (int i = 0; i < 20; ++i)
            fake.expectFault({"POST /finalize", FakeHalvane::Fault::LoseReply});
        HalvaneFinalizeUploadTask task({{QStringLiteral("upload_id"), id}});
        task.exec();
        processUntil([this, id] { return fake.uploads.value(id).fileId != 0; });
        task.cancel();
        processUntil([&task] { return task.isFinished() && task.isIdle(); });
        EXPECT_EQ(freeRecords().size(), 1);
        fake.log.clear();
        return id;
    }
};

TEST_F(SettleUploadTask, ReportsAndRecordsWhatTheServerCommittedUnheard) {
    committedUnheard();
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    ASSERT_TRUE(task.committedFile());
    EXPECT_EQ(*task.committedFile(), (HalvaneApiReference{100, 1}));
    EXPECT_EQ(recordedVersion(100), 1);
    EXPECT_EQ(freeRecords().size(), 0);
    HalvaneSettleUploadTask again(parameters());
    ASSERT_FALSE(run(again).hasError());
    EXPECT_FALSE(again.committedFile()) << "reported once";
    EXPECT_EQ(fake.log.size(), 2);
}

TEST_F(SettleUploadTask, WithMetadataTheRecordStaysUntilTheyAreAttached) {
    committedUnheard();
    for (const bool works : {false, true}) {
        SCOPED_TRACE(works);
        HalvaneSettleUploadTask task(withMetadata());
        ASSERT_FALSE(run(task).hasError());
        EXPECT_EQ(task.committedFile(), (HalvaneApiReference{100, 1}));
        if (!works)
            fake.expectFault(
                {"PUT extended-metadata", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
        HalvanePutExtendedMetaDataTask metadata(100, *withMetadata().extendedMetadata);
        EXPECT_EQ(run(metadata).hasError(), !works);
        EXPECT_EQ(freeRecords().size(), works ? 0 : 1);
    }
}

TEST_F(SettleUploadTask, CancelledItLeavesTheRecordOfWhatItFound) {
    committedUnheard();
    HalvaneSettleUploadTask task(parameters());
    fake.onStep = [this, &task] {
        if (fake.count("GET /files/100") == 1)
            task.cancel();
    };
    task.exec();
    processUntil([&task] { return task.isFinished() && task.isIdle(); });
    EXPECT_TRUE(task.error().isCanceled());
    EXPECT_EQ(freeRecords().size(), 1);
}

TEST_F(SettleUploadTask, ForgetsAVersionThatIsNotTheLastOneAnyMore) {
    committedUnheard();
    fake.addVersion(100, {"klmnopqrst", "00", {}});
    ASSERT_FALSE(HalvaneHistory().setFileVersion(path, 100, 2).hasError());
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.committedFile());
    EXPECT_EQ(recordedVersion(100), 2);
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(SettleUploadTask, ForgetsAFileThatWasRemovedSince) {
    committedUnheard();
    fake.files.clear();
    fake.expectFault({"GET /files/100", FakeHalvane::Fault::Answer, FakeHalvane::failure(404, 3)});
    fake.expectFault({"GET " + fake.uploads.value(1).key, FakeHalvane::Fault::Answer,
                      FakeHalvane::text(200, R"({"status":"success","data":{"state":"finalized",)"
                                             R"("file":{"id":100,"version":1,"size":10,"sha256":"00"}}})")});
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.committedFile());
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(SettleUploadTask, NeverLowersTheHistory) {
    committedUnheard();
    ASSERT_FALSE(HalvaneHistory().setFileVersion(path, 100, 2).hasError());
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_TRUE(task.committedFile());
    EXPECT_EQ(recordedVersion(100), 2);
}

TEST_F(SettleUploadTask, WithoutItTheInitTaskBeginsAfreshToo) {
    const int id = committedUnheard();
    fake.addVersion(100, {"klmnopqrst", "00", {}});
    EXPECT_EQ(init(), id + 1);
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(SettleUploadTask, LeavesAnOpenUploadForTheInitTask) {
    const int id = init();
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    ASSERT_TRUE(postChunks(id).hasError());
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.committedFile());
    EXPECT_EQ(freeRecords().size(), 1);
    EXPECT_EQ(init(), id);
}

TEST_F(SettleUploadTask, RemovesWhatTheServerDoesNotKnow) {
    const int id = init();
    fake.expectFault({"PUT /chunks/0", FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    ASSERT_TRUE(postChunks(id).hasError());
    fake.uploads[id].open = false;
    HalvaneSettleUploadTask task(parameters());
    ASSERT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.committedFile());
    EXPECT_EQ(freeRecords().size(), 0);
}

TEST_F(SettleUploadTask, FindsNothingForAFileThatChangedOrIsMissing) {
    committedUnheard();
    writeFile("another content");
    HalvaneSettleUploadTask changed(parameters());
    ASSERT_FALSE(run(changed).hasError());
    EXPECT_FALSE(changed.committedFile());
    const HalvaneFileUploadParameters before = parameters();
    ASSERT_TRUE(QFile::remove(path));
    HalvaneSettleUploadTask missing(before);
    ASSERT_FALSE(run(missing).hasError());
    EXPECT_FALSE(missing.committedFile());
    EXPECT_TRUE(fake.log.isEmpty());
}

TEST_F(SettleUploadTask, FindsNothingForAnotherTarget) {
    committedUnheard();
    HalvaneSettleUploadTask task(parameters(8));
    ASSERT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.committedFile());
}

TEST_F(SettleUploadTask, AServerThatDoesNotAnswerLeavesEverythingAsItWas) {
    committedUnheard();
    fake.expectFault(
        {"GET " + fake.uploads.value(1).key, FakeHalvane::Fault::Answer, FakeHalvane::failure(401, 2)});
    HalvaneSettleUploadTask task(parameters());
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_FALSE(task.committedFile());
    EXPECT_EQ(freeRecords().size(), 1);
}

} // namespace
