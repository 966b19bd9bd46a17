// What a folder upload makes of each entry, and what it keeps of those that did not go up.
#include "FolderUploadFixture.h"

#include <UploadFileInputValidation.h>

#include <QCoreApplication>
#include <QHash>
#include <QPointer>

namespace orx::testing {
namespace {

//! Gives the same answer to all and keeps what it was asked.
class AnsweringPolicy : public DuplicateUploadPolicyInterface {
public:
    explicit AnsweringPolicy(DuplicateUploadAnswer answer) : m_answer(answer) {}
    void decide(const DuplicateUploadPolicyRequestPtr& request) override {
        asked.append(request->input());
        request->answer(m_answer);
    }
    QList<DuplicateUploadPolicyRequest::Input> asked;

private:
    const DuplicateUploadAnswer m_answer;
};

//! The nested folder uploads that live, by the last part of their path: their first event is their own.
class NestedUploads : public QObject {
public:
    NestedUploads() { QCoreApplication::instance()->installEventFilter(this); }
    bool eventFilter(QObject* watched, QEvent*) override {
        if (auto* const task = qobject_cast<HalvaneFolderUploadTask*>(watched))
            m_tasks.insert(task->name().section(u'/', -1).chopped(1), task);
        return false;
    }
    HalvaneFolderUploadTask* of(const QString& name) const { return m_tasks.value(name); }

private:
    QHash<QString, QPointer<HalvaneFolderUploadTask>> m_tasks;
};

class FolderUploadEntries : public FolderUpload {
protected:
    ~FolderUploadEntries() override { UploadFileInputValidation::setFilters(UploadFilters()); }

    //! Replies of this kind wait until release() for as long as the test wants.
    void hold(const QString& name) {
        server.onRequest = [this, name](const ScriptedRequest& request) {
            if (request.line() == u"POST /uploads" && request.json().value(u"name") == name)
                server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
        };
    }
    static void finishHeld(ScriptedHalvaneServer& server, HalvaneFolderUploadTask& task) {
        server.onRequest = nullptr;
        server.release();
        (void)task.waitForFinished();
        EXPECT_TRUE(waitUntil([&task] { return task.isIdle(); }));
    }
    int folderNamed(const QString& name) const {
        for (const auto& folder : server.service().folders())
            if (folder.name == name)
                return folder.id;
        return -1;
    }
};

TEST_F(FolderUploadEntries, EachLevelIsMadeInTheOneAbove) {
    put(QStringLiteral("sub/deep/c"));
    EXPECT_FALSE(run(*upload()).hasError());
    const auto& folders = server.service().folders();
    EXPECT_EQ(folders.value(folderNamed(QStringLiteral("deep"))).parentId,
              folderNamed(QStringLiteral("sub")));
    EXPECT_EQ(folders.value(folderNamed(QStringLiteral("sub"))).parentId, folderNamed(QStringLiteral("raw")));
    EXPECT_EQ(folders.value(folderNamed(QStringLiteral("raw"))).parentId, 1);
}

TEST_F(FolderUploadEntries, AFolderWhoseNameOnlyBeginsOrEndsLikeThatIsNotTaken) {
    server.service().addFolder(QStringLiteral("raw2"), 1, 7);
    server.service().addFolder(QStringLiteral("ra"), 1, 8);
    put(QStringLiteral("a"));
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("POST /folders")), 1);
}

TEST_F(FolderUploadEntries, HiddenOnesAreLeftOutEvenWhenTheFiltersTakeThem) {
    UploadFilters filters;
    filters.takesHidden = true;
    UploadFileInputValidation::setFilters(filters);
    put(QStringLiteral("a"));
    put(QStringLiteral(".hidden"));
    const auto task = upload();
    EXPECT_EQ(task->maxProgress(), 102);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(onServer(), QStringList{QStringLiteral("raw/a=content")});
}

TEST_F(FolderUploadEntries, WhatMayNotBeUploadedCountsNothing) {
    put(QStringLiteral("a"));
    put(QStringLiteral("b.tmp"));
    put(QStringLiteral("sub/c.tmp"));
    const auto task = upload();
    EXPECT_EQ(task->maxProgress(), 102);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(task->currentProgress(), 102);
    EXPECT_EQ(onServer(), QStringList{QStringLiteral("raw/a=content")});
}

TEST_F(FolderUploadEntries, TheFolderIsPutToThePolicyUnderTheNameThatTheServerHasForIt) {
    put(QStringLiteral("a"));
    const int elsewhere = server.service().addFolder(QStringLiteral("Raw 2"), 1);
    const int existing = server.service().addFile(QStringLiteral("a"), "old", elsewhere);
    server.script(
        QStringLiteral("POST /folders"),
        ScriptedFault::raw(200, QByteArray(R"({"status":"success","data":{"id":%1,"name":"Raw 2"}})")
                                    .replace("%1", QByteArray::number(elsewhere))));
    const auto policy = std::make_shared<AnsweringPolicy>(DuplicateUploadAnswer::NewVersion);
    const auto task = upload();
    task->setDuplicateUploadPolicy(policy);
    EXPECT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    ASSERT_EQ(policy->asked.size(), 1);
    EXPECT_EQ(policy->asked.first().folderName, QStringLiteral("Raw 2"));
    EXPECT_EQ(policy->asked.first().folderId, elsewhere);
    EXPECT_EQ(policy->asked.first().existingFileId, existing);
    EXPECT_EQ(task->uploadedFolder()->folderId(), elsewhere);
    EXPECT_EQ(server.service().files().value(existing).versions.size(), 2) << "a version of that file";
}

TEST_F(FolderUploadEntries, ANameGivenByThePolicyIsUsedAndKeptForTheRetry) {
    const QString path = put(QStringLiteral("a"), "mine");
    const int raw = server.service().addFolder(QStringLiteral("raw"), 1);
    server.service().addFile(QStringLiteral("a"), "old", raw);
    server.script(
        QStringLiteral("POST /uploads"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")));
    const auto policy = std::make_shared<AnsweringPolicy>(DuplicateUploadAnswer::KeepBoth);
    const auto task = upload();
    task->setDuplicateUploadPolicy(policy);
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_EQ(policy->asked.size(), 1);
    EXPECT_EQ(policy->asked.first().folderName, QStringLiteral("raw"));
    ASSERT_FALSE(task->retry(path).hasError());
    EXPECT_FALSE(task->waitForFinished().hasError());
    const auto opened = server.requests(QStringLiteral("POST /uploads"));
    ASSERT_EQ(opened.size(), 2);
    EXPECT_NE(opened.first().json().value(u"name"), QStringLiteral("a"));
    EXPECT_EQ(opened.first().json().value(u"name"), opened.last().json().value(u"name"));
    EXPECT_EQ(opened.last().json().value(u"target_id"), raw);
    EXPECT_EQ(onServer().size(), 2);
    EXPECT_TRUE(onServer().contains(QStringLiteral("raw/a=old")));
}

TEST_F(FolderUploadEntries, TheRetryOfANewVersionGoesToTheSameFile) {
    const QString path = put(QStringLiteral("a"), "new");
    const int raw = server.service().addFolder(QStringLiteral("raw"), 1);
    const int file = server.service().addFile(QStringLiteral("a"), "old", raw);
    refuse(QStringLiteral("a"), 1);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_FALSE(task->retry(path).hasError());
    EXPECT_FALSE(task->waitForFinished().hasError());
    ASSERT_EQ(server.service().files().size(), 1);
    EXPECT_EQ(server.service().files().value(file).versions.last().content, "new");
    EXPECT_EQ(server.service().files().value(file).versions.size(), 2);
}

TEST_F(FolderUploadEntries, OneThatIsGoneWhenItsUploadIsMadeEndsTheFolderWhileTheOthersStillStart) {
    for (const char* name : {"a", "b", "c"})
        put(QString::fromLatin1(name));
    const auto task = upload();
    QString removed;
    QObject::connect(
        task.get(), &HalvaneFolderUploadTask::uploadStarted, task.get(),
        [&](HalvaneFileUploadTaskBase* file) {
            for (const char* name : {"a", "b", "c"}) // one of those that are still to be made
                if (removed.isEmpty() && file->path() != tree(QString::fromLatin1(name)) &&
                    !signalled.contains(QStringLiteral("started ") + QString::fromLatin1(name))) {
                    removed = tree(QString::fromLatin1(name));
                    EXPECT_TRUE(QFile::remove(removed));
                }
        });
    EventLog events(task.get());
    const QString message = run(*task).errorMessage();
    EXPECT_EQ(message, QStringLiteral("Cannot create a upload task for \"%1\" path.").arg(removed));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("appendUploadTask")));
    EXPECT_TRUE(server.service().files().isEmpty()) << "it has finished at once";
    EXPECT_TRUE(waitUntil([&task] { return task->isIdle(); }));
    EXPECT_EQ(server.service().files().size(), 2);
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{2, 0, 0}));
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
}

TEST_F(FolderUploadEntries, BelowTheOptionsHoldTooAndWhatANestedFolderReachedStays) {
    put(QStringLiteral("sub/b"));
    put(QStringLiteral("sub/c"));
    put(QStringLiteral("sub/d"));
    refuse(QStringLiteral("b"));
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(onServer(), (QStringList{QStringLiteral("sub/c=content"), QStringLiteral("sub/d=content")}));
    EXPECT_EQ(task->currentProgress(), 2 * 102);
    EXPECT_EQ(task->maxProgress(), 3 * 102);
    ASSERT_EQ(task->uploadedFolder()->folders().size(), 1);
    EXPECT_EQ(task->uploadedFolder()->folders().first().files().size(), 2);
}

TEST_F(FolderUploadEntries, ANestedFolderThatNeverGotOneIsToldAtEveryLevelAndNotDescribed) {
    put(QStringLiteral("above/sub/b"));
    put(QStringLiteral("a"));
    server.onRequest = [this](const ScriptedRequest& request) {
        if (request.line() == u"POST /folders" && request.json().value(u"name") == QLatin1StringView("sub"))
            server.script(
                QStringLiteral("POST /folders"),
                ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("no room")));
    };
    const auto task = upload();
    QStringList told;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::folderUploadFailed, task.get(),
                     [&](const HalvaneFolderUploadTask* folder) {
                         told.append(folder->path() + u' ' + folder->error().errorMessage());
                     });
    EXPECT_EQ(run(*task).errorMessage(), QStringLiteral("no room"));
    EXPECT_EQ(told, (QStringList{tree(QStringLiteral("above/sub")) + QStringLiteral(" no room"),
                                 tree(QStringLiteral("above")) + QStringLiteral(" no room")}));
    ASSERT_EQ(task->uploadedFolder()->folders().size(), 1);
    EXPECT_TRUE(task->uploadedFolder()->folders().first().folders().isEmpty());
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 0, 0}));
}

TEST_F(FolderUploadEntries, ProgressIsTakenBackBeforeTheFailureIsTold) {
    put(QStringLiteral("a"));
    server.script(
        QStringLiteral("POST /uploads/finalize"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")));
    const auto task = upload();
    QStringList events;
    QObject::connect(task.get(), &BaseTask::progress, task.get(), [&](int value, int maximum) {
        events.append(QStringLiteral("%1/%2").arg(value).arg(maximum));
        EXPECT_EQ(value, task->currentProgress());
    });
    QObject::connect(task.get(), &HalvaneFolderUploadTask::fileUploadFailed, task.get(),
                     [&](const HalvaneFileUploadTaskBase* file) {
                         EXPECT_EQ(file->currentProgress(), 101);
                         events.append(QStringLiteral("failed"));
                     });
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_GE(events.size(), 3);
    EXPECT_EQ(events.mid(events.size() - 3),
              (QStringList{QStringLiteral("101/102"), QStringLiteral("0/102"), QStringLiteral("failed")}));
}

TEST_F(FolderUploadEntries, CancellingTheFolderCancelsWhatRunsAndKeepsItForARetry) {
    const QString path = put(QStringLiteral("sub/b"));
    hold(QStringLiteral("b"));
    const auto policy = std::make_shared<CountedPolicy>();
    const auto task = upload();
    task->setDuplicateUploadPolicy(policy);
    task->exec();
    ASSERT_TRUE(waitUntil([this] { return server.heldCount() == 1; }));
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(policy->cancels, 2) << "once by each folder upload";
    EXPECT_EQ(signalled, (QStringList{QStringLiteral("started sub/b"), QStringLiteral("canceled sub/b")}));
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{0, 0, 1}));
    server.onRequest = nullptr;
    ASSERT_FALSE(task->retry(path).hasError());
    EXPECT_FALSE(task->isCanceled());
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(onServer(), QStringList{QStringLiteral("sub/b=content")});
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 0, 0}));
}

TEST_F(FolderUploadEntries, ARetryWhileTheFolderRunsBelongsToThatRun) {
    const QString path = put(QStringLiteral("a"));
    put(QStringLiteral("b"));
    server.onRequest = [this, refused = false](const ScriptedRequest& request) mutable {
        if (request.line() != u"POST /uploads")
            return;
        if (request.json().value(u"name") == QLatin1StringView("b"))
            server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
        else if (!std::exchange(refused, true))
            server.script(QStringLiteral("POST /uploads"),
                          ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                 QStringLiteral("not yours")));
    };
    const auto task = upload();
    EventLog events(task.get());
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->failedFileUploadsCount() == 1 && server.heldCount() == 1; }));
    const auto again = task->retry(path);
    ASSERT_FALSE(again.hasError());
    EXPECT_TRUE(task->isRunning());
    EXPECT_EQ(task->failedFileUploadsCount(), 0);
    ASSERT_TRUE(waitUntil([&] { return task->successfulFileUploadsCount() == 1; }));
    EXPECT_TRUE(task->isRunning());
    finishHeld(server, *task);
    EXPECT_EQ(task->error().errorMessage(), QStringLiteral("not yours")) << "nothing was reset";
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{2, 0, 0}));
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
}

TEST_F(FolderUploadEntries, ARetryThroughTheOuterFolderLeavesTheRecordOfTheInnerOne) {
    const NestedUploads nested;
    const QString path = put(QStringLiteral("sub/b"));
    put(QStringLiteral("sub/held"));
    server.onRequest = [this, refused = false](const ScriptedRequest& request) mutable {
        if (request.line() != u"POST /uploads")
            return;
        if (request.json().value(u"name") == QLatin1StringView("held"))
            server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
        else if (!std::exchange(refused, true))
            server.script(QStringLiteral("POST /uploads"),
                          ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                 QStringLiteral("not yours")));
    };
    const auto task = upload();
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->failedFileUploadsCount() == 1 && server.heldCount() == 1; }));
    const auto* inner = nested.of(QStringLiteral("sub"));
    ASSERT_NE(inner, nullptr);
    ASSERT_FALSE(task->retry(path).hasError());
    ASSERT_TRUE(waitUntil([&] { return task->successfulFileUploadsCount() == 1; }));
    EXPECT_EQ(task->failedFileUploadsCount(), 0);
    EXPECT_EQ(inner->failedFileUploadsCount(), 1);
    EXPECT_EQ(inner->successfulFileUploadsCount(), 0);
    finishHeld(server, *task);
}

TEST_F(FolderUploadEntries, OfTwoRecordsOfOnePathTheFirstIsRetriedAndTheOtherStays) {
    const QString path = put(QStringLiteral("a"));
    const int first = server.service().addFolder(QStringLiteral("first"), 1);
    const int second = server.service().addFolder(QStringLiteral("second"), 1);
    const int third = server.service().addFolder(QStringLiteral("third"), 1);
    const auto task = upload();
    EXPECT_FALSE(run(*task).hasError());
    server.clearLog();
    const HalvaneFileUploadTask one(uploadOf(path, first), nullptr);
    const HalvaneFileUploadTask two(uploadOf(path, second), nullptr);
    const HalvaneFileUploadTask three(uploadOf(path, third), nullptr);
    Q_EMIT task->fileUploadCanceled(&three);
    Q_EMIT task->fileUploadFailed(&one);
    Q_EMIT task->fileUploadFailed(&two);
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 2, 1}));
    QList<int> targets;
    for (const FinishedTaskCounts left :
         {FinishedTaskCounts{2, 1, 1}, FinishedTaskCounts{3, 0, 1}, FinishedTaskCounts{4, 0, 0}}) {
        const auto again = task->retry(path);
        ASSERT_FALSE(again.hasError());
        targets.append((*again)->targetId());
        EXPECT_FALSE(task->waitForFinished().hasError());
        EXPECT_EQ(task->finishedTaskCounts(), left);
    }
    EXPECT_EQ(targets, (QList<int>{first, second, third})) << "the failed list first";
}

TEST_F(FolderUploadEntries, ARetriedPathThatBecameADirectoryGoesUpWithoutTellingWhatStarts) {
    const QString path = put(QStringLiteral("a"));
    refuse(QStringLiteral("a"), 1);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_TRUE(QFile::remove(path));
    put(QStringLiteral("a/b"));
    put(QStringLiteral("a/c"));
    refuse(QStringLiteral("c"));
    signalled.clear();
    const auto again = task->retry(path);
    ASSERT_FALSE(again.hasError());
    EXPECT_EQ(*again, nullptr) << "it is no file upload";
    EXPECT_EQ(task->waitForFinished().errorMessage(), QStringLiteral("not yours"));
    EXPECT_EQ(signalled, QStringList{QStringLiteral("failed a/c")});
    EXPECT_EQ(onServer(), QStringList{QStringLiteral("a/b=content")});
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{1, 1, 0}));
}

// Whoever hears of something may be done with the whole upload.
TEST_F(FolderUploadEntries, MayBeDestroyedInAnyOfItsSignals) {
    using Task = HalvaneFolderUploadTask;
    using Connect = std::function<void(Task*, QObject*, const std::function<void()>&)>;
    const auto on = [](auto signal) -> Connect {
        return [signal](Task* task, QObject* context, const std::function<void()>& then) {
            QObject::connect(task, signal, context, then);
        };
    };
    const QList<std::pair<Connect, const char*>> cases{
        {on(&Task::progressInitiated), ""},   {on(&Task::uploadStarted), ""},
        {on(&BaseTask::progress), ""},        {on(&Task::fileUploadFailed), "a%1"},
        {on(&Task::fileUploadFailed), "c%1"}, {on(&Task::folderUploadFailed), "c%1"},
        {on(&Task::folderUploaded), ""},      {on(&BaseTask::finished), ""}};
    int number = 0;
    for (const auto& [connect, refused] : cases) {
        ASSERT_TRUE(QDir(tree()).removeRecursively());
        put(QStringLiteral("a%1").arg(++number));
        put(QStringLiteral("b%1").arg(number));
        put(QStringLiteral("sub/c%1").arg(number));
        refuse(QString::fromLatin1(refused).replace(QStringLiteral("%1"), QString::number(number)));
        auto task = upload();
        QObject context;
        bool destroyed = false;
        connect(task.get(), &context, [&] {
            task.reset();
            destroyed = true;
        });
        task->exec();
        ASSERT_TRUE(waitUntil([&destroyed] { return destroyed; })) << number;
        EXPECT_TRUE(waitUntil([this] { return server.heldCount() == 0; }));
        QCoreApplication::processEvents();
    }
}

TEST_F(FolderUploadEntries, AFailureAndACancellationThreeLevelsDownAreRecordedAtEachLevel) {
    const NestedUploads nested;
    put(QStringLiteral("sub/deep/a"));
    put(QStringLiteral("sub/deep/b"));
    put(QStringLiteral("sub/good"));
    server.onRequest = [this](const ScriptedRequest& request) {
        if (request.line() != u"POST /uploads")
            return;
        const QString name = request.json().value(u"name").toString();
        if (name == u"a")
            server.script(QStringLiteral("POST /uploads"),
                          ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                 QStringLiteral("not yours")));
        else if (name == u"b")
            server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
    };
    const auto task = upload();
    QPointer<HalvaneFileUploadTaskBase> held;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::uploadStarted, task.get(),
                     [&held](HalvaneFileUploadTaskBase* file) {
                         if (file->path().endsWith(u"/b"))
                             held = file;
                     });
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 && task->failedFileUploadsCount() == 1; }));
    auto* const inner = nested.of(QStringLiteral("deep"));
    auto* const middle = nested.of(QStringLiteral("sub"));
    ASSERT_TRUE(inner && middle && held);
    const auto recorded = [&] {
        QList<FinishedTaskCounts> counts;
        for (const auto* level : {task.get(), middle, inner})
            counts.append({0, level->failedFileUploadsCount(), level->canceledFileUploadsCount()});
        return counts;
    };
    EXPECT_EQ(recorded(), QList<FinishedTaskCounts>(3, {0, 1, 0}));
    QList<FinishedTaskCounts> afterwards;
    QObject::connect(task.get(), &HalvaneFolderUploadTask::fileUploadCanceled, task.get(),
                     [&] { afterwards = recorded(); });
    held->cancel();
    ASSERT_TRUE(waitUntil([&afterwards] { return !afterwards.isEmpty(); }));
    EXPECT_EQ(afterwards, QList<FinishedTaskCounts>(3, {0, 1, 1}));
    finishHeld(server, *task);
}

TEST_F(FolderUploadEntries, ARetryThatCannotBeMadeIsStampedOnItsWay) {
    const QString path = put(QStringLiteral("a"));
    refuse(QStringLiteral("a"), 1);
    const auto task = upload();
    EXPECT_TRUE(run(*task).hasError());
    ASSERT_TRUE(QFile::remove(path));
    const Error error = task->retry(path).error();
    EXPECT_TRUE(error.traceText().contains(QStringLiteral("appendUploadTask")))
        << qPrintable(error.traceText());
    EXPECT_TRUE(task->retry(path).error().is(ErrorCode::InvalidArgument));
}

} // namespace
} // namespace orx::testing
