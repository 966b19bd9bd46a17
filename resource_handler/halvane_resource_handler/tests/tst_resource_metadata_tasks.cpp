// Fetching metadata from the server: of a file by two requests side by side, of a folder by one.
#include "HalvaneFileResourceMetadata.h"
#include "MetadataProbes.h"
#include "tasks/HalvaneGetFileResourceMetadataTask.h"
#include "tasks/HalvaneGetFolderMetadataTask.h"

#include <HalvaneConnection.h>

#include <QCoreApplication>

namespace orx::testing {
namespace {

const QString TypeName = QStringLiteral("QSharedPointer<orx::ResourceMetadata>");

//! What a task's result points to; null when there is none or when it is of another type.
template <typename T>
QSharedPointer<T> resultOf(const BaseTask& task) {
    const QVariant result = task.variantResult();
    if (QString::fromLatin1(result.metaType().name()) != TypeName)
        return nullptr;
    return result.value<QSharedPointer<ResourceMetadata>>().dynamicCast<T>();
}

ScriptedFault gone() {
    return ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound,
                                  QStringLiteral("There is no such item."));
}

class ResourceMetadataTasks : public UploadTest {
protected:
    ResourceMetadataTasks() {
        raw = server.service().addFolder(QStringLiteral("raw"));
        year = server.service().addFolder(QStringLiteral("2026"), raw);
        file = server.service().addFile(QStringLiteral("run1.mzML"), "some content", year);
        item = QStringLiteral("GET /files/%1").arg(file);
        path = item + QStringLiteral("/path");
    }
    static void logOut() { HalvaneConnection::instance().setCredentials(QString(), QByteArray()); }

    int raw, year, file;
    QString item, path; //!< the two requests
};

using FileMetadataTask = ResourceMetadataTasks;

TEST_F(FileMetadataTask, JoinsTheRecordAndTheFoldersAbove) {
    HalvaneGetFileResourceMetadataTask task(file);
    EXPECT_EQ(task.parent(), nullptr);
    EXPECT_FALSE(run(task).hasError());
    const auto metadata = resultOf<HalvaneFileResourceMetadata>(task);
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->id(), file);
    EXPECT_EQ(metadata->fullPath(), QStringLiteral("raw/2026/run1.mzML"));
    EXPECT_EQ(metadata->parentFolderIdsPath(), (QList<int>{raw, year}));
    EXPECT_EQ(metadata->fileItem().size(), 12);
    EXPECT_EQ(server.log(), (QStringList{item, path}));
}

TEST_F(FileMetadataTask, HasNoMetaObjectOfItsOwn) {
    EXPECT_STREQ(HalvaneGetFileResourceMetadataTask(file).metaObject()->className(),
                 "orx::HalvaneComplexTask");
}

TEST_F(FileMetadataTask, TheResultIsOfTheRegisteredTypeOfAllMetadata) {
    HalvaneGetFileResourceMetadataTask task(file);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(QString::fromLatin1(task.variantResult().typeName()), TypeName);
    EXPECT_EQ(QMetaType::fromName(TypeName.toLatin1()), task.variantResult().metaType());
}

TEST_F(FileMetadataTask, AFileInTheRootHasEmptyFolderLists) {
    HalvaneGetFileResourceMetadataTask task(server.service().addFile(QStringLiteral("loose.mgf"), "x"));
    EXPECT_FALSE(run(task).hasError());
    const auto metadata = resultOf<HalvaneFileResourceMetadata>(task);
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->fullPath(), QStringLiteral("/loose.mgf"));
    EXPECT_TRUE(metadata->parentFolderIdsPath().isEmpty());
}

TEST_F(FileMetadataTask, BothRequestsAreInFlightAtOnce) {
    server.script(QStringLiteral("GET *"), ScriptedFault::hold(), 2);
    HalvaneGetFileResourceMetadataTask task(file);
    task.exec();
    ASSERT_EQ(server.inFlightCount(), 2);
    ASSERT_EQ(server.heldCount(), 2);
    EXPECT_TRUE(task.isRunning());
    EXPECT_FALSE(task.variantResult().isValid());
    server.release();
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_TRUE(resultOf<HalvaneFileResourceMetadata>(task));
}

TEST_F(FileMetadataTask, EitherMayFinishFirst) {
    for (const QString& held : {item, path}) {
        server.script(held, ScriptedFault::hold());
        HalvaneGetFileResourceMetadataTask task(file);
        EventLog events(&task);
        task.exec();
        ASSERT_TRUE(waitUntil([this] { return server.inFlightCount() == 1; }));
        EXPECT_EQ(server.heldCount(), 1);
        EXPECT_TRUE(task.isRunning()) << qPrintable(held);
        server.release();
        EXPECT_FALSE(task.waitForFinished().hasError());
        EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
        const auto metadata = resultOf<HalvaneFileResourceMetadata>(task);
        ASSERT_TRUE(metadata) << qPrintable(held);
        EXPECT_EQ(metadata->id(), file);
        EXPECT_EQ(metadata->fullPath(), QStringLiteral("raw/2026/run1.mzML"));
        EXPECT_EQ(metadata->parentFolderIdsPath(), (QList<int>{raw, year}));
    }
}

TEST_F(FileMetadataTask, AFailedRequestFailsTheTaskAndLeavesNoResult) {
    for (const QString& failing : {item, path}) {
        server.script(failing, gone());
        HalvaneGetFileResourceMetadataTask task(file);
        const Error error = run(task);
        EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound)) << qPrintable(failing);
        EXPECT_EQ(error.errorMessage(), QStringLiteral("There is no such item."));
        EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneGetFileResourceMetadataTask::doFinish")));
        EXPECT_FALSE(task.variantResult().isValid());
        ASSERT_TRUE(waitUntil([&task] { return task.isIdle(); }));
        EXPECT_FALSE(task.variantResult().isValid());
    }
}

TEST_F(FileMetadataTask, AFailureLeavesNoResultWhateverTheOtherRequestBrings) {
    server.script(path, gone());
    server.script(item, ScriptedFault::hold());
    HalvaneGetFileResourceMetadataTask task(file);
    EXPECT_TRUE(run(task).hasError());
    server.release();
    ASSERT_TRUE(waitUntil([&task] { return task.isIdle(); }));
    EXPECT_FALSE(task.variantResult().isValid());
    EXPECT_TRUE(task.hasError());
}

TEST_F(FileMetadataTask, CancelledItAbortsBothRequestsAndLeavesNoResult) {
    server.script(QStringLiteral("GET *"), ScriptedFault::hang(), 2);
    HalvaneGetFileResourceMetadataTask task(file);
    task.exec();
    ASSERT_EQ(server.inFlightCount(), 2);
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_FALSE(task.variantResult().isValid());
}

TEST_F(FileMetadataTask, DestroyedWhileItRunsItLeavesNothingBehind) {
    server.script(QStringLiteral("GET *"), ScriptedFault::hold(), 2);
    auto task = std::make_unique<HalvaneGetFileResourceMetadataTask>(file);
    task->exec();
    EXPECT_EQ(server.inFlightCount(), 2);
    task.reset();
    EXPECT_EQ(server.inFlightCount(), 0);
}

TEST_F(FileMetadataTask, AReceiverMayDestroyItWhenTheFirstRequestFailsAtOnce) {
    logOut();
    auto* const task = new HalvaneGetFileResourceMetadataTask(file);
    bool destroyed = false;
    QObject::connect(task, &BaseTask::finished, [task, &destroyed] {
        delete task;
        destroyed = true;
    });
    task->exec();
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(server.log().isEmpty());
}

using FolderMetadataTask = ResourceMetadataTasks;

TEST_F(FolderMetadataTask, IsNamedAfterTheFolder) {
    QObject parent;
    EXPECT_EQ((new HalvaneGetFolderMetadataTask(7, &parent))->parent(), &parent);
    EXPECT_EQ(HalvaneGetFolderMetadataTask(7).name(), QStringLiteral("GetFolderMetadata(ID=7)"));
    EXPECT_EQ(HalvaneGetFolderMetadataTask(0).name(), QStringLiteral("GetFolderMetadata(ID=0)"));
    EXPECT_EQ(HalvaneGetFolderMetadataTask(-12).name(), QStringLiteral("GetFolderMetadata(ID=-12)"));
}

TEST_F(FolderMetadataTask, HasAMetaObjectWithoutSignalsAndSlots) {
    const QMetaObject& own = HalvaneGetFolderMetadataTask::staticMetaObject;
    EXPECT_STREQ(own.className(), "orx::HalvaneGetFolderMetadataTask");
    EXPECT_EQ(own.superClass(), &HalvaneTask::staticMetaObject);
    EXPECT_EQ(own.methodCount(), own.methodOffset());
}

//! The two steps of the call, made by hand.
class OpenFolderTask : public HalvaneGetFolderMetadataTask {
public:
    using HalvaneGetFolderMetadataTask::HalvaneGetFolderMetadataTask;
    using HalvaneGetFolderMetadataTask::parseData;
    using HalvaneGetFolderMetadataTask::prepareRequest;
};

TEST_F(FolderMetadataTask, AsksForTheFolderWithoutQueryAndBody) {
    for (const int id : {7, 0, -12}) {
        const auto request =
            OpenFolderTask(id).prepareRequest(QUrl(QStringLiteral("http://scripted.invalid/api/v1")));
        ASSERT_FALSE(request.hasError());
        EXPECT_EQ(request->url.toString(),
                  QStringLiteral("http://scripted.invalid/api/v1/folders/%1").arg(id));
        EXPECT_EQ(int(request->method), 1);
        EXPECT_FALSE(request->body);
    }
}

TEST_F(FolderMetadataTask, DeliversTheFolder) {
    HalvaneGetFolderMetadataTask task(year);
    EXPECT_EQ(task.metadata().id(), -1);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /folders/%1").arg(year)});
    EXPECT_EQ(task.metadata().id(), year);
    EXPECT_EQ(task.metadata().fullPath(), QStringLiteral("raw/2026"));
    const auto metadata = resultOf<HalvaneFolderResourceMetadata>(task);
    ASSERT_TRUE(metadata);
    EXPECT_EQ(metadata->toJson(), task.metadata().toJson());
    EXPECT_EQ(metadata->parentFolderIdsPath(), QList<int>{raw});
}

//! After a failure there is neither a result nor metadata.
void expectNothing(const HalvaneGetFolderMetadataTask& task) {
    EXPECT_FALSE(task.variantResult().isValid());
    EXPECT_EQ(task.metadata().id(), -1);
    EXPECT_EQ(task.metadata().toJson(), HalvaneFolderResourceMetadata().toJson());
}

TEST_F(FolderMetadataTask, AReplyWithoutDataFails) {
    for (const auto& [reply, message] :
         {std::pair(QByteArray(R"({"status":"success"})"), QStringLiteral("The key \"data\" is missing.")),
          std::pair(QByteArray(R"({"status":"success","data":[1]})"),
                    QStringLiteral("The value of the key \"data\" is not an object."))}) {
        server.script(QStringLiteral("GET /folders/*"), ScriptedFault::raw(200, reply));
        HalvaneGetFolderMetadataTask task(year);
        const Error error = run(task);
        EXPECT_TRUE(error.is(ErrorCode::ParseError)) << qPrintable(error.traceText());
        EXPECT_EQ(error.errorMessage(), message);
        EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneGetFolderMetadataTask::parseData")));
        expectNothing(task);
    }
}

TEST_F(FolderMetadataTask, AFailureOfTheServerIsPassedOn) {
    HalvaneGetFolderMetadataTask task(999);
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound));
    expectNothing(task);
}

TEST_F(FolderMetadataTask, AnEnvelopeThatIsNoneIsStampedHere) {
    OpenFolderTask task(year);
    const Error error = task.parseData({});
    EXPECT_TRUE(error.is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneGetFolderMetadataTask::parseData")));
    expectNothing(task);
}

TEST_F(FolderMetadataTask, AFolderThatCannotBeReadIsPassedOnUnchanged) {
    server.script(QStringLiteral("GET /folders/*"),
                  ScriptedFault::raw(200, R"({"status":"success","data":{"id":9}})"));
    HalvaneGetFolderMetadataTask task(year);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::ParseError));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("The key \"parent_id\" is missing."));
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFolderResourceMetadata::fromJson")));
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneGetFolderMetadataTask::parseData")));
    expectNothing(task);
}

TEST_F(FolderMetadataTask, AFolderThatCannotBeReadLeavesTheMetadataAsItWas) {
    const QJsonObject folder{{QStringLiteral("id"), 9},
                             {QStringLiteral("parent_id"), 7},
                             {QStringLiteral("privilege_ids"), QJsonValue()},
                             {QStringLiteral("usergroup_ids"), QJsonValue()},
                             {QStringLiteral("path"), QJsonArray()}};
    const auto reply = [](const QJsonObject& data) {
        return QJsonObject{{QStringLiteral("status"), QStringLiteral("success")},
                           {QStringLiteral("data"), data}};
    };
    OpenFolderTask task(9);
    ASSERT_FALSE(task.parseData(reply(folder)).hasError());
    EXPECT_EQ(task.metadata().parentId(), 7);
    EXPECT_TRUE(
        task.parseData(reply(without(with(folder, QStringLiteral("parent_id"), 8), QStringLiteral("path"))))
            .hasError());
    EXPECT_EQ(task.metadata().parentId(), 7);
}

using BlockingFolderMetadata = ResourceMetadataTasks;

const QString BlockingName = QStringLiteral("HalvaneFolderResourceMetadata::getMetadataBlocking");

TEST_F(BlockingFolderMetadata, ReturnsTheFolder) {
    const auto metadata = HalvaneFolderResourceMetadata::getMetadataBlocking(year);
    ASSERT_FALSE(metadata.hasError()) << qPrintable(metadata.error().traceText());
    EXPECT_EQ(metadata->id(), year);
    EXPECT_EQ(metadata->fullPath(), QStringLiteral("raw/2026"));
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /folders/%1").arg(year)});
}

TEST_F(BlockingFolderMetadata, AsksNothingWhenNobodyIsLoggedIn) {
    logOut();
    const auto metadata = HalvaneFolderResourceMetadata::getMetadataBlocking(year);
    ASSERT_TRUE(metadata.hasError());
    EXPECT_TRUE(metadata.error().is(ErrorCode::NotAuthenticated));
    EXPECT_TRUE(passedThrough(metadata.error(), QStringLiteral("HalvaneConnection::sendRequest")));
    EXPECT_TRUE(passedThrough(metadata.error(), BlockingName));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(BlockingFolderMetadata, PassesAFailedRequestOn) {
    const auto metadata = HalvaneFolderResourceMetadata::getMetadataBlocking(999);
    ASSERT_TRUE(metadata.hasError());
    EXPECT_TRUE(isHalvaneError(metadata.error(), HalvaneServerErrorCode::NotFound));
    EXPECT_TRUE(passedThrough(metadata.error(), BlockingName));
}

TEST_F(BlockingFolderMetadata, WaitsForAReplyThatComesLate) {
    server.script(QStringLiteral("GET /folders/*"), ScriptedFault::hold());
    server.onRequest = [this](const ScriptedRequest&) {
        QMetaObject::invokeMethod(
            qApp, [this] { server.release(); }, Qt::QueuedConnection);
    };
    EXPECT_FALSE(HalvaneFolderResourceMetadata::getMetadataBlocking(year).hasError());
}

} // namespace
} // namespace orx::testing
