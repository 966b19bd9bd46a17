// What a put of trees makes of failures, of skipped files and of its end in the middle.
#include <HalvaneListingStore.h>
#include <PackingTurn.h>
#include <RunUntilIdle.h>
#include <TreeUploadJob.h>

#include <UploadFixture.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>

namespace halvane::host {
namespace {

using orx::ErrorCode;
using orx::HalvaneServerErrorCode;
using orx::testing::ScriptedFault;
using orx::testing::ScriptedHalvaneServer;
using orx::testing::waitUntil;
using Outcome = UploadedFile::Outcome;

//! Puts directories and files of the work directory into the root folder of a scripted server.
class TreeJob : public orx::testing::UploadTest {
protected:
    TreeJob() { server.service().setChunkSize(1 << 20); }

    void write(const char* path, const QByteArray& content = "content") const {
        const QString name = QLatin1String(path);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(filePath(name)).path()));
        (void)makeFile(name, content);
    }
    //! A folder "t" on the server, and files in it.
    void addOnServer(const QMap<QString, QByteArray>& files) {
        const int folder = server.service().addFolder(QStringLiteral("t"));
        for (auto file = files.begin(); file != files.end(); ++file)
            ids.insert(file.key(), server.service().addFile(file.key(), file.value(), folder));
    }
    void refuse(const QString& call, const ScriptedFault& fault) {
        server.script(call, fault, ScriptedHalvaneServer::Always);
    }
    static ScriptedFault notYours() {
        return ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours"));
    }
    void make(const QStringList& paths = {QStringLiteral("t")}) {
        for (const QString& path : paths)
            request.paths.append(filePath(path));
        request.target = QStringLiteral("folder:1");
        job = std::make_unique<TreeUploadJob>(request, UploadPolicy::optionsOf(request, false, {}));
        QObject::connect(
            job.get(), &TreeUploadJob::fileDone, [this](const UploadedFile& file, bool isSource) {
                const QString word = file.outcome == Outcome::Uploaded    ? QStringLiteral("uploaded ")
                                     : file.outcome == Outcome::Unchanged ? QStringLiteral("unchanged ")
                                                                          : QStringLiteral("skipped ");
                done.append(word + below(file.path) + (isSource ? QStringLiteral(" (source)") : QString()));
            });
    }
    orx::Error put(const QStringList& paths = {QStringLiteral("t")}) {
        make(paths);
        return end(runUntilIdle(*job));
    }
    orx::Error end(const orx::Error& error) {
        done.sort();
        QStringList sources;
        for (const LocalTree& tree : job->trees())
            sources.append(tree.source);
        report = job->report(LocalTree::scan(sources));
        return error;
    }
    QString below(const QString& path) const { return QDir(filePath(QString())).relativeFilePath(path); }
    QStringList failed() const {
        QStringList found;
        for (const UploadFailure& failure : report.failures)
            found.append(below(failure.path));
        found.sort();
        return found;
    }
    //! "path reason".
    QStringList leftOut() const {
        QStringList found;
        for (const LeftOutPath& path : report.leftOut)
            found.append(below(path.path) + u' ' + path.reason);
        return found;
    }
    static QStringList list(const char* words) {
        return QString::fromLatin1(words).split(u',', Qt::SkipEmptyParts);
    }

    QHash<QString, int> ids;
    TreeUploadRequest request;
    std::unique_ptr<TreeUploadJob> job;
    QStringList done;
    UploadReport report;
};

TEST_F(TreeJob, TellsOfEachFileAndWhetherItWasAskedForItself) {
    write("t/new");
    write("t/same", "as there");
    write("t/other", "not as there");
    write("alone");
    addOnServer({{QStringLiteral("same"), "as there"}, {QStringLiteral("other"), "there"}});
    request.ifTaken = IfTaken::Skip;
    EXPECT_FALSE(put({QStringLiteral("t"), QStringLiteral("alone")}).hasError());
    EXPECT_EQ(done, list("skipped t/other,unchanged t/same,uploaded alone (source),uploaded t/new"));
    EXPECT_EQ(leftOut(), list("t/other policy"));
    EXPECT_EQ(report.done, 3);
}

// ---- the bytes that are waited for

TEST_F(TreeJob, TheTotalIsThatOfWhatMayStillGoUp) {
    write("t/big", "0123456789");
    write("t/same", "as there");
    write("t/skipped", "not as there");
    write("t/refused", "no luck");
    addOnServer({{QStringLiteral("same"), "as there"}, {QStringLiteral("skipped"), "there"}});
    server.onRequest = [this](const orx::testing::ScriptedRequest& call) {
        if (call.line() == u"POST /uploads" && call.json().value(u"name") == QStringLiteral("refused"))
            server.script(QStringLiteral("POST /uploads"), notYours());
    };
    request.ifTaken = IfTaken::Skip;
    request.keepGoing = true;
    make();
    EXPECT_FALSE(job->state().areTotalsKnown);
    (void)end(runUntilIdle(*job));
    const UploadState state = job->state();
    EXPECT_TRUE(state.areTotalsKnown);
    EXPECT_EQ(state.filesTotal, 4);
    EXPECT_EQ(state.filesDone, 3);
    EXPECT_EQ(state.bytesTotal, 10 + 8);
    EXPECT_EQ(state.bytesDone, 10 + 8);
    EXPECT_EQ(state.running, QStringList());
    EXPECT_EQ(failed(), list("t/refused"));
}

// ---- many that are named

TEST_F(TreeJob, ManyNamedFilesDoNotPayForAllThatIsInTheFolderEachTime) {
    constexpr int there = 3'000;
    for (int i = 0; i < there; ++i)
        (void)server.service().addFile(QStringLiteral("there %1").arg(i), "there");
    const auto namesWrittenFor = [this](int files) {
        QStringList paths;
        for (int i = 0; i < files; ++i) {
            paths.append(QStringLiteral("%1 of %2").arg(i).arg(files));
            (void)makeFile(paths.last(), "content");
        }
        orx::HalvaneListingStore::instance().clear();
        request = {};
        const quint64 before = orx::NameIndex::namesWritten();
        EXPECT_FALSE(put(paths).hasError());
        EXPECT_EQ(report.done, files);
        return orx::NameIndex::namesWritten() - before;
    };
    // What is there is paid for once, and then its square root for each.
    for (const int files : {20, 200})
        EXPECT_LE(namesWrittenFor(files), quint64(2 * (there + 220) + files * 150)) << files;
    EXPECT_EQ(server.service().files().size(), there + 220);
}

// ---- comparisons that fail

struct Comparison {
    bool keepGoing;
    const char* done;
    const char* leftOut;
};

class TreeJobComparing : public TreeJob, public ::testing::WithParamInterface<Comparison> {};
INSTANTIATE_TEST_SUITE_P(
    KeepGoing, TreeJobComparing,
    ::testing::Values(Comparison{false, "", "t/new not_tried,t/same not_tried,t/sub/x not_tried"},
                      Comparison{true, "unchanged t/same,uploaded t/new,uploaded t/sub/x", ""}),
    [](const auto& one) { return one.param.keepGoing ? "Yes" : "No"; });

TEST_P(TreeJobComparing, OneThatFailsStopsItsFolderUnlessTheRunKeepsGoing) {
    write("t/new");
    write("t/other", "not as there");
    write("t/same", "as there");
    write("t/sub/x");
    addOnServer({{QStringLiteral("same"), "as there"}, {QStringLiteral("other"), "there"}});
    refuse(QStringLiteral("GET /files/%1").arg(ids.value(QStringLiteral("other"))), notYours());
    if (!GetParam().keepGoing) // the other comparison does not come to its end before the one that fails
        refuse(QStringLiteral("GET /files/%1").arg(ids.value(QStringLiteral("same"))), ScriptedFault::hang());
    request.keepGoing = GetParam().keepGoing;
    EXPECT_EQ(put().hasError(), !GetParam().keepGoing);
    EXPECT_EQ(done, list(GetParam().done));
    EXPECT_EQ(failed(), list("t/other"));
    EXPECT_EQ(report.failures.first().error.errorMessage(), QStringLiteral("not yours"));
    EXPECT_EQ(leftOut(), list(GetParam().leftOut));
    EXPECT_EQ(report.unexplained, 0);
}

// ---- folders that fail

TEST_F(TreeJob, WhatLiesBelowAFolderThatCannotBeMadeIsNotTriedEmptyDirectoriesToo) {
    write("t/a");
    write("t/no/b");
    ASSERT_TRUE(QDir().mkpath(filePath(QStringLiteral("t/no/empty/inner"))));
    ASSERT_TRUE(QDir().mkpath(filePath(QStringLiteral("t/yes/empty"))));
    ASSERT_TRUE(QDir().mkpath(filePath(QStringLiteral("t/yes/but/no"))));
    server.onRequest = [this](const orx::testing::ScriptedRequest& call) {
        if (call.line() == u"POST /folders" && call.json().value(u"name") == QStringLiteral("no"))
            server.script(QStringLiteral("POST /folders"), notYours());
    };
    request.keepGoing = true;
    EXPECT_TRUE(put().hasError());
    EXPECT_EQ(failed(), list("t/no,t/yes/but/no"));
    EXPECT_EQ(leftOut(), list("t/no/b not_tried,t/no/empty not_tried,t/no/empty/inner not_tried"));
    EXPECT_EQ(report.unexplained, 0);
    EXPECT_EQ(done, list("uploaded t/a"));
}

// ---- the end in the middle

TEST_F(TreeJob, CancelledWhileItComparesNothingIsSkippedAndNothingFails) {
    write("t/other", "not as there");
    write("t/new");
    ASSERT_TRUE(QDir().mkpath(filePath(QStringLiteral("t/empty"))));
    addOnServer({{QStringLiteral("other"), "there"}});
    refuse(QStringLiteral("GET /files/*"), ScriptedFault::hold());
    request.ifTaken = IfTaken::Skip;
    make();
    job->exec();
    ASSERT_TRUE(waitUntil([this] { return server.heldCount() == 1; }));
    job->cancel();
    ASSERT_TRUE(waitUntil([this] { return job->isIdle(); }));
    EXPECT_TRUE(end(job->error()).isCanceled());
    EXPECT_EQ(done, QStringList());
    EXPECT_EQ(failed(), QStringList());
    EXPECT_EQ(leftOut(), list("t/empty not_tried,t/new not_tried,t/other not_tried"));
    EXPECT_EQ(server.count(QStringLiteral("POST *")), 0) << "nothing was sent";
}

TEST_F(TreeJob, ALoginThatHasExpiredEndsTheRunAlsoWhenItKeepsGoing) {
    for (int i = 0; i < 60; ++i)
        write(qPrintable(QStringLiteral("t/sub%1/f%2").arg(i % 3).arg(i)));
    refuse(QStringLiteral("POST /uploads"),
           ScriptedFault::failure(401, HalvaneServerErrorCode::NotAuthenticated, QStringLiteral("expired")));
    request.keepGoing = true;
    const orx::Error error = put();
    EXPECT_TRUE(orx::isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated) ||
                error.is(ErrorCode::NotAuthenticated))
        << qPrintable(error.traceText());
    EXPECT_GT(report.failures.size(), 0);
    EXPECT_LT(report.failures.size(), 60);
    EXPECT_EQ(report.trees.first().failed + report.trees.first().notTried, 60);
    EXPECT_EQ(report.unexplained, 0);
    EXPECT_LT(server.count(QStringLiteral("POST /uploads")), 60) << "no more was tried";
}

// ---- what changes after it was scanned

class TreeJobChanging : public TreeJob, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(KeepGoing, TreeJobChanging, ::testing::Bool(),
                         [](const auto& one) { return one.param ? "Yes" : "No"; });

TEST_P(TreeJobChanging, ADirectoryThatHasGoneStopsTheRunUnlessItKeepsGoing) {
    for (const char* file : {"one/a", "two/b", "three/c"})
        write(file);
    request.keepGoing = GetParam();
    make({QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("three")});
    QObject::connect(job.get(), &TreeUploadJob::scanned,
                     [this] { EXPECT_TRUE(QDir(filePath(QStringLiteral("two"))).removeRecursively()); });
    const orx::Error error = end(runUntilIdle(*job));
    EXPECT_EQ(error.hasError(), !GetParam());
    EXPECT_EQ(failed(), list("two"));
    EXPECT_EQ(done, GetParam() ? list("uploaded one/a,uploaded three/c") : QStringList());
    EXPECT_EQ(server.service().folders().size(), GetParam() ? 3 : 1);
    if (!GetParam()) {
        EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
        EXPECT_EQ(leftOut(), list("one/a not_tried,two/b not_tried,three/c not_tried"));
    }
    EXPECT_EQ(report.unexplained, 0);
}

TEST_P(TreeJobChanging, ADirectoryThatIsAFileByThenStopsTheRunUnlessItKeepsGoing) {
    write("one/a");
    write("two/b");
    request.keepGoing = GetParam();
    make({QStringLiteral("two"), QStringLiteral("one")});
    QObject::connect(job.get(), &TreeUploadJob::scanned, [this] {
        EXPECT_TRUE(QDir(filePath(QStringLiteral("two"))).removeRecursively());
        write("two");
    });
    const orx::Error error = end(runUntilIdle(*job));
    EXPECT_EQ(error.is(ErrorCode::FileChanged), !GetParam());
    EXPECT_EQ(failed(), list("two"));
    EXPECT_EQ(report.failures.first().error.code(), int(ErrorCode::FileChanged));
    EXPECT_EQ(done, GetParam() ? list("uploaded one/a") : QStringList());
    EXPECT_EQ(server.service().folders().size(), GetParam() ? 2 : 1);
}

class TreeJobRaw : public TreeJob {
protected:
    //! Of which nobody has to ask whether it is still being written.
    void writePeaks(const QString& path) const {
        write(qPrintable(path), "BEGIN IONS\nTITLE=1\nPEPMASS=500.5\nCHARGE=2+\n100.1 5\nEND IONS\n");
        QFile file(filePath(path));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(
            file.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
    }
    //! A peak list that is empty when it is scanned and whole when its turn comes.
    void becomesRawDataWhenScanned(const char* path) {
        write(path, "");
        QObject::connect(job.get(), &TreeUploadJob::scanned,
                         [this, path] { writePeaks(QLatin1String(path)); });
    }
};

TEST_F(TreeJobRaw, WhatHasBecomeRawDataGoesUpPackedUnderTheNameOfThat) {
    write("run.mgf", "");
    request.ifTaken = IfTaken::Fail;
    make({QStringLiteral("run.mgf")});
    becomesRawDataWhenScanned("run.mgf");
    EXPECT_FALSE(end(runUntilIdle(*job)).hasError());
    EXPECT_EQ(done, list("uploaded run.mgf (source)"));
    ASSERT_EQ(server.service().files().size(), 1);
    EXPECT_EQ(server.service().files().first().name, QStringLiteral("run.mgf.vonk"));
}

TEST_F(TreeJobRaw, WhatHasBecomeRawDataIsAskedAboutUnderTheNameOfThat) {
    write("run.mgf", "");
    (void)server.service().addFile(QStringLiteral("run.mgf.vonk"), "there");
    request.ifTaken = IfTaken::Fail;
    make({QStringLiteral("run.mgf")});
    becomesRawDataWhenScanned("run.mgf");
    EXPECT_TRUE(end(runUntilIdle(*job)).hasError());
    ASSERT_EQ(failed(), list("run.mgf"));
    EXPECT_EQ(report.failures.first().error.code(), int(ErrorCode::AlreadyExists));
    EXPECT_EQ(server.service().files().size(), 1);
}

TEST_F(TreeJobRaw, WhatHasBecomeRawDataDoesNotTakeTheNameOfAnotherUpload) {
    write("run.mgf", "");
    write("run.mgf.vonk", "no packed acquisition");
    request.keepGoing = true;
    make({QStringLiteral("run.mgf"), QStringLiteral("run.mgf.vonk")});
    becomesRawDataWhenScanned("run.mgf");
    (void)end(runUntilIdle(*job));
    EXPECT_THAT(failed(), ::testing::Contains(QStringLiteral("run.mgf")));
    EXPECT_EQ(report.failures.first().error.code(), int(ErrorCode::FileChanged));
}

// ---- many acquisitions

//! Takes all turns to pack until it is gone.
class NobodyPacks {
public:
    NobodyPacks() {
        for (int i = 0; i < orx::vonk::PackingTurn::count(); ++i) {
            const auto wish = std::make_shared<orx::vonk::TurnWish>();
            wish->given = [this](const auto& turn) { m_turns.append(turn); };
            orx::vonk::PackingTurn::ask(wish);
        }
        EXPECT_EQ(m_turns.size(), orx::vonk::PackingTurn::count());
    }

private:
    QList<std::shared_ptr<orx::vonk::PackingTurn>> m_turns;
};

TEST_F(TreeJobRaw, ManyAcquisitionsWaitWithoutRunningAndGoUpAFewAtATime) {
    constexpr int runs = 250;
    for (int i = 0; i < runs; ++i)
        writePeaks(QStringLiteral("t/run%1.mgf").arg(i));
    write("t/a.txt");
    auto nobodyPacks = std::make_optional<NobodyPacks>();
    qsizetype sent = 0;
    qsizetype mostSent = 0;
    qsizetype mostRunning = 0;
    server.onRequest = [&](const orx::testing::ScriptedRequest& call) {
        sent += call.line() == u"POST /uploads" ? 1 : 0;
        sent -= call.line() == u"POST /uploads/finalize" ? 1 : 0;
        mostSent = std::max(mostSent, sent);
        mostRunning = std::max(mostRunning, job->state().running.size());
    };
    request.keepInCache = false;
    make();
    job->exec();
    ASSERT_TRUE(waitUntil([&] { return job->state().waiting == runs && done.size() == 1; }));
    EXPECT_EQ(job->state().running, QStringList());
    EXPECT_EQ(done, list("uploaded t/a.txt"));
    nobodyPacks.reset();
    ASSERT_TRUE(waitUntil([&] { return job->isIdle(); }));
    EXPECT_FALSE(end(job->error()).hasError()) << qPrintable(job->error().traceText());
    EXPECT_EQ(report.done, runs + 1);
    EXPECT_EQ(server.service().files().size(), runs + 1);
    EXPECT_EQ(job->state().waiting, 0);
    constexpr qsizetype breadth = 16;
    EXPECT_LE(mostSent, breadth);
    EXPECT_LE(mostRunning, breadth);
}

// ---- before it begins

TEST_F(TreeJob, WithoutTheTargetNothingHasBegun) {
    write("t/a");
    request.target = QStringLiteral("folder:77");
    request.paths = {filePath(QStringLiteral("t"))};
    TreeUploadJob missing(request, UploadPolicy::optionsOf(request, false, {}));
    EXPECT_TRUE(runUntilIdle(missing).hasError());
    EXPECT_FALSE(missing.hasBegun());
    EXPECT_EQ(missing.trees().size(), 0);
}

TEST_F(TreeJob, OfTwoSourcesOfOneNameTheLaterOneFailsAndStopsTheRunUnlessItKeepsGoing) {
    write("one/t/a");
    write("two/t/b");
    const QStringList both{QStringLiteral("one/t"), QStringLiteral("two/t")};
    EXPECT_TRUE(put(both).is(ErrorCode::InvalidArgument));
    EXPECT_EQ(failed(), list("two/t"));
    EXPECT_EQ(leftOut(), list("one/t/a not_tried,two/t/b not_tried"));
    EXPECT_EQ(server.service().folders().size(), 1);
    request = {};
    request.keepGoing = true;
    EXPECT_FALSE(put(both).hasError());
    EXPECT_EQ(failed(), list("two/t"));
    EXPECT_EQ(done, list("uploaded one/t/a"));
}

} // namespace
} // namespace halvane::host
