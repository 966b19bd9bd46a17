#include "DownloadFolderFixture.h"
#include "HalvaneDownloadFileTask.h"
#include "HalvaneError.h"

#include <QPointer>

using namespace orx;
using namespace orx::testing;

namespace {

QString u8(const char* text) {
    return QString::fromUtf8(text);
}

} // namespace

TEST_F(DownloadFolderTaskTest, ATreeComesDownUnderTheNameOfItsReference) {
    const int raw = folder(u8("on the server"));
    const int year = folder(u8("2026"), raw);
    folder(u8("empty"), year);
    file(u8("a"), "first", raw);
    const int versioned = file(u8("b"), "old", year);
    server.service().addVersion(versioned, "new");
    const auto task = download(raw, u8("raw"));
    ASSERT_TRUE(succeeded(run(*task)));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/2026/"), u8("raw/2026/b=new"), u8("raw/2026/empty/"),
                                   u8("raw/a=first")}));
    EXPECT_EQ(task->folderPath(), at(u8("raw")));
    EXPECT_EQ(task->fileCount(), 2);
    EXPECT_EQ(task->downloadedFileCount(), 2);
    EXPECT_TRUE(task->failures().isEmpty());
}

TEST_F(DownloadFolderTaskTest, TheContentAloneComesIntoTheTargetItself) {
    file(u8("a"), "first", folder(u8("raw")));
    const auto task = download(1, u8("/"), true);
    ASSERT_TRUE(succeeded(run(*task)));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/a=first")}));
}

TEST_F(DownloadFolderTaskTest, AMirrorFetchesWhatDiffersAndRemovesWhatIsNotListed) {
    const int raw = folder(u8("raw"));
    const int year = folder(u8("2026"), raw);
    file(u8("a"), "first", raw);
    const int changing = file(u8("b"), "old", year);
    const auto mirror = [&] {
        auto task = download(raw);
        task->setMirroring();
        return task;
    };
    ASSERT_TRUE(succeeded(run(*mirror())));

    server.service().addVersion(changing, "new");
    file(u8("c"), "third", year);
    const auto put = [this](const QString& relative) {
        QDir().mkpath(QFileInfo(at(relative)).path());
        QFile added(at(relative));
        ASSERT_TRUE(added.open(QIODevice::WriteOnly));
        ASSERT_EQ(added.write("x"), 1);
    };
    put(u8("raw/gone"));
    put(u8("raw/2026/.gone.halvane-part-1-1"));
    put(u8("raw/gone too/2025/x"));
    put(u8("beside"));
    ASSERT_TRUE(QFile::link(at(u8("beside")), at(u8("raw/link"))));
    server.clearLog();
    ASSERT_TRUE(succeeded(run(*mirror())));
    EXPECT_EQ(tree(), (QStringList{u8("beside=x"), u8("raw/"), u8("raw/2026/"), u8("raw/2026/b=new"),
                                   u8("raw/2026/c=third"), u8("raw/a=first")}));
    EXPECT_EQ(server.count(u8("GET */content")), 2);
}

TEST_F(DownloadFolderTaskTest, AMirrorThatDidNotGetEverythingRemovesNothing) {
    const int raw = folder(u8("raw"));
    file(u8("a"), "first", raw);
    ASSERT_TRUE(succeeded(run(*download(raw))));
    file(u8("../b"), "second", raw);
    QFile there(at(u8("raw/there")));
    ASSERT_TRUE(there.open(QIODevice::WriteOnly));
    const auto task = download(raw);
    task->setMirroring();
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/a=first"), u8("raw/there=")}));
}

TEST_F(DownloadFolderTaskTest, AMissingTargetIsMadeAndAnEmptyFolderIsADirectory) {
    const int raw = folder(u8("raw"));
    HalvaneDownloadFolderTask task(reference(raw, u8("raw")), at(u8("not/there")), false);
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(tree(), (QStringList{u8("not/"), u8("not/there/"), u8("not/there/raw/")}));
}

TEST_F(DownloadFolderTaskTest, ItemsOfOneNameAllComeDown) {
    const int raw = folder(u8("raw"));
    const int first = folder(u8("same"), raw);
    const int second = folder(u8("same"), raw);
    file(u8("inside"), "1", first);
    file(u8("inside"), "2", second);
    const int plain = file(u8("same"), "3", raw);
    file(u8("run.raw"), "4", raw);
    const int further = file(u8("run.raw"), "5", raw);
    ASSERT_TRUE(succeeded(run(*download(raw))));
    const QString free = u8("raw/same (folder %1)/").arg(second);
    QStringList expected{u8("raw/"),
                         u8("raw/same/"),
                         u8("raw/same/inside=1"),
                         free,
                         free + u8("inside=2"),
                         u8("raw/same (file %1)=3").arg(plain),
                         u8("raw/run.raw=4"),
                         u8("raw/run (file %1).raw=5").arg(further)};
    expected.sort();
    EXPECT_EQ(tree(), expected);
}

TEST_F(DownloadFolderTaskTest, DangerousNamesStayOutsideAndAreNamedWhileTheRestComesDown) {
    const int raw = folder(u8("raw"));
    file(u8("caught"), "1", folder(u8(".."), raw));
    file(u8("caught"), "2", folder(u8("a/b"), raw));
    file(u8("../escaped"), "3", raw);
    file(u8("/etc/x"), "4", raw);
    file(u8("a") + QChar(0) + u8("b"), "5", raw);
    file(u8("line\nbreak"), "6", raw);
    file(QString(300, QChar(u'x')), "7", raw);
    file(u8("..."), "dots", raw);
    file(u8("blanks  "), "blanks", raw);
    file(u8("dot."), "dot", raw);
    file(u8("good"), "content", raw);
    const auto task = download(raw);
    const Error error = run(*task);
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/good=content")}));
    EXPECT_FALSE(QFileInfo::exists(at(u8("caught"))));
    EXPECT_FALSE(QFileInfo::exists(at(u8("../escaped"))));
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(error.errorMessage().contains(u8("\"raw/..\"")));
    EXPECT_TRUE(error.errorMessage().contains(u8("first of 10 failures")));
    const QString warnings = error.warnings().join(u'\n');
    for (const char* named : {"a/b", "../escaped", "/etc/x", "a\\x00b", "line\\x0abreak", "xxxxxxxx",
                              "/...\"", "blanks  \"", "dot.\""})
        EXPECT_TRUE(warnings.contains(u8(named))) << named << qPrintable(warnings);
    EXPECT_EQ(task->failures().size(), 10);
    EXPECT_EQ(task->downloadedFileCount(), 1);
}

TEST_F(DownloadFolderTaskTest, AReferenceWhoseNameIsNoDirectoryIsRefusedBeforeAnyCall) {
    for (const QString& name : {u8("/"), u8(".."), QString(), u8("a/b")}) {
        HalvaneDownloadFolderTask task(reference(1, name), target.path(), false);
        EXPECT_TRUE(run(task).is(ErrorCode::InvalidArgument));
    }
    HalvaneDownloadFolderTask none(nullptr, target.path(), false);
    EXPECT_TRUE(run(none).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_TRUE(tree().isEmpty());
}

TEST_F(DownloadFolderTaskTest, OneFailedFileHidesNoOther) {
    const int raw = folder(u8("raw"));
    const int bad = file(u8("bad"), "1", raw);
    const int gone = file(u8("gone"), "2", raw);
    file(u8("good"), "3", folder(u8("below"), raw));
    const auto missing = ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, u8("It went."));
    server.script(u8("GET /files/%1/versions/1/content").arg(bad), missing);
    server.script(u8("GET /files/%1/versions/1/content").arg(gone),
                  ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, u8("No.")));
    const auto task = download(raw);
    const Error error = run(*task);
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/below/"), u8("raw/below/good=3")}));
    ASSERT_EQ(task->failures().size(), 2);
    // The two are fetched side by side: either may fail first.
    const bool isBadFirst = task->failures()[0].path == u8("raw/bad");
    EXPECT_EQ(task->failures()[isBadFirst ? 0 : 1].path, u8("raw/bad"));
    EXPECT_EQ(task->failures()[isBadFirst ? 1 : 0].path, u8("raw/gone"));
    const QString ofBad = u8("\"raw/bad\" could not be downloaded: It went.");
    const QString ofGone = u8("\"raw/gone\" could not be downloaded: No.");
    EXPECT_TRUE(isHalvaneError(error, isBadFirst ? HalvaneServerErrorCode::NotFound
                                                 : HalvaneServerErrorCode::NoPrivilege));
    EXPECT_EQ(error.errorMessage(), (isBadFirst ? ofBad : ofGone) + u8(" That is the first of 2 failures."));
    EXPECT_EQ(error.warnings(), Warnings{isBadFirst ? ofGone : ofBad});
}

TEST_F(DownloadFolderTaskTest, AFolderThatCannotBeListedIsNamedAndTheOthersComeDown) {
    const int raw = folder(u8("raw"));
    const int closed = folder(u8("closed"), raw);
    file(u8("good"), "1", folder(u8("open"), raw));
    server.script(u8("GET /folders/%1/files").arg(closed),
                  ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, u8("It went.")));
    const Error error = run(*download(raw));
    EXPECT_EQ(error.errorMessage(), u8("\"raw/closed\" could not be downloaded: It went."));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/closed/"), u8("raw/open/"), u8("raw/open/good=1")}));
}

TEST_F(DownloadFolderTaskTest, AnUnknownFolderIsTheServersError) {
    EXPECT_TRUE(isHalvaneError(run(*download(999)), HalvaneServerErrorCode::NotFound));
}

TEST_F(DownloadFolderTaskTest, WhatIsAtTheTargetStaysUnlessItMayBeReplaced) {
    const int raw = folder(u8("raw"));
    file(u8("a"), "new", raw);
    file(u8("b"), "new", raw);
    ASSERT_TRUE(QDir(target.path()).mkdir(u8("raw")));
    QFile old(at(u8("raw/a")));
    ASSERT_TRUE(old.open(QIODevice::WriteOnly));
    old.write("old");
    old.close();
    EXPECT_TRUE(run(*download(raw)).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/a=old"), u8("raw/b=new")}));
    const auto replacing = download(raw);
    replacing->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    EXPECT_TRUE(succeeded(run(*replacing)));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/a=new"), u8("raw/b=new")}));
}

TEST_F(DownloadFolderTaskTest, ALinkInTheTreeIsNotFollowed) {
    const QTemporaryDir elsewhere;
    const int raw = folder(u8("raw"));
    file(u8("a"), "1", folder(u8("below"), raw));
    ASSERT_TRUE(QDir(target.path()).mkdir(u8("raw")));
    ASSERT_TRUE(QFile::link(elsewhere.path(), at(u8("raw/below"))));
    EXPECT_TRUE(run(*download(raw)).is(ErrorCode::AlreadyExists));
    EXPECT_TRUE(QDir(elsewhere.path()).isEmpty());
}

TEST_F(DownloadFolderTaskTest, BreadthIsBoundedOverTheWholeTree) {
    const int raw = folder(u8("raw"));
    for (int i = 0; i < 10; ++i) {
        const int below = folder(QString::number(i), raw);
        for (int j = 0; j < 4; ++j)
            file(QString::number(j), QByteArray::number(j), below);
    }
    server.script(u8("GET /files/*/content"), ScriptedFault::hold(), ScriptedHalvaneServer::Always);
    const auto task = download(raw);
    task->exec();
    // The whole tree is listed meanwhile: the root of the download and ten folders below it.
    ASSERT_TRUE(
        waitUntil([&] { return server.heldCount() == 8 && server.count(u8("GET /folders/*/files")) == 11; }));
    EXPECT_EQ(server.count(u8("GET /files/*/content")), 8) << "file tasks are made as slots come free";
    ASSERT_TRUE(waitUntil([&] {
        server.release();
        return task->isFinished();
    }));
    EXPECT_TRUE(succeeded(task->error()));
    EXPECT_EQ(task->downloadedFileCount(), 40);
    EXPECT_LE(server.peakInFlight(), 16) << "8 of files and 2 for each of 4 folders";
}

TEST_F(DownloadFolderTaskTest, ProgressIsThatOfTheBytesAndEndsWithSuccess) {
    const int raw = folder(u8("raw"));
    file(u8("large"), QByteArray(900, 'x'), raw);
    const int held = file(u8("small"), QByteArray(100, 'y'), raw);
    server.script(u8("GET /files/%1/versions/1/content").arg(held), ScriptedFault::hold());
    const auto task = download(raw);
    QList<int> values;
    QList<int> maxima;
    QObject::connect(task.get(), &BaseTask::progressInitiated, [&](int maximum) { maxima.append(maximum); });
    QObject::connect(task.get(), &BaseTask::progress, [&](int value, int) { values.append(value); });
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->downloadedFileCount() == 1; }));
    EXPECT_EQ(values.last(), 900);
    server.release();
    EXPECT_TRUE(succeeded(task->waitForFinished()));
    EXPECT_EQ(maxima, QList<int>{1000});
    EXPECT_EQ(values.last(), 1000);
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
}

TEST_F(DownloadFolderTaskTest, ProgressOfAFailedDownloadDoesNotReachTheEnd) {
    const int raw = folder(u8("raw"));
    file(u8("a"), "1", raw);
    const int bad = file(u8("b"), "2", raw);
    server.script(u8("GET /files/%1/versions/1/content").arg(bad),
                  ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, u8("It went.")));
    const auto task = download(raw);
    int last = 0;
    QObject::connect(task.get(), &BaseTask::progress, [&](int value, int) { last = value; });
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(last, 500);
}

TEST_F(DownloadFolderTaskTest, WithoutAnybodyLoggedInItIsGivenUp) {
    const int raw = folder(u8("raw"));
    for (int i = 0; i < 50; ++i)
        file(QString::number(i), "x", raw);
    server.script(u8("GET /files/*/content"),
                  ScriptedFault::failure(401, HalvaneServerErrorCode::NotAuthenticated, u8("Log in first.")),
                  ScriptedHalvaneServer::Always);
    const auto task = download(raw);
    const Error error = run(*task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_TRUE(error.errorMessage().contains(u8("given up"))) << qPrintable(error.errorMessage());
    EXPECT_LE(server.count(u8("GET /files/*/content")), 16);
}

TEST_F(DownloadFolderTaskTest, CancelledItEndsAndMakesNothingMore) {
    const int raw = folder(u8("raw"));
    for (int i = 0; i < 20; ++i)
        file(QString::number(i), "x", raw);
    server.script(u8("GET /files/*/content"), ScriptedFault::hold(), ScriptedHalvaneServer::Always);
    const auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 8; }));
    const qsizetype before = server.log().size();
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_TRUE(waitUntil([&] { return task->isIdle(); }));
    EXPECT_EQ(server.log().size(), before);
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_EQ(tree(), QStringList{u8("raw/")}) << "no partial file without a byte in it stays";
    EXPECT_TRUE(task->failures().isEmpty());
}

TEST_F(DownloadFolderTaskTest, CancelledWhileListingItEnds) {
    const int raw = folder(u8("raw"));
    folder(u8("below"), raw);
    server.script(u8("GET /folders/*"), ScriptedFault::hold(), ScriptedHalvaneServer::Always);
    const auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 2; }));
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(server.inFlightCount(), 0);
}

TEST_F(DownloadFolderTaskTest, ItMayBeDestroyedAtAnyRequest) {
    const int raw = folder(u8("raw"));
    file(u8("a"), "1", folder(u8("below"), raw));
    file(u8("b"), "2", raw);
    ASSERT_TRUE(succeeded(run(*download(raw))));
    const qsizetype requests = server.log().size();
    for (qsizetype at = 1; at <= requests; ++at) {
        server.clearLog();
        auto task = download(raw, QString::number(at));
        task->exec();
        ASSERT_TRUE(waitUntil([&] { return server.log().size() >= at; }));
        task.reset();
        EXPECT_EQ(server.inFlightCount(), 0);
    }
}

TEST_F(DownloadFolderTaskTest, ItMayBeDestroyedByWhoHearsOfItsProgressOrItsEnd) {
    const int raw = folder(u8("raw"));
    file(u8("a"), "1", raw);
    file(u8("b"), "2", raw);
    for (int nth = 0; nth < 4; ++nth) {
        HalvaneDownloadFolderTask* task = download(raw, QString::number(nth)).release();
        const QPointer<HalvaneDownloadFolderTask> guard(task);
        int heard = 0;
        const auto destroyAtNth = [&heard, nth, task] {
            if (heard++ == nth)
                delete task;
        };
        QObject::connect(task, &BaseTask::progressInitiated, destroyAtNth);
        QObject::connect(task, &BaseTask::progress, destroyAtNth);
        QObject::connect(task, &BaseTask::finished, destroyAtNth);
        task->exec();
        EXPECT_TRUE(waitUntil([&] { return guard.isNull(); })) << nth;
    }
}

namespace {

//! Counts what lives, and makes nothing for one name.
class CountingDownload : public HalvaneDownloadFolderTaskBase {
public:
    using HalvaneDownloadFolderTaskBase::HalvaneDownloadFolderTaskBase;
    int alive = 0;
    int most = 0;
    QStringList made;

protected:
    Task* createFileDownloadTask(const HalvaneFileResourceReferenceSPtr& reference, const DirPath& targetDir,
                                 const QString& name,
                                 std::optional<DuplicateDownloadPolicy> policy) override {
        made.append(QStringLiteral("%1 in %2 as %3, %4")
                        .arg(reference->toText(), QDir(targetDir.toString()).dirName(), name,
                             policy ? QString::number(int(*policy)) : QStringLiteral("none")));
        if (name == u"nothing")
            return nullptr;
        auto* const task = new Task(name); // its body does nothing, so it ends within its exec()
        most = std::max(most, ++alive);
        connect(task, &QObject::destroyed, this, [this] { --alive; });
        return task;
    }
};

} // namespace

TEST_F(DownloadFolderTaskTest, EachFileIsMadeOnceWithItsPlaceAndThePolicy) {
    const int raw = folder(u8("raw"));
    const int a = file(u8("a"), "1", raw);
    server.service().addVersion(a, "2");
    const int nothing = file(u8("nothing"), "3", raw);
    CountingDownload task(reference(raw, u8("raw")), target.path(), false);
    task.setDuplicatePolicy(DuplicateDownloadPolicy::Skip);
    const Error error = run(task);
    EXPECT_EQ(task.made, (QStringList{u8("file:%1@2 in raw as a, 2").arg(a),
                                      u8("file:%1@1 in raw as nothing, 2").arg(nothing)}));
    EXPECT_TRUE(error.errorMessage().startsWith(u8("\"raw/nothing\" could not be downloaded")));
    EXPECT_EQ(task.downloadedFileCount(), 1);
}

TEST_F(DownloadFolderTaskTest, ThousandsOfFilesThatEndAtOnceNeitherDeepenTheStackNorPileUp) {
    const int raw = folder(u8("raw"));
    for (int i = 0; i < 2000; ++i)
        file(QString::number(i), {}, raw);
    CountingDownload task(reference(raw, u8("raw")), target.path(), false);
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(task.downloadedFileCount(), 2000);
    EXPECT_EQ(task.made.size(), 2000);
}

TEST_F(DownloadFolderTaskTest, ADeepTreeComesDown) {
    int parent = folder(u8("raw"));
    const int raw = parent;
    QString path = u8("raw");
    for (int depth = 0; depth < 200; ++depth) {
        parent = folder(u8("d"), parent);
        path += u8("/d");
    }
    file(u8("bottom"), "x", parent);
    ASSERT_TRUE(succeeded(run(*download(raw))));
    EXPECT_TRUE(QFileInfo::exists(at(path + u8("/bottom"))));
}
