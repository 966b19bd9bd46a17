// A file upload from the opened upload to its end: chunks, finalisation, extended metadata, progress,
// failures.
#include "UploadFixture.h"

#include <QCoreApplication>

namespace orx::testing {
namespace {

//! An upload whose kind and finalisation a subclass decides.
class SpecialUpload : public HalvaneFileUploadTask {
public:
    SpecialUpload(const HalvaneFileUploadParameters& parameters, UploadDataType type)
        : HalvaneFileUploadTask(parameters, nullptr), m_type(type) {}
    UploadDataType uploadDataType() const override { return m_type; }
    QJsonObject extra;

    QJsonObject finalizeRequestJson() const override {
        QJsonObject request = HalvaneFileUploadTask::finalizeRequestJson();
        for (auto it = extra.begin(); it != extra.end(); ++it)
            request.insert(it.key(), it.value());
        return request;
    }

private:
    UploadDataType m_type;
};

const QList<HalvaneCompactExtendedMetaDataValue> Operator{
    {QStringLiteral("operator"), QStringLiteral("anna")}};

class FileUploadPipeline : public UploadTest {
protected:
    FileUploadPipeline() : path(makeFile(QStringLiteral("run.mzML"))) {}

    QJsonObject finalizeRequest() const {
        const auto requests = server.requests(QStringLiteral("POST /uploads/finalize"));
        return requests.size() == 1 ? requests[0].json() : QJsonObject();
    }

    //! The progress lines of a log as values; every maximum must be \a maximum.
    static QList<int> progressValues(const EventLog& events, int maximum) {
        QList<int> values;
        for (const QString& line : events.linesWith(QStringLiteral("progress "))) {
            const QStringList parts = line.section(u' ', 1).split(u'/');
            EXPECT_EQ(parts.value(1).toInt(), maximum) << qPrintable(line);
            values.append(parts.value(0).toInt());
        }
        return values;
    }

    QString path;
    CacheProbe cache;
};

// The whole road

TEST_F(FileUploadPipeline, AOneChunkFileGoesUpInThreeRequestsAndIsCached) {
    server.service().setChunkSize(64);
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.log(),
              (QStringList{QStringLiteral("POST /uploads"), QStringLiteral("PUT /uploads/1/chunks/0"),
                           QStringLiteral("POST /uploads/finalize")}));
    ASSERT_EQ(server.service().files().size(), 1);
    const auto& file = server.service().files().first();
    EXPECT_EQ(file.name, QStringLiteral("run.mzML"));
    EXPECT_EQ(file.versions.last().content, "twelve bytes");
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{file.id, 1}));
    EXPECT_EQ(cache.lookedUp, QStringLiteral("file:%1@1").arg(file.id));
    EXPECT_EQ(cache.content(), "twelve bytes");
}

TEST_F(FileUploadPipeline, SignalsAndRequestsComeInTheirOrder) {
    server.service().setChunkSize(64);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    EventLog events(&task);
    events.follow(server);
    QCoreApplication::processEvents();
    EXPECT_FALSE(run(task).hasError());
    QStringList lines = events.lines();
    lines.removeIf([](const QString& line) {
        return line.startsWith(QStringLiteral("progress ")) && line != u"progress 1/103" &&
               line.section(u' ', 1).section(u'/', 0, 0).toInt() < 101;
    });
    EXPECT_EQ(lines,
              (QStringList{QStringLiteral("progressInitiated 103"), QStringLiteral("started"),
                           QStringLiteral("POST /uploads"), QStringLiteral("progress 1/103"),
                           QStringLiteral("PUT /uploads/1/chunks/0"), QStringLiteral("progress 101/103"),
                           QStringLiteral("POST /uploads/finalize"), QStringLiteral("progress 102/103"),
                           QStringLiteral("PUT /files/1/extended-metadata"),
                           QStringLiteral("progress 103/103"), QStringLiteral("finished")}));
}

TEST_F(FileUploadPipeline, ALargerFileArrivesWhole) {
    server.service().setChunkSize(1000);
    const QString large = client.makeFile(QStringLiteral("large.raw"), 10'500);
    HalvaneFileUploadTask task(uploadOf(large), nullptr);
    EXPECT_FALSE(run(task).hasError());
    QFile file(large);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(server.service().files().first().versions.last().content, file.readAll());
    EXPECT_EQ(server.count(QStringLiteral("PUT /uploads/1/chunks/*")), 11);
}

TEST_F(FileUploadPipeline, AnEmptyFileArrivesToo) {
    const QString empty = makeFile(QStringLiteral("empty.raw"), {});
    HalvaneFileUploadTask task(uploadOf(empty), nullptr);
    const EventLog events(&task);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.service().files().first().versions.last().content, QByteArray());
    EXPECT_EQ(progressValues(events, 102), (QList<int>{1, 101, 102}));
}

TEST_F(FileUploadPipeline, ExactlyOneNetworkTaskRunsAtATime) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    recordVersion(path, 7, 1);
    server.service().setChunkSize(64); // one chunk: the chunk task sends several at a time
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName, Operator), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.log(),
              (QStringList{QStringLiteral("GET /folders/1/files"), QStringLiteral("GET /files/7"),
                           QStringLiteral("POST /uploads"), QStringLiteral("PUT /uploads/1/chunks/0"),
                           QStringLiteral("POST /uploads/finalize"),
                           QStringLiteral("PUT /files/7/extended-metadata")}));
    EXPECT_EQ(server.peakInFlight(), 1);
}

// Progress

TEST_F(FileUploadPipeline, ProgressEndsAt102WithoutMetadata) {
    server.service().setChunkSize(1);
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const EventLog events(&task);
    EXPECT_FALSE(run(task).hasError());
    const QList<int> values = progressValues(events, 102);
    ASSERT_FALSE(values.isEmpty());
    EXPECT_EQ(values.first(), 1);
    EXPECT_EQ(values.last(), 102);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
    EXPECT_GT(values.size(), 5); // twelve chunks are told of one after the other
    EXPECT_EQ(task.currentProgress(), 102);
    EXPECT_EQ(task.maxProgress(), 102);
}

TEST_F(FileUploadPipeline, ProgressEndsAt103WithMetadata) {
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    const EventLog events(&task);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(progressValues(events, 103).last(), 103);
    EXPECT_EQ(task.currentProgress(), 103);
    EXPECT_EQ(task.maxProgress(), 103);
}

TEST_F(FileUploadPipeline, NoProgressIsReportedBeforeTheUploadIsOpen) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    const EventLog events(&task);
    task.exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 || task.isFinished(); }));
    EXPECT_TRUE(progressValues(events, 102).isEmpty());
    EXPECT_EQ(task.currentProgress(), 0);
    server.release();
    EXPECT_FALSE(task.waitForFinished().hasError());
}

TEST_F(FileUploadPipeline, ProgressAndCurrentProgressAgree) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    int disagreements = 0;
    QObject::connect(&task, &BaseTask::progress, &task, [&](int value, int maximum) {
        disagreements += value != task.currentProgress() || maximum != task.maxProgress();
    });
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(disagreements, 0);
}

// What the steps pass on

TEST_F(FileUploadPipeline, TheUploadIsOpenedWithTheParameters) {
    const int folder = server.service().addFolder(QStringLiteral("raw"));
    HalvaneFileUploadParameters parameters = uploadOf(path, folder);
    parameters.targetFileName = QStringLiteral("renamed.mzML");
    HalvaneFileUploadTask task(parameters, nullptr);
    EXPECT_FALSE(run(task).hasError());
    const QJsonObject opened = server.requests(QStringLiteral("POST /uploads"))[0].json();
    EXPECT_EQ(opened[QStringLiteral("name")].toString(), QStringLiteral("renamed.mzML"));
    EXPECT_EQ(opened[QStringLiteral("size")].toInt(), 12);
    EXPECT_EQ(opened[QStringLiteral("target_id")].toInt(), folder);
    EXPECT_EQ(opened[QStringLiteral("target_type")].toInt(), 1);
}

TEST_F(FileUploadPipeline, TheChunksAreSentForTheSizeThatTheParametersTell) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    QObject::connect(&task, &BaseTask::progress, &task, [&](int value) {
        if (value != 1)
            return;
        ASSERT_TRUE(QFile::remove(path)); // or the size would be looked up
        HalvaneFileUploadParameters parameters = task.parameters();
        parameters.fileSize = 99;
        task.setParameters(parameters);
    });
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::FileChanged));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("12 bytes, but 99")))
        << qPrintable(error.errorMessage());
    EXPECT_EQ(server.count(QStringLiteral("PUT /uploads/*")), 0);
}

TEST_F(FileUploadPipeline, TheFinalisationNamesUploadAliasAndDataType) {
    HalvaneFileUploadParameters parameters = uploadOf(path);
    parameters.alias = QStringLiteral("first run");
    HalvaneFileUploadTask task(parameters, nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(finalizeRequest(),
              (QJsonObject{{QStringLiteral("upload_id"), 1},
                           {QStringLiteral("file_alias"), QStringLiteral("first run")},
                           {QStringLiteral("force_data_type"), QStringLiteral("Regular")}}));
}

TEST_F(FileUploadPipeline, AnEmptyAliasIsSentAsAnEmptyText) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(finalizeRequest()[QStringLiteral("file_alias")].isString());
    EXPECT_EQ(finalizeRequest()[QStringLiteral("file_alias")].toString(), QString());
}

TEST_F(FileUploadPipeline, SampleDataIsFinalisedAsMs) {
    SpecialUpload task(uploadOf(path), HalvaneUploadTask::UploadDataType::SampleData);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(finalizeRequest()[QStringLiteral("force_data_type")].toString(), QStringLiteral("MS"));
}

TEST_F(FileUploadPipeline, AKindWithoutANameIsLeftOut) {
    SpecialUpload task(uploadOf(path), HalvaneUploadTask::UploadDataType::Folder);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(finalizeRequest().keys(),
              (QStringList{QStringLiteral("file_alias"), QStringLiteral("upload_id")}));
}

TEST_F(FileUploadPipeline, ASubclassMayAddToTheFinalisation) {
    SpecialUpload task(uploadOf(path), HalvaneUploadTask::UploadDataType::RegularFile);
    task.extra.insert(QStringLiteral("vonk_trace"), QJsonObject{{QStringLiteral("scans"), 3}});
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(finalizeRequest()[QStringLiteral("vonk_trace")].toObject()[QStringLiteral("scans")].toInt(), 3);
    EXPECT_EQ(finalizeRequest()[QStringLiteral("upload_id")].toInt(), 1);
}

TEST_F(FileUploadPipeline, TheUploadIdIsMinusOneUntilTheUploadIsOpen) {
    const SpecialUpload task(uploadOf(path), HalvaneUploadTask::UploadDataType::RegularFile);
    EXPECT_EQ(task.finalizeRequestJson()[QStringLiteral("upload_id")].toInt(), -1);
}

TEST_F(FileUploadPipeline, TheRecordNamesReferencePathAndNameOnTheServer) {
    HalvaneFileUploadParameters parameters = uploadOf(path);
    parameters.targetFileName = QStringLiteral("renamed.mzML");
    server.service().addFile(QStringLiteral("other"), "x", 1, 40);
    HalvaneFileUploadTask task(parameters, nullptr);
    EXPECT_FALSE(run(task).hasError());
    ASSERT_TRUE(task.uploadedFile().has_value());
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{41, 1}));
    EXPECT_EQ(task.uploadedFile()->localPath(), path);
    EXPECT_EQ(task.uploadedFile()->targetFileName(), QStringLiteral("renamed.mzML"));
}

TEST_F(FileUploadPipeline, TheRecordIsThereOnlyAfterTheFinalisation) {
    server.script(QStringLiteral("POST /uploads/finalize"), ScriptedFault::hold());
    server.script(QStringLiteral("PUT /files/*"), ScriptedFault::hold());
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    task.exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 || task.isFinished(); }));
    EXPECT_FALSE(task.uploadedFile().has_value());
    server.release();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 || task.isFinished(); }));
    EXPECT_TRUE(task.uploadedFile().has_value());
    EXPECT_FALSE(task.isFinished());
    server.release();
    EXPECT_FALSE(task.waitForFinished().hasError());
}

TEST_F(FileUploadPipeline, TheMetadataGoToTheCreatedFile) {
    server.service().addFile(QStringLiteral("other"), "x", 1, 40);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    EXPECT_FALSE(run(task).hasError());
    const auto requests = server.requests(QStringLiteral("PUT /files/41/extended-metadata"));
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].json()[QStringLiteral("values")].toArray(),
              (QJsonArray{QJsonObject{{QStringLiteral("key"), QStringLiteral("operator")},
                                      {QStringLiteral("value"), QStringLiteral("anna")}}}));
}

TEST_F(FileUploadPipeline, AnEmptyListOfMetadataIsSentToo) {
    HalvaneFileUploadTask task(
        uploadOf(path, 1, ItemType::Folder, Replace, QList<HalvaneCompactExtendedMetaDataValue>()), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("PUT /files/1/extended-metadata")), 1);
    EXPECT_EQ(task.currentProgress(), 103);
}

// The local file

TEST_F(FileUploadPipeline, TheFileIsOpenUntilTheChunksArePosted) {
    QStringList atInit;
    QStringList atChunks;
    QStringList atFinalize;
    server.onRequest = [&](const ScriptedRequest& request) {
        if (request.line() == u"POST /uploads")
            atInit = descriptorsOf(path);
        if (request.line() == u"PUT /uploads/1/chunks/0")
            atChunks = descriptorsOf(path);
        if (request.line() == u"POST /uploads/finalize")
            atFinalize = descriptorsOf(path);
    };
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    ASSERT_EQ(atInit.size(), 1); // the chunk task makes a second one of it
    EXPECT_TRUE(atChunks.contains(atInit[0]));
    EXPECT_FALSE(atFinalize.contains(atInit[0]));
}

TEST_F(FileUploadPipeline, TheFileIsClosedBeforeAFailedTaskHasFinished) {
    server.script(QStringLiteral("POST /uploads"), ScriptedFault::html());
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    bool openAtTheEnd = true;
    QObject::connect(&task, &BaseTask::finished, &task, [&] { openAtTheEnd = isOpenHere(path); });
    EXPECT_TRUE(run(task).hasError());
    EXPECT_FALSE(openAtTheEnd);
}

// Failures

struct FailingStep {
    const char* pattern;
    int requestsAfter; //!< requests that reached the server when the step failed
};

class FailureOfAStep : public FileUploadPipeline, public ::testing::WithParamInterface<FailingStep> {};

TEST_P(FailureOfAStep, EndsTheTaskWithItsErrorAndNothingFollows) {
    server.service().setChunkSize(64);
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    recordVersion(path, 7, 1);
    server.script(
        QString::fromLatin1(GetParam().pattern),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")));
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName, Operator), nullptr);
    const EventLog events(&task);
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NoPrivilege)) << qPrintable(error.traceText());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("not yours")));
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
    EXPECT_EQ(events.lines().last(), QStringLiteral("finished"));
    EXPECT_TRUE(waitUntil([&] { return task.isIdle(); }));
    EXPECT_EQ(server.log().size(), GetParam().requestsAfter) << qPrintable(server.log().join(u'\n'));
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_FALSE(isOpenHere(path));
}

INSTANTIATE_TEST_SUITE_P(FileUploadPipeline, FailureOfAStep,
                         ::testing::Values(FailingStep{"GET /folders/1/files", 1},
                                           FailingStep{"GET /files/7", 2}, FailingStep{"POST /uploads", 3},
                                           FailingStep{"PUT /uploads/1/chunks/0", 4},
                                           FailingStep{"POST /uploads/finalize", 5},
                                           FailingStep{"PUT /files/7/extended-metadata", 6}));

TEST_F(FileUploadPipeline, WhenTheMetadataFailTheRecordOfTheFileRemains) {
    server.script(
        QStringLiteral("PUT /files/*"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")));
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    EXPECT_TRUE(run(task).hasError());
    EXPECT_TRUE(task.uploadedFile().has_value());
    EXPECT_EQ(task.currentProgress(), 102);
}

TEST_F(FileUploadPipeline, APageInsteadOfAReplyIsAnError) {
    server.script(QStringLiteral("POST /uploads"), ScriptedFault::html());
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_TRUE(run(task).is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
}

TEST_F(FileUploadPipeline, ATruncatedReplyIsAnError) {
    server.script(QStringLiteral("GET /folders/1/files"), ScriptedFault::truncatedJson());
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName), nullptr);
    EXPECT_TRUE(run(task).is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
    EXPECT_EQ(server.count(QStringLiteral("POST /uploads")), 0);
}

TEST_F(FileUploadPipeline, ALostReplyOfTheFinalisationMakesNoSecondFile) {
    server.script(QStringLiteral("POST /uploads/finalize"), ScriptedFault::replyLost());
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("POST /uploads/finalize")), 2);
    EXPECT_EQ(server.service().files().size(), 1);
    EXPECT_EQ(task.currentProgress(), 102);
}

TEST_F(FileUploadPipeline, AVersionThatCannotBeRecordedHereIsAWarningOfTheUpload) {
    server.onRequest = [&](const ScriptedRequest& request) {
        if (request.line() == u"POST /uploads/finalize")
            breakHistory();
    };
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(task.uploadedFile().has_value());
    ASSERT_EQ(task.error().warnings().size(), 1);
    EXPECT_TRUE(task.error().warnings()[0].contains(
        QStringLiteral("\"%1\" was uploaded, but that could not be recorded here").arg(path)))
        << qPrintable(task.error().warnings()[0]);
}

TEST_F(FileUploadPipeline, ACacheThatFailsIsNoFailureOfTheUpload) {
    const ErrorLog errors;
    cache.subPath = QStringLiteral("../outside");
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("../outside")));
    EXPECT_EQ(task.currentProgress(), 102);
}

TEST_F(FileUploadPipeline, WithoutCachingNoHandlerIsLookedUp) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    task.setCachedOnFinished(false);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(task.uploadedFile().has_value());
    EXPECT_EQ(cache.lookups, 0);
}

// Cancelling and destroying

class EveryStage : public FileUploadPipeline, public ::testing::WithParamInterface<const char*> {
protected:
    //! Brings an upload with all its steps to the one whose reply is held.
    void bringToStage(HalvaneFileUploadTask& task) {
        server.script(QString::fromLatin1(GetParam()), ScriptedFault::hold());
        task.exec();
        ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 || task.isFinished(); }));
        ASSERT_EQ(server.heldCount(), 1) << GetParam();
    }

    std::unique_ptr<HalvaneFileUploadTask> makeTask() {
        server.service().setChunkSize(64);
        server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
        recordVersion(path, 7, 1);
        return std::make_unique<HalvaneFileUploadTask>(uploadOf(path, 1, ItemType::Folder, ByName, Operator),
                                                       nullptr);
    }
};

TEST_P(EveryStage, ACancelledUploadEndsOnceAndSendsNothingMore) {
    const auto task = makeTask();
    const EventLog events(task.get());
    ASSERT_NO_FATAL_FAILURE(bringToStage(*task));
    const qsizetype sent = server.log().size();
    task->cancel();
    EXPECT_TRUE(task->hasError());
    EXPECT_TRUE(task->isCanceled());
    server.release();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_TRUE(waitUntil([&] { return task->isIdle(); }));
    QCoreApplication::processEvents();
    EXPECT_EQ(events.count(QStringLiteral("canceled")), 1);
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
    EXPECT_EQ(server.log().size(), sent) << qPrintable(server.log().join(u'\n'));
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_FALSE(isOpenHere(path));
}

TEST_P(EveryStage, ADestroyedUploadReportsAndSendsNothingMore) {
    auto task = makeTask();
    const EventLog events(task.get());
    ASSERT_NO_FATAL_FAILURE(bringToStage(*task));
    const qsizetype sent = server.log().size();
    const QStringList reported = events.lines();
    task.reset();
    server.release();
    QCoreApplication::processEvents();
    EXPECT_EQ(events.lines(), reported);
    EXPECT_EQ(events.count(QStringLiteral("finished")), 0);
    EXPECT_EQ(server.log().size(), sent);
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_FALSE(isOpenHere(path));
    EXPECT_EQ(cache.lookups, 0);
}

INSTANTIATE_TEST_SUITE_P(FileUploadPipeline, EveryStage,
                         ::testing::Values("GET /folders/1/files", "GET /files/7", "POST /uploads",
                                           "PUT /uploads/1/chunks/0", "POST /uploads/finalize",
                                           "PUT /files/7/extended-metadata"));

TEST_F(FileUploadPipeline, CancellingFromAProgressSlotStopsThePipeline) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const EventLog events(&task);
    QObject::connect(&task, &BaseTask::progress, &task, [&] { task.cancel(); });
    EXPECT_TRUE(run(task).isCanceled());
    EXPECT_TRUE(waitUntil([&] { return task.isIdle(); }));
    EXPECT_EQ(server.count(QStringLiteral("POST /uploads/finalize")), 0);
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
    EXPECT_FALSE(isOpenHere(path));
}

TEST_F(FileUploadPipeline, AnUploadCancelledBeforeItStartedSendsNothing) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const EventLog events(&task);
    task.cancel();
    EXPECT_TRUE(run(task).isCanceled());
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
}

TEST_F(FileUploadPipeline, AnUploadThatWaitsForADeadServerCanBeCancelled) {
    server.script(QStringLiteral("PUT /uploads/*"), ScriptedFault::hang(), ScriptedHalvaneServer::Always);
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    task.exec();
    ASSERT_TRUE(waitUntil([&] { return server.count(QStringLiteral("PUT /uploads/*")) > 0; }));
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(waitUntil([&] { return task.isIdle(); }));
    EXPECT_EQ(server.inFlightCount(), 0);
}

// Destroying the task from one of its own signals

class DestroyedBySignal : public FileUploadPipeline, public ::testing::WithParamInterface<int> {};

TEST_P(DestroyedBySignal, AnUploadMayBeDestroyedByWhoHearsOfItsProgress) {
    server.service().setChunkSize(1);
    auto task = std::make_unique<HalvaneFileUploadTask>(
        uploadOf(path, 1, ItemType::Folder, Replace, Operator), nullptr);
    const EventLog events(task.get());
    QObject receiver;
    QObject::connect(task.get(), &BaseTask::progress, &receiver, [&](int value) {
        if (value >= GetParam())
            task.reset();
    });
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return !task || task->isFinished(); }));
    ASSERT_FALSE(task);
    const qsizetype sent = server.log().size();
    for (int i = 0; i < 5; ++i)
        QCoreApplication::processEvents();
    EXPECT_EQ(server.log().size(), sent);
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_EQ(events.count(QStringLiteral("finished")), 0);
    EXPECT_EQ(cache.lookups, 0);
    // A worker may be reading when the task goes; it closes the file when it has read.
    EXPECT_TRUE(waitUntil([&] { return !isOpenHere(path); }));
}

// The upload is open; chunks are being sent; they are there; it is finalised; the metadata are there.
INSTANTIATE_TEST_SUITE_P(FileUploadPipeline, DestroyedBySignal, ::testing::Values(1, 2, 50, 101, 102, 103));

TEST_F(FileUploadPipeline, AnUploadMayBeDestroyedByWhoHearsOfItsEnd) {
    auto task = std::make_unique<HalvaneFileUploadTask>(uploadOf(path), nullptr);
    QObject receiver;
    QObject::connect(task.get(), &BaseTask::finished, &receiver, [&] { task.reset(); });
    task->exec();
    EXPECT_TRUE(waitUntil([&] { return !task; }));
    EXPECT_EQ(server.service().files().size(), 1);
}

TEST_F(FileUploadPipeline, AFailedUploadMayBeDestroyedByWhoHearsOfItsEnd) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    breakHistory();
    for (const ItemType type : {ItemType::Folder, ItemType::File}) {
        auto task = std::make_unique<HalvaneFileUploadTask>(
            uploadOf(path, type == ItemType::File ? 7 : 1, type, ByName), nullptr);
        QObject receiver;
        QObject::connect(task.get(), &BaseTask::finished, &receiver, [&] { task.reset(); });
        task->exec();
        EXPECT_TRUE(waitUntil([&] { return !task; }));
    }
    EXPECT_EQ(server.count(QStringLiteral("POST /uploads")), 0);
}

} // namespace
} // namespace orx::testing
