// Which files lie beside a file.
#include "MetadataProbes.h"
#include "tasks/GetHalvaneFileSiblingsTask.h"

#include <HalvaneConnection.h>
#include <LoopbackServer.h>

#include <QJsonDocument>

namespace orx::testing {
namespace {

HalvaneFileResourceReferenceSPtr referenceTo(int id, int version = 1) {
    const auto reference = HalvaneFileResourceReference::create(id, version, QStringLiteral("run1.mzML"));
    EXPECT_FALSE(reference.hasError());
    return reference.hasError() ? nullptr : *reference;
}

QStringList textsOf(const QList<ResourceReferenceSPtr>& references) {
    QStringList texts;
    for (const ResourceReferenceSPtr& reference : references)
        texts.append(reference->displayText());
    return texts;
}

//! Lets a test run the body on its own thread, which the scripted server serves.
class OpenSiblingsTask : public GetHalvaneFileSiblingsTask {
public:
    using GetHalvaneFileSiblingsTask::GetHalvaneFileSiblingsTask;
    using GetHalvaneFileSiblingsTask::loadSiblings;
    ~OpenSiblingsTask() override { stopBody(); }
};

class FileSiblings : public UploadTest {
protected:
    //! "name (file:ID@VERSION)" of each sibling; failing is a test failure.
    static QStringList siblingsOf(int id, int version = 1) {
        const auto siblings = OpenSiblingsTask(referenceTo(id, version), nullptr).loadSiblings();
        EXPECT_FALSE(siblings.hasError()) << qPrintable(siblings.error().traceText());
        EXPECT_TRUE(siblings.warnings().isEmpty());
        return siblings.hasError() ? QStringList() : textsOf(*siblings);
    }
    static QString line(const QString& name, int id, int version) {
        return QStringLiteral("%1 (file:%2@%3)").arg(name).arg(id).arg(version);
    }
    //! The answer to a listing: files of these ids, names and versions, in this order.
    void scriptListing(const QList<std::tuple<int, QString, int>>& files) {
        QJsonArray array;
        for (const auto& [id, name, version] : files)
            array.append(serialized(fileItem(id, name, folder, version)));
        const QJsonObject reply{{QStringLiteral("status"), QStringLiteral("success")},
                                {QStringLiteral("data"), QJsonObject{{QStringLiteral("files"), array}}}};
        server.script(QStringLiteral("GET /folders/*"),
                      ScriptedFault::raw(200, QJsonDocument(reply).toJson(QJsonDocument::Compact)));
    }

    int folder = server.service().addFolder(QStringLiteral("raw"));
    int file = server.service().addFile(QStringLiteral("run1.mzML"), "one", folder);
    ErrorLog errors;
};

const QString LoadName = QStringLiteral("GetHalvaneFileSiblingsTask::loadSiblings");

TEST_F(FileSiblings, AFileAloneInItsFolderHasItselfAtItsLatestVersion) {
    server.service().addVersion(file, "two");
    server.service().addVersion(file, "three");
    EXPECT_EQ(siblingsOf(file, 2), QStringList{line(QStringLiteral("run1.mzML"), file, 3)});
    EXPECT_EQ(server.log(), (QStringList{QStringLiteral("GET /files/%1").arg(file),
                                         QStringLiteral("GET /folders/%1/files").arg(folder)}));
    EXPECT_TRUE(ErrorLog::lines().isEmpty());
}

TEST_F(FileSiblings, AllFilesOfTheFolderAndNoOthersInTheServersOrder) {
    const int blank = server.service().addFile(QStringLiteral("blank.mgf"), "x", folder);
    const int second = server.service().addFile(QStringLiteral("a run.mzML"), "x", folder);
    server.service().addFile(QStringLiteral("elsewhere.mgf"), "x");
    server.service().addVersion(blank, "y");
    EXPECT_EQ(siblingsOf(file), (QStringList{line(QStringLiteral("run1.mzML"), file, 1),
                                             line(QStringLiteral("blank.mgf"), blank, 2),
                                             line(QStringLiteral("a run.mzML"), second, 1)}));
}

TEST_F(FileSiblings, AreReferencesWithoutAVariant) {
    const auto siblings = OpenSiblingsTask(referenceTo(file), nullptr).loadSiblings();
    ASSERT_FALSE(siblings.hasError());
    ASSERT_EQ(siblings->size(), 1);
    const auto sibling = siblings->first().dynamicCast<HalvaneFileResourceReference>();
    ASSERT_TRUE(sibling);
    EXPECT_EQ(sibling->variant(), QString());
}

TEST_F(FileSiblings, TheListIsNotSorted) {
    scriptListing({{30, QStringLiteral("c.mgf"), 2},
                   {10, QStringLiteral("b.mgf"), 1},
                   {20, QStringLiteral("a.mgf"), 5}});
    EXPECT_EQ(siblingsOf(file),
              (QStringList{line(QStringLiteral("c.mgf"), 30, 2), line(QStringLiteral("b.mgf"), 10, 1),
                           line(QStringLiteral("a.mgf"), 20, 5)}));
}

TEST_F(FileSiblings, AFileThatNoReferenceCanBeMadeOfIsSkipped) {
    scriptListing({{30, QStringLiteral("c.mgf"), 2},
                   {31, QString(), 1},
                   {32, QStringLiteral("b.mgf"), 0},
                   {33, QStringLiteral("a.mgf"), 1}});
    EXPECT_EQ(siblingsOf(file),
              (QStringList{line(QStringLiteral("c.mgf"), 30, 2), line(QStringLiteral("a.mgf"), 33, 1)}));
    EXPECT_FALSE(ErrorLog::mentions(LoadName));
}

TEST_F(FileSiblings, OfAnUnknownFileAreNone) {
    EXPECT_EQ(siblingsOf(999), QStringList());
    EXPECT_TRUE(ErrorLog::mentions(LoadName));
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /files/999")});
}

TEST_F(FileSiblings, OfAFolderThatCannotBeListedAreNone) {
    server.script(
        QStringLiteral("GET /folders/*"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("Not you.")));
    EXPECT_EQ(siblingsOf(file), QStringList());
    EXPECT_TRUE(ErrorLog::mentions(LoadName));
}

TEST_F(FileSiblings, OfAServerThatCannotBeReachedAreNone) {
    server.script(QStringLiteral("*"), ScriptedFault::networkError(NetworkErrorCode::ConnectionFailed),
                  ScriptedHalvaneServer::Always);
    EXPECT_EQ(siblingsOf(file), QStringList());
    EXPECT_TRUE(ErrorLog::mentions(LoadName));
    EXPECT_GE(server.count(QStringLiteral("GET /files/*")), 1) << "it was tried";
    EXPECT_EQ(server.count(QStringLiteral("GET /folders/*")), 0);
}

TEST_F(FileSiblings, OfAServerThatIsLostBetweenTheCallsAreNone) {
    server.script(QStringLiteral("GET /folders/*"),
                  ScriptedFault::networkError(NetworkErrorCode::ConnectionLost),
                  ScriptedHalvaneServer::Always);
    EXPECT_EQ(siblingsOf(file), QStringList());
    EXPECT_TRUE(ErrorLog::mentions(LoadName));
}

TEST_F(FileSiblings, AreNoneWhenNobodyIsLoggedIn) {
    HalvaneConnection::instance().setCredentials(QString(), QByteArray());
    EXPECT_EQ(siblingsOf(file), QStringList());
    EXPECT_TRUE(ErrorLog::mentions(LoadName));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST(FileSiblingsTask, HasTheParentItIsGiven) {
    QObject parent;
    EXPECT_EQ((new GetHalvaneFileSiblingsTask(referenceTo(12), &parent))->parent(), &parent);
}

//! This process is logged in at a server that the test scripts.
struct LoggedIn {
    explicit LoggedIn(const LoopbackServer& server) : client(QUrl(QString::fromStdString(server.url()))) {
        HalvaneConnection::instance().setCredentials(QStringLiteral("anna"), "token");
    }
    ClientEnvironment client;
};

QByteArray success(const QJsonObject& data) {
    return QJsonDocument(QJsonObject{{QStringLiteral("status"), QStringLiteral("success")},
                                     {QStringLiteral("data"), data}})
        .toJson(QJsonDocument::Compact);
}

TEST(FileSiblingsTask, RunsOnAWorkerAndHasTheListAfterwards) {
    const QJsonObject item = serialized(fileItem(12, QStringLiteral("run1.mzML"), 7, 3));
    const QByteArray file = success(item);
    const QByteArray files = success({{QStringLiteral("files"), QJsonArray{item}}});
    const LoopbackServer server(
        LoopbackServer::answering([&](LoopbackConnection& connection, const auto& request) {
            connection.reply(200, (request.target() == "/api/v1/files/12" ? file : files).toStdString());
        }));
    const LoggedIn loggedIn(server);
    GetHalvaneFileSiblingsTask task(referenceTo(12), nullptr);
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(textsOf(task.siblings()), QStringList{QStringLiteral("run1.mzML (file:12@3)")});
}

TEST(FileSiblingsTask, SucceedsWithoutSiblingsWhenTheServerKnowsNoSuchFile) {
    const LoopbackServer server(LoopbackServer::answering([](LoopbackConnection& connection, const auto&) {
        connection.reply(404, R"({"status":"error","error":{"code":3,"message":"There is no such file."}})");
    }));
    const LoggedIn loggedIn(server);
    GetHalvaneFileSiblingsTask task(referenceTo(999), nullptr);
    task.exec();
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_FALSE(task.hasError());
    EXPECT_TRUE(task.siblings().isEmpty());
}

//! Answers nothing, and tells that a request is there.
struct SilentServer {
    Gate asked;
    LoopbackServer server{[this](LoopbackConnection& connection) {
        if (!connection.readRequest())
            return;
        asked.open();
        connection.waitForClient();
    }};
};

TEST(FileSiblingsTask, CancelledWhileItWaitsForTheServerItEndsCancelled) {
    SilentServer silent;
    const LoggedIn loggedIn(silent.server);
    GetHalvaneFileSiblingsTask task(referenceTo(12), nullptr);
    task.exec();
    silent.asked.wait();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(task.siblings().isEmpty());
}

TEST(FileSiblingsTask, DestroyedWhileItWaitsForTheServerItLeavesNothingBehind) {
    SilentServer silent;
    const LoggedIn loggedIn(silent.server);
    bool finished = false;
    auto task = std::make_unique<GetHalvaneFileSiblingsTask>(referenceTo(12), nullptr);
    QObject::connect(task.get(), &BaseTask::finished, [&finished] { finished = true; });
    task->exec();
    silent.asked.wait();
    task.reset();
    EXPECT_FALSE(finished);
}

} // namespace
} // namespace orx::testing
