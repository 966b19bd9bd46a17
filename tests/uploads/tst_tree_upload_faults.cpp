// Things go wrong in the middle of a tree: what was acknowledged is on the server once, what was not is told
// with its reason, and another run completes the tree.
#include "TreeUploads.h"

#include <HalvaneConnection.h>
#include <HalvaneError.h>
#include <HalvaneSessionTasks.h>

#include <QProcess>

namespace orx::testing {
namespace {

class TreeFaults : public TreeUploads {
protected:
    static constexpr int Files = 34;

    //! Files of one chunk in the directory and below it, and one of five.
    void makeTree() {
        for (int i = 0; i < 24; ++i)
            put(text("run %1.bin").arg(i), 10 + 7 * i);
        for (int i = 0; i < 9; ++i)
            put(text("sub/run %1.bin").arg(i), 10 + 7 * i);
        big = put(text("sub/big.bin"), 5 * ChunkSize);
    }
    //! Starts the upload and returns when some files are there, every one was announced, and a reply is held.
    void startAndHold(const FaultProxy::Match& match) {
        makeTree();
        const auto held = proxy->holdReply(match);
        task = upload();
        task->exec();
        EXPECT_TRUE(waitUntil([&] {
            return held->isAnswered() && started.size() == Files && task->successfulFileUploadsCount() >= 5;
        }));
        hold = held;
    }
    //! Lets the held reply go and the task come to its end; its error.
    Error goOn() {
        hold->release();
        Error error = task->waitForFinished();
        awaitIdle(*task);
        return error;
    }
    //! Removes a folder with everything in it, as somebody else does.
    void removeFolder(int id) {
        server.admin({text("folder"), text("remove"), text("--folder"), QString::number(id)});
    }
    void expectRetriesToSucceed() {
        const QStringList paths = failed.keys() + canceled;
        failed.clear();
        canceled.clear();
        for (const QString& path : paths)
            EXPECT_FALSE(task->retry(path).hasError()) << qPrintable(path);
        const Error error = task->waitForFinished();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
        awaitIdle(*task);
        expectAllAccountedFor(*task);
        EXPECT_EQ(contents(onServer()), expected());
    }

    QString big;
    std::unique_ptr<HalvaneFolderUploadTask> task;
    std::shared_ptr<FaultProxy::Hold> hold;
};

class KilledServer : public TreeFaults, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(At, KilledServer, ::testing::Values(".*/chunks/1", ".*/uploads/finalize"),
                         [](const auto& at) { return at.index == 0 ? "AChunk" : "TheFinalisation"; });

TEST_P(KilledServer, HasEveryFileOnceWhenItIsBack) {
    startAndHold({"", GetParam(), 0, 1});
    server.kill();
    hold->drop();
    ASSERT_TRUE(server.start());
    (void)task->waitForFinished(); // the attempts of a request may end before a slow machine has it up
    awaitIdle(*task);
    expectAllAccountedFor(*task);
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, WhenTheLoginExpiresTheRestIsToldAndGoesUpAfterANewOne) {
    startAndHold(chunk(1));
    const QByteArray token = HalvaneConnection::instance().token();
    HalvaneLogoutTask logout;
    ASSERT_FALSE(run(logout).hasError());
    HalvaneConnection::instance().setCredentials(QString::fromLatin1(RealServer::AdminName), token);
    EXPECT_TRUE(goOn().hasError());
    EXPECT_TRUE(failed.contains(big));
    for (const Error& error : failed)
        EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated))
            << qPrintable(error.traceText());
    ASSERT_TRUE(client->login());
    expectAllAccountedFor(*task);
    expectRetriesToSucceed();
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, AFolderRemovedWhileAFileInItIsSentFailsThatFileAlone) {
    startAndHold(chunk(1));
    ASSERT_TRUE(waitUntil([this] { return task->successfulFileUploadsCount() == 24; })) << "all beside it";
    removeFolder(folderId(text("raw/sub")));
    EXPECT_TRUE(goOn().hasError());
    EXPECT_TRUE(isHalvaneError(failed.value(big), HalvaneServerErrorCode::NotFound))
        << qPrintable(failed.value(big).traceText());
    EXPECT_EQ(task->successfulFileUploadsCount() + failed.size(), Files);
    EXPECT_FALSE(contents(onServer()).contains(text("raw/sub/")));
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, AFolderRemovedBeforeItsFilesAreSentFailsThemAndNoOther) {
    makeTree();
    task = upload();
    bool removed = false;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::uploadStarted, task.get(),
                     [&](HalvaneFileUploadTaskBase* file) {
                         if (!removed && file->path().startsWith(local(text("sub"))))
                             removeFolder(file->targetId());
                         removed = removed || file->path().startsWith(local(text("sub")));
                     });
    EXPECT_TRUE(isHalvaneError(run(*task), HalvaneServerErrorCode::NotFound));
    EXPECT_TRUE(removed);
    EXPECT_EQ(failed.size(), 10);
    for (const Error& error : failed)
        EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound));
    expectAllAccountedFor(*task);
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, AFolderRemovedBeforeItWasComparedEndsThatFolderWithTheReason) {
    const int sub = makeFolder(text("sub"), makeFolder(text("raw")));
    makeTree();
    hold = proxy->holdReply({"GET", ".*/folders/" + std::to_string(sub) + "/files", 0, 1});
    task = upload();
    task->exec();
    ASSERT_TRUE(waitUntil([this] { return hold->isAnswered(); }));
    removeFolder(sub);
    EXPECT_TRUE(isHalvaneError(goOn(), HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(task->successfulFileUploadsCount(), 24);
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, FilesThatChangeWhileTheyAreSentAreToldAndGoUpAsTheyAreThen) {
    startAndHold(chunk(1));
    put(text("sub/big.bin"), "another content, and shorter");
    EXPECT_TRUE(goOn().hasError());
    EXPECT_EQ(failed.keys(), QStringList{big});
    EXPECT_TRUE(failed.value(big).is(ErrorCode::FileChanged)) << qPrintable(failed.value(big).traceText());
    EXPECT_TRUE(failed.value(big).errorMessage().contains(big));
    expectAllAccountedFor(*task);
    expectRetriesToSucceed();
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, FilesThatChangeBeforeTheyAreSentGoUpWholeOrAreTold) {
    makeTree();
    task = upload();
    QObject::connect(task.get(), &HalvaneFolderUploadTask::uploadStarted, task.get(),
                     [&](HalvaneFileUploadTaskBase* file) {
                         if (file->path() == big)
                             put(text("sub/big.bin"), 7 * ChunkSize + 1);
                         if (file->path().endsWith(u"run 1.bin"))
                             put(QDir(local()).relativeFilePath(file->path()), "short");
                         if (file->path().endsWith(u"run 2.bin"))
                             QFile::remove(file->path());
                     });
    EXPECT_TRUE(run(*task).hasError());
    const QStringList gone{local(text("run 2.bin")), local(text("sub/run 2.bin"))};
    for (const QString& path : gone) {
        EXPECT_TRUE(failed.contains(path));
        EXPECT_TRUE(task->retry(path).hasError());
        failed.remove(path);
    }
    awaitIdle(*task);
    expectAllAccountedFor(*task);
    expectCompletedByAnotherRun();
}

TEST_F(TreeFaults, AClientThatWasKilledIsFollowedByOneThatGoesOn) {
    makeTree();
    hold = proxy->holdReply(chunk(1));
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(text("HALVANE_TOKEN"), QString::fromLatin1(HalvaneConnection::instance().token()));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(text(TREE_UPLOADER), QStringList{QString::fromStdString(proxy->url()),
                                                   QString::fromLatin1(RealServer::AdminName), local()});
    hold->waitUntilAnswered();
    process.kill();
    ASSERT_TRUE(process.waitForFinished(-1));
    hold->drop();
    expectCompletedByAnotherRun();
    EXPECT_EQ(requests("PUT", ".*/chunks/1"), 1) << "what the server had is not sent again";
}

} // namespace
} // namespace orx::testing
