// A local directory goes up level by level: folders found or made, entries uploaded side by side, failures
// kept for another try.
#include "FolderUploadFixture.h"

#include <QCoreApplication>
#include <QJsonArray>

namespace orx::testing {
namespace {

TEST_F(FolderUpload, HasItsNameKindAndMaximumFromTheStart) {
    put(QStringLiteral("a"));
    put(QStringLiteral("b"));
    put(QStringLiteral("sub/c"));
    put(QStringLiteral(".hidden"));
    const auto task = upload();
    EXPECT_EQ(task->name(), QStringLiteral("Upload:Folder(%1)").arg(tree()));
    EXPECT_EQ(int(task->uploadDataType()), 1);
    EXPECT_EQ(task->currentProgress(), 0);
    EXPECT_EQ(task->maxProgress(), 3 * 102);
    EXPECT_EQ(task->successfulFileUploadsCount(), 0);
    EXPECT_FALSE(task->uploadedFolder().has_value());
    EventLog events(task.get());
    EXPECT_TRUE(events.lines().isEmpty());
    QCoreApplication::processEvents();
    EXPECT_EQ(events.lines(), QStringList{QStringLiteral("progressInitiated 306")});
}

TEST_F(FolderUpload, ATreeGoesUpWithAllItsLevels) {
    put(QStringLiteral("a"), "first");
    put(QStringLiteral("sub/b"), "second");
    put(QStringLiteral("sub/deep/c"), "third");
    EXPECT_TRUE(QDir().mkpath(tree(QStringLiteral("empty"))));
    const auto task = upload(GoOn, {4, 5});
    EXPECT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(onServer(), (QStringList{QStringLiteral("deep/c=third"), QStringLiteral("raw/a=first"),
                                       QStringLiteral("sub/b=second")}));
    const auto created = server.requests(QStringLiteral("POST /folders"));
    EXPECT_EQ(created.size(), 4);
    for (const ScriptedRequest& request : created)
        EXPECT_EQ(request.json().value(u"usergroup_ids"), (QJsonArray{4, 5})) << qPrintable(request.line());
    for (const ScriptedRequest& request : server.requests(QStringLiteral("POST /uploads")))
        EXPECT_FALSE(request.json().contains(u"usergroup_ids"));
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{3, 0, 0}));
    EXPECT_EQ(task->currentProgress(), task->maxProgress());
    const auto folder = task->uploadedFolder();
    ASSERT_TRUE(folder.has_value());
    EXPECT_EQ(folder->files().size(), 1);
    EXPECT_EQ(folder->folders().size(), 2);
    QStringList started = signalled;
    started.sort();
    EXPECT_EQ(started, (QStringList{QStringLiteral("started a"), QStringLiteral("started sub/b"),
                                    QStringLiteral("started sub/deep/c")}));
}

TEST_F(FolderUpload, TellsOfEachFolderBelowThatFailedAndThatIsThere) {
    put(QStringLiteral("good/a"));
    EXPECT_TRUE(QDir().mkpath(tree(QStringLiteral("good/empty"))));
    const QString below = put(QStringLiteral("sub/deep/b"));
    server.onRequest = [this](const ScriptedRequest& request) {
        if (request.line() == u"POST /folders" && request.json().value(u"name") == QStringLiteral("deep"))
            server.script(QStringLiteral("POST /folders"),
                          ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                 QStringLiteral("not yours")));
    };
    const auto task = upload();
    QStringList failed;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::folderUploadFailed, task.get(),
                     [&failed](const HalvaneFolderUploadTask* folder) {
                         failed.append(folder->path() + QStringLiteral(": ") +
                                       folder->error().errorMessage());
                     });
    QStringList uploaded;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::folderUploaded, task.get(),
                     [&uploaded, this](const HalvaneFolderUploadTask* folder) {
                         uploaded.append(QDir(tree()).relativeFilePath(folder->path()));
                     });
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(uploaded, (QStringList{QStringLiteral("good/empty"), QStringLiteral("good")}));
    EXPECT_EQ(failed, (QStringList{QFileInfo(below).path() + QStringLiteral(": not yours"),
                                   tree(QStringLiteral("sub")) + QStringLiteral(": not yours")}));
    EXPECT_EQ(onServer(), QStringList{QStringLiteral("good/a=content")});
}

TEST_F(FolderUpload, OfSeveralFoldersOfTheNameTheLargestIdIsTaken) {
    server.service().addFolder(QStringLiteral("raw"), 1, 7);
    server.service().addFolder(QStringLiteral("raw"), 1, 12);
    server.service().addFolder(QStringLiteral("raw"), 1, 9);
    server.service().addFolder(QStringLiteral("RAW"), 1, 20);
    put(QStringLiteral("a"));
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(task->uploadedFolder()->folderId(), 12);
    EXPECT_EQ(server.count(QStringLiteral("POST /folders")), 0);
}

TEST_F(FolderUpload, AFolderThatDiffersInLetterCaseIsNotTaken) {
    server.service().addFolder(QStringLiteral("Raw"), 1, 7);
    put(QStringLiteral("a"));
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_NE(task->uploadedFolder()->folderId(), 7);
    EXPECT_EQ(server.count(QStringLiteral("POST /folders")), 1);
}

TEST_F(FolderUpload, AnEmptyDirectoryNeedsNoVerification) {
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    ASSERT_TRUE(task->uploadedFolder().has_value());
    EXPECT_TRUE(task->uploadedFolder()->files().isEmpty());
    EXPECT_EQ(task->maxProgress(), 0);
    EXPECT_EQ(server.log(),
              (QStringList{QStringLiteral("GET /folders/1/folders"), QStringLiteral("POST /folders")}));
}

TEST_F(FolderUpload, UploadStartedComesForAllBeforeAnyOfThemSendsAnything) {
    put(QStringLiteral("a"));
    put(QStringLiteral("b"));
    const auto task = upload();
    QList<int> sent;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::uploadStarted, task.get(),
                     [&](HalvaneFileUploadTaskBase* file) {
                         EXPECT_FALSE(file->isRunning());
                         sent.append(server.count(QStringLiteral("POST /uploads")));
                     });
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(sent, (QList<int>{0, 0}));
}

TEST_F(FolderUpload, ThePolicyIsSharedByAllLevelsAndToldOfCancellation) {
    const int raw = server.service().addFolder(QStringLiteral("raw"), 1);
    server.service().addFile(QStringLiteral("a"), "old", raw);
    const int sub = server.service().addFolder(QStringLiteral("sub"), raw);
    server.service().addFile(QStringLiteral("b"), "old", sub);
    put(QStringLiteral("a"));
    put(QStringLiteral("sub/b"));
    const auto policy = std::make_shared<CountedPolicy>();
    policy->skips = true;
    const auto task = upload();
    task->setDuplicateUploadPolicy(policy);
    EXPECT_FALSE(run(*task).hasError());
    policy->asked.sort();
    EXPECT_EQ(policy->asked, (QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{0, 0, 0}));
    EXPECT_LT(task->currentProgress(), task->maxProgress());
    EXPECT_EQ(policy->cancels, 0);
    const auto canceled = upload();
    canceled->setDuplicateUploadPolicy(policy);
    canceled->exec();
    canceled->cancel();
    EXPECT_EQ(policy->cancels, 1);
    EXPECT_TRUE(canceled->waitForFinished().isCanceled());
}

TEST_F(FolderUpload, AFailedListingOrCreationOrVerificationEndsTheTask) {
    for (const auto* call : {"GET /folders/1/folders", "POST /folders", "GET /folders/*/files"}) {
        put(QStringLiteral("a"));
        server.script(
            QString::fromLatin1(call),
            ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QString::fromLatin1(call)));
        const auto task = upload();
        EXPECT_EQ(run(*task).errorMessage(), QString::fromLatin1(call));
        EXPECT_TRUE(server.service().files().isEmpty());
    }
}

TEST_F(FolderUpload, AFailureIsRecordedAtEveryLevelAndItsProgressTakenBack) {
    put(QStringLiteral("a"));
    put(QStringLiteral("sub/b"));
    refuse(QStringLiteral("b"));
    const auto task = upload();
    QList<int> progress;
    QObject::connect(task.get(), &BaseTask::progress, task.get(), [&](int value, int maximum) {
        progress.append(value);
        EXPECT_EQ(maximum, 204);
    });
    QObject::connect(task.get(), &HalvaneFolderUploadTask::fileUploadFailed, task.get(),
                     [&](const HalvaneFileUploadTaskBase* file) {
                         EXPECT_EQ(file->error().errorMessage(), QStringLiteral("not yours"));
                         EXPECT_EQ(task->failedFileUploadsCount(), 1) << "recorded before others hear of it";
                     });
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(signalled.filter(QStringLiteral("failed")), QStringList{QStringLiteral("failed sub/b")});
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 1, 0}));
    EXPECT_EQ(task->currentProgress(), 102);
    EXPECT_EQ(task->uploadedFolder()->folders().size(), 1) << "what the nested task did upload is described";
}

TEST_F(FolderUpload, WithoutKeepGoingTheFirstFailureCancelsTheOthers) {
    for (int i = 0; i < 3; ++i)
        put(QStringLiteral("f%1").arg(i));
    refuseFirstAndHoldOthers();
    const auto task = upload(Replace);
    EXPECT_EQ(run(*task).errorMessage(), QStringLiteral("not yours"));
    EXPECT_EQ(task->failedFileUploadsCount(), 1);
    EXPECT_EQ(task->canceledFileUploadsCount(), 2);
    EXPECT_EQ(task->currentProgress(), 0);
}

TEST_F(FolderUpload, RetryAfterTheEndRunsTheTaskAgain) {
    const QString path = put(QStringLiteral("sub/b"));
    put(QStringLiteral("a"));
    refuse(QStringLiteral("b"), 1);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    int finished = 0;
    QObject::connect(task.get(), &BaseTask::finished, task.get(), [&] { ++finished; });
    signalled.clear();
    const auto again = task->retry(path);
    ASSERT_FALSE(again.hasError());
    ASSERT_NE(*again, nullptr);
    EXPECT_EQ((*again)->path(), path);
    EXPECT_TRUE(task->isRunning());
    EXPECT_FALSE(task->hasError());
    EXPECT_EQ(task->failedFileUploadsCount(), 0);
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(finished, 1);
    EXPECT_TRUE(signalled.isEmpty()) << "no uploadStarted for a retry";
    EXPECT_EQ(task->successfulFileUploadsCount(), 2);
    EXPECT_EQ(onServer(), (QStringList{QStringLiteral("raw/a=content"), QStringLiteral("sub/b=content")}));
    EXPECT_EQ(task->uploadedFolder()->files().size(), 2) << "retried as a direct subtask of the outer task";
}

TEST_F(FolderUpload, RetryTakesCancelledUploadsToo) {
    for (int i = 0; i < 3; ++i)
        put(QStringLiteral("f%1").arg(i));
    refuseFirstAndHoldOthers();
    const auto task = upload(Replace);
    EXPECT_TRUE(run(*task).hasError());
    const QString canceled = tree(signalled.filter(QStringLiteral("canceled")).value(0).section(u' ', 1));
    server.onRequest = nullptr;
    ASSERT_FALSE(task->retry(canceled).hasError());
    EXPECT_EQ(task->canceledFileUploadsCount(), 1);
    EXPECT_EQ(task->failedFileUploadsCount(), 1);
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(task->successfulFileUploadsCount(), 1);
}

TEST_F(FolderUpload, APathRecordedTwiceIsTakenOnce) {
    const QString path = put(QStringLiteral("a"));
    refuse(QStringLiteral("a"), 2);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_FALSE(task->retry(path).hasError());
    EXPECT_TRUE(task->waitForFinished().hasError());
    EXPECT_EQ(task->failedFileUploadsCount(), 1);
    ASSERT_FALSE(task->retry(path).hasError());
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 0, 0}));
}

TEST_F(FolderUpload, RetryOfAPathOnNeitherListChangesNothing) {
    put(QStringLiteral("a"));
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    const auto none = task->retry(tree(QStringLiteral("a")));
    EXPECT_TRUE(none.error().is(ErrorCode::InvalidArgument));
    EXPECT_EQ(none.error().errorMessage(),
              QStringLiteral("The upload task is not on the failed tasks list."));
    EXPECT_TRUE(task->isFinished());
    const ContextTranslator translator;
    EXPECT_EQ(
        task->retry(QString()).error().errorMessage(),
        QStringLiteral("orx::HalvaneFolderUploadTask|The upload task is not on the failed tasks list."));
}

TEST_F(FolderUpload, ARetryThatCannotBeMadeEndsTheTaskAndForgetsTheRecord) {
    const QString path = put(QStringLiteral("a"));
    refuse(QStringLiteral("a"), 1);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_TRUE(QFile::remove(path));
    const auto again = task->retry(path);
    EXPECT_EQ(again.error().errorMessage(),
              QStringLiteral("Cannot create a upload task for \"%1\" path.").arg(path));
    EXPECT_EQ(task->failedFileUploadsCount(), 0);
    EXPECT_TRUE(task->isFinished());
    EXPECT_EQ(task->error().errorMessage(), again.error().errorMessage());
}

} // namespace
} // namespace orx::testing
