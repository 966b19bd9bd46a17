// What put makes of local files that change, come or vanish: between its runs, and while it runs.
#include "Terminal.h"
#include "UploadTrees.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <csignal>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

using Outcomes = QMap<QString, QString>;

constexpr const char* expired =
    R"({"status": "error", "error": {"code": 2, "message": "The token has expired."}})";

class PutChanges : public UploadTrees {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
    }
    std::unique_ptr<QProcess> start(const QStringList& options = {}) const {
        return client.start(QStringList{"--json", "put", "2026", "--to", "/raw"} + options);
    }
    Outcome retry() const { return put({"2026", "--to", "/raw", "--retry"}); }

    std::unique_ptr<FaultProxy> proxy;
};

// ---- between two runs

//! /raw/2026 has a.txt and b.txt; b.txt has changed since, in the same size.
class PutRetry : public PutChanges {
protected:
    void SetUp() override {
        PutChanges::SetUp();
        write("2026/a.txt", "content of a");
        write("2026/b.txt", "one");
        ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
        write("2026/b.txt", "two");
    }
    void expectThatARetrySendsIt() const {
        const Outcome outcome = retry();
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        EXPECT_EQ(outcomes(outcome, "2026"), (Outcomes{{"a.txt", "unchanged"}, {"b.txt", "uploaded"}}));
        EXPECT_EQ(contentOnServer("/raw/2026/b.txt"), "two");
    }
};

TEST_F(PutRetry, SendsWhatChangedInItsSizeAfterACompleteRun) {
    expectThatARetrySendsIt();
}

TEST_F(PutRetry, SendsWhatAnInterruptedRunDidNotGetTo) {
    const auto hold = proxy->holdReply({"GET", ".*/folders/[0-9]+/files"});
    const auto process = start();
    hold->waitUntilAnswered();
    ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
    EXPECT_EQ(Client::finish(*process).exitCode, 130);
    hold->drop();
    proxy->clearRules();
    expectThatARetrySendsIt();
}

TEST_F(PutRetry, SendsWhatFailedBeforeARunThatCouldNotBegin) {
    EXPECT_EQ(put({"2026", "--to", "/raw", "--keep-going", "--if-exists", "fail"}).exitCode, 14);
    ASSERT_TRUE(server.stop());
    EXPECT_NE(retry().exitCode, 0);
    ASSERT_TRUE(server.start());
    expectThatARetrySendsIt();
}

TEST_F(PutRetry, OfAnotherSpellingOfTheTargetSendsItToo) {
    EXPECT_EQ(put({"2026", "--to", "/raw", "--keep-going", "--if-exists", "fail"}).exitCode, 14);
    const Outcome outcome = put({"2026", "--to", "/raw/", "--retry"});
    EXPECT_EQ(outcomes(outcome, "2026").value("b.txt"), "uploaded") << outcome.err.constData();
}

//! /raw/2026/old is a file of the system, which nobody has touched for long. On the server it has another
//! content by now, and the record of what went up says that it is the one of here.
class PutRetryOfOldFiles : public PutChanges {
protected:
    void SetUp() override {
        PutChanges::SetUp();
        makeDirectory("2026");
        ASSERT_TRUE(QFile::link("/usr/bin/env", client.path("2026/old")));
        ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
        const QString other = write("other", "of the server");
        ASSERT_EQ(put({"other", "--to", "/raw/2026/old"}).exitCode, 0);
        const QFileInfoList records = QDir(client.configDir() + "/uploads").entryInfoList({"*.json"});
        ASSERT_EQ(records.size(), 1);
        record = records.first().filePath();
        QByteArray text = contentOf(record);
        const QByteArray known = sha256Of("/usr/bin/env");
        ASSERT_TRUE(text.contains(known)) << text.constData();
        QFile file(record);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text.replace(known, sha256Of(other)));
    }
    static QByteArray contentOf(const QString& path) {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
        return file.readAll();
    }
    static QByteArray sha256Of(const QString& path) {
        return QCryptographicHash::hash(contentOf(path), QCryptographicHash::Sha256).toHex();
    }
    QString record;
};

TEST_F(PutRetryOfOldFiles, TakesTheWordOfTheRecordAndReadsNothing) {
    EXPECT_EQ(outcomes(retry(), "2026"), (Outcomes{{"old", "unchanged"}}));
    EXPECT_EQ(outcomes(retry(), "2026"), (Outcomes{{"old", "unchanged"}})) << "the record is kept";
}

TEST_F(PutRetryOfOldFiles, AnyOtherRunReads) {
    EXPECT_EQ(outcomes(put({"2026", "--to", "/raw"}), "2026"), (Outcomes{{"old", "uploaded"}}));
}

TEST_F(PutRetryOfOldFiles, ReadsWhatWasTouched) {
    ASSERT_TRUE(QFile::remove(client.path("2026/old")));
    ASSERT_TRUE(QFile::copy("/usr/bin/env", client.path("2026/old")));
    QFile copy(client.path("2026/old"));
    ASSERT_TRUE(copy.open(QIODevice::ReadWrite));
    ASSERT_TRUE(
        copy.setFileTime(QFileInfo("/usr/bin/env").lastModified(), QFileDevice::FileModificationTime));
    copy.close();
    EXPECT_EQ(outcomes(retry(), "2026"), (Outcomes{{"old", "uploaded"}})) << "size and time are the same";
}

TEST_F(PutRetryOfOldFiles, ReadsWhatHasYetAnotherContentOnTheServer) {
    write("other", "a third one");
    ASSERT_EQ(put({"other", "--to", "/raw/2026/old"}).exitCode, 0);
    EXPECT_EQ(outcomes(retry(), "2026"), (Outcomes{{"old", "uploaded"}}));
}

// ---- while it runs

TEST_F(PutChanges, WhatVanishesBeforeItsTurnIsAFailure) {
    for (const QString file : {"a.txt", "b.txt", "sub/c.txt", "sub/d.txt"})
        write("2026/" + file, "content of " + file.toUtf8());
    const auto hold = proxy->holdReply({"POST", ".*/folders"});
    const auto process = start({"--keep-going"});
    hold->waitUntilAnswered();
    ASSERT_TRUE(QFile::remove(client.path("2026/a.txt")));
    ASSERT_TRUE(QDir().rename(client.path("2026/sub"), client.path("elsewhere")));
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"a.txt", "NotFound"}, {"sub", "NotFound"}}));
    EXPECT_EQ(leftOut(outcome, "2026"), (Outcomes{{"sub/c.txt", "not_tried"}, {"sub/d.txt", "not_tried"}}));
    const QJsonObject folder = ofType(outcome, "folder").first();
    EXPECT_EQ(folder["outcome"], "incomplete");
    EXPECT_EQ(folder["files"], 4);
    EXPECT_EQ(folder["uploaded"], 1);
}

//! Removes one of two files while it is sent.
class PutVanishing : public PutChanges {
protected:
    void SetUp() override {
        PutChanges::SetUp();
        write("2026/a.txt", "content of a");
        write("2026/sub/b.txt", "content of b");
        hold = proxy->holdReply({"POST", ".*/uploads"});
    }
    void run() {
        const auto process = start({"--keep-going"});
        hold->waitUntilAnswered();
        proxy->waitForTraffic("POST", ".*/uploads/finalize", [](auto passed) { return passed.replies == 1; });
        sent = onServer("/raw").contains("/raw/2026/a.txt@1") ? "a.txt" : "sub/b.txt";
        removed = sent == "a.txt" ? "sub/b.txt" : "a.txt";
        ASSERT_TRUE(QFile::remove(client.path("2026/" + removed)));
        hold->release();
        outcome = Client::finish(*process);
        folder = ofType(outcome, "folder").first();
    }
    std::shared_ptr<FaultProxy::Hold> hold;
    QString sent;
    QString removed;
    Outcome outcome;
    QJsonObject folder;
};

TEST_F(PutVanishing, AFileThatFailsIsToldWithItsError) {
    proxy->replaceReply({"POST", ".*/uploads/finalize", 1, -1}, 403, "application/json",
                        R"({"status": "error", "error": {"code": 5, "message": "No."}})");
    ASSERT_NO_FATAL_FAILURE(run());
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(outcomes(outcome, "2026"), (Outcomes{{sent, "uploaded"}}));
    EXPECT_EQ(failures(outcome, "2026").keys(), QStringList{removed});
    EXPECT_EQ(folder["failed"], 1);
    EXPECT_EQ(folder["files"], 2);
    EXPECT_EQ(folder["outcome"], "incomplete");
}

// It is open already: what is sent is what it was.
TEST_F(PutVanishing, AFileThatGoesUpCounts) {
    ASSERT_NO_FATAL_FAILURE(run());
    EXPECT_EQ(folder["uploaded"].toInt() + folder["failed"].toInt(), 2);
    EXPECT_EQ(folder["files"], 2);
    EXPECT_EQ(folder["uploaded"], outcomes(outcome, "2026").size());
}

TEST_F(PutChanges, ASourceThatIsRenamedMeanwhileKeepsItsAccount) {
    write("2026/a.txt", "content of a");
    const auto hold = proxy->holdReply({"POST", ".*/folders"});
    const auto process = start();
    hold->waitUntilAnswered();
    ASSERT_TRUE(QDir().rename(client.path("2026"), client.path("elsewhere")));
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 3) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{".", "NotFound"}}));
    ASSERT_EQ(ofType(outcome, "folder").size(), 1);
    EXPECT_EQ(ofType(outcome, "folder").first()["not_tried"], 1);
}

// ---- packed acquisitions that are none

TEST_F(PutChanges, ADirectoryThatIsNamedLikeAPackedAcquisitionIsAFolderAndThatIsTold) {
    makePacked("2026/run.vonk");
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    ASSERT_TRUE(QFile::remove(client.path("2026/run.vonk")));
    makeRawDirectory("2026/run.vonk");
    for (const QString answer : {"new-version", "skip", "keep-both", "fail"}) {
        const Outcome outcome = put({"2026", "--to", "/raw", "--if-exists", answer});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        const QString word = answer == "new-version" ? "uploaded" : "unchanged";
        EXPECT_EQ(outcomes(outcome, "2026"),
                  (Outcomes{{"run.vonk/analysis.tdf", word}, {"run.vonk/analysis.tdf_bin", word}}));
        EXPECT_EQ(ofType(outcome, "folder").first()["left_out"], 0);
        EXPECT_THAT(outcome.err.toStdString(), HasSubstr("goes up as a folder"));
    }
    const Outcome plan = put({"2026", "--to", "/raw", "--dry-run"});
    EXPECT_THAT(plan.err.toStdString(), HasSubstr("goes up as a folder"));
}

TEST_F(PutChanges, RawDataThatIsAPlainDirectoryWhenItsTurnComesIsAFailureAndNothingOfItGoesUp) {
    makeRawDirectory("run.d");
    write("a.txt", "content of a");
    const auto hold = proxy->holdReply({"GET", ".*/folders/2/files"});
    const auto process = client.start(
        {"--json", "put", "run.d", "a.txt", "--to", "/raw", "--if-exists", "fail", "--keep-going"});
    hold->waitUntilAnswered();
    ASSERT_TRUE(QFile::remove(client.path("run.d/analysis.tdf")));
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "."), (Outcomes{{"run.d", "FileChanged"}}));
    EXPECT_EQ(onServer("/raw"), QStringList{"/raw/a.txt@1"});
}

// ---- what becomes raw data

TEST_F(PutChanges, WhatBecomesRawDataWhileItWaitsForItsTurnDoesNotGoUpUnderAnotherName) {
    makeRawFile("run.mzML");
    ASSERT_EQ(put({"run.mzML", "--to", "/raw"}).exitCode, 0);
    write("run.mzML", "");
    write("a.txt", "content of a");
    const auto hold = proxy->holdReply({"GET", ".*/folders/2/files"});
    const auto process = client.start(
        {"--json", "put", "run.mzML", "a.txt", "--to", "/raw", "--if-exists", "fail", "--keep-going"});
    hold->waitUntilAnswered();
    write("run.mzML", Client::contentOf(ORX_TEST_DATA_DIR "/chromatograms.mzML"));
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "."), (Outcomes{{"run.mzML", "FileChanged"}}));
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/a.txt@1", "/raw/run.mzML.vonk@1"}));
}

TEST_F(PutChanges, ASingleFileThatBecomesRawDataBeforeItIsAtRestIsPacked) {
    const auto putWhenItIsRawData = [this](const QString& name, const QStringList& options) {
        write(name, "");
        const auto hold = proxy->holdReply({"GET", ".*/folders/1/folders"});
        const auto process = client.start(QStringList{"--json", "put", name, "--to", "/raw"} + options);
        hold->waitUntilAnswered();
        ASSERT_TRUE(QFile::remove(client.path(name)));
        makeRawFile(name);
        hold->release();
        const Outcome outcome = Client::finish(*process);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    };
    putWhenItIsRawData("run.mzML", {});
    EXPECT_EQ(onServer("/raw"), QStringList{"/raw/run.mzML.vonk@1"});
    putWhenItIsRawData("other.mzML", {"--as", "run.mzML", "--new-version"});
    EXPECT_EQ(onServer("/raw"), QStringList{"/raw/run.mzML.vonk@2"});
}

// ---- one path, one account

TEST_F(PutChanges, APathWithinAnotherOneStopsItBeforeAnythingIsAsked) {
    write("2026/sub/a.txt", "content of a");
    server.clearRequests();
    for (const QString inner : {"2026/sub/a.txt", "2026/sub", "2026/./sub/../sub"}) {
        const Outcome outcome = put({"2026", inner, "--to", "/raw", "--keep-going"});
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_THAT(outcome.err.toStdString(), HasSubstr("Name only one of them."));
    }
    EXPECT_TRUE(server.requests().isEmpty());
}

// ---- acquisitions that are still being written

//! Nothing that was changed in the last day has come to rest.
class PutWhileWritten : public PutChanges {
protected:
    void SetUp() override {
        PutChanges::SetUp();
        setRules({});
        write("2026/a.txt", "content of a");
    }
    void setRules(const QByteArray& filters) {
        QFile settings(client.configDir() + "/upload.ini");
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly | QIODevice::Truncate));
        settings.write("[acquisitions]\nquiet_time=100000s\npatience=0s\n" + filters);
    }
    void touch(const QString& path) {
        QFile file(client.path(path));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(QDateTime::currentDateTime(), QFileDevice::FileModificationTime));
    }
    void expectRefused(const Outcome& outcome) const {
        EXPECT_EQ(outcome.exitCode, 1) << outcome.err.constData();
        EXPECT_THAT(outcome.err.toStdString(), HasSubstr("is still being written"));
        EXPECT_THAT(outcome.out.toStdString(), HasSubstr("\"Busy\""));
        EXPECT_EQ(onServer("/raw"), QStringList());
    }
    void expectRefusedBesideAnother(const QString& path) const {
        const Outcome paths = put({path, "2026/a.txt", "--to", "/raw", "--keep-going"});
        EXPECT_EQ(paths.exitCode, 14) << paths.err.constData();
        EXPECT_EQ(failures(paths, "2026"), (Outcomes{{path.mid(5), "Busy"}}));
        EXPECT_THAT(paths.err.toStdString(), HasSubstr("is still being written"));
    }
};

TEST_F(PutWhileWritten, AnAcquisitionIsAFailure) {
    makeRawFile("2026/run.mzML");
    touch("2026/run.mzML");
    const Outcome tree = put({"2026", "--to", "/raw"});
    EXPECT_EQ(tree.exitCode, 14) << tree.err.constData();
    EXPECT_EQ(failures(tree, "2026").keys(), QStringList{"run.mzML"});
    EXPECT_EQ(outcomes(tree, "2026"), (Outcomes{{"a.txt", "uploaded"}}));
    EXPECT_THAT(tree.err.toStdString(), HasSubstr("is still being written"));
    expectRefusedBesideAnother("2026/run.mzML");
}

TEST_F(PutWhileWritten, AnAcquisitionWhoseCompanionStillGrowsIsAFailureInATreeBesideAnotherAndAlone) {
    const QByteArray head =
        R"(<?xml version="1.0"?><mzML version="1.1"><fileDescription><fileContent>)"
        R"(<cvParam cvRef="IMS" accession="IMS:1000080" name="uuid" )"
        R"(value="{12345678-1234-1234-1234-123456789abc}"/>)"
        R"(</fileContent></fileDescription><run id="r"><spectrumList count="0"/></run></mzML>)";
    write("2026/tissue.imzML", head);
    write("2026/tissue.ibd", QByteArray::fromHex("12345678123412341234123456789abc"));
    touch("2026/tissue.ibd");
    expectRefused(put({"2026/tissue.imzML", "--to", "/raw"}));
    expectRefusedBesideAnother("2026/tissue.imzML");
    const Outcome tree = put({"2026", "--to", "/raw"});
    EXPECT_EQ(tree.exitCode, 14) << tree.err.constData();
    EXPECT_EQ(failures(tree, "2026").keys(), QStringList{"tissue.imzML"});
    EXPECT_EQ(leftOut(tree, "2026"), (Outcomes{{"tissue.ibd", "companion"}}));
    EXPECT_THAT(tree.out.toStdString(), HasSubstr("goes up together with that")) << "and has not now";
    EXPECT_EQ(onServer("/raw/2026"), QStringList{"/raw/2026/a.txt@1"});
}

TEST_F(PutWhileWritten, ASingleAcquisitionIsRefusedInWhateverFormItIsToGo) {
    makeRawFile("2026/run.mzML");
    makeRawDirectory("2026/frames.d");
    makePacked("2026/old.vonk");
    for (const QString part : {"2026/run.mzML", "2026/frames.d/analysis.tdf", "2026/old.vonk"})
        touch(part);
    for (const QString path : {"2026/run.mzML", "2026/frames.d", "2026/old.vonk"})
        expectRefused(put({path, "--to", "/raw"}));
    expectRefused(put({"2026/run.mzML", "--to", "/raw", "--as-file"}));
}

TEST_F(PutWhileWritten, ASingleAcquisitionGoesUpOnceItIsAtRestAndAnyOtherFileAtOnce) {
    makeRawFile("2026/run.mzML");
    touch("2026/a.txt");
    EXPECT_EQ(put({"2026/run.mzML", "--to", "/raw"}).exitCode, 0);
    EXPECT_EQ(put({"2026/a.txt", "--to", "/raw"}).exitCode, 0);
}

TEST_F(PutWhileWritten, WhatIsNamedIsWaitedForWhateverTheRulesForNamesSay) {
    makeRawFile("2026/.hidden.mzML");
    makeRawDirectory("2026/frames.d");
    makeRawFile("2026/run.mzML");
    ASSERT_TRUE(QFile::link(client.path("2026/frames.d"), client.path("2026/link.d")));
    for (const QString part : {"2026/.hidden.mzML", "2026/frames.d/analysis.tdf", "2026/run.mzML"})
        touch(part);
    for (const QByteArray rules :
         {"", "[filters]\nallowed_extensions=txt\n", "[filters]\nexcluded_names=run*\n"}) {
        ASSERT_NO_FATAL_FAILURE(setRules(rules));
        for (const QString path : {"2026/.hidden.mzML", "2026/link.d", "2026/run.mzML"}) {
            expectRefused(put({path, "--to", "/raw"}));
            expectRefused(put({path, "2026/./" + path.mid(5), "--to", "/raw"}));
        }
    }
}

TEST_F(PutWhileWritten, WhatIsNamedAndAtRestGoesUpWhateverTheRulesForNamesSay) {
    makeRawFile("2026/.hidden.mzML");
    makeRawFile("2026/run.mzML");
    ASSERT_NO_FATAL_FAILURE(setRules("[filters]\nallowed_extensions=vonk\n"));
    const Outcome outcome = put({"2026/.hidden.mzML", "2026/run.mzML", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcomes(outcome, "2026"), (Outcomes{{".hidden.mzML", "uploaded"}, {"run.mzML", "uploaded"}}));
}

// ---- versions that somebody else made

TEST_F(PutChanges, WithCheckVersionAFileThatSomebodyElseChangedFails) {
    write("2026/a.txt", "mine");
    write("2026/b.txt", "both of us have it");
    makeRawFile("2026/run.mzML");
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    Client colleague;
    ASSERT_TRUE(colleague.login(server.url()));
    colleague.makeFile("a.txt", "theirs");
    colleague.makeFile("b.txt", "both of us have it");
    colleague.mustRun({"put", "a.txt", "b.txt", "--to", "/raw/2026"});
    write("2026/a.txt", "mine again");
    QFile raw(client.path("2026/run.mzML"));
    ASSERT_TRUE(raw.open(QIODevice::Append));
    ASSERT_EQ(raw.write("\n"), 1);
    raw.close();
    const Outcome outcome = put({"2026", "--to", "/raw", "--check-version", "--keep-going"});
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"a.txt", "VersionConflict"}}));
    EXPECT_EQ(outcomes(outcome, "2026"), (Outcomes{{"b.txt", "unchanged"}, {"run.mzML", "uploaded"}}));
    EXPECT_EQ(contentOnServer("/raw/2026/a.txt"), "theirs");
    const Outcome paths =
        put({"2026/a.txt", "2026/b.txt", "--to", "/raw/2026", "--check-version", "--keep-going"});
    EXPECT_EQ(failures(paths, "2026"), (Outcomes{{"a.txt", "VersionConflict"}}));
    EXPECT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    EXPECT_EQ(contentOnServer("/raw/2026/a.txt"), "mine again");
}

// ---- questions that nobody answers any more

//! /raw/2026 has a.txt (file:1) and c.txt (file:2), both with another content than here.
class PutOpenQuestions : public PutChanges {
protected:
    void SetUp() override {
        PutChanges::SetUp();
        for (const QString file : {"a.txt", "c.txt"}) {
            write("2026/" + file, "old " + file.toUtf8());
            client.mustRun({"put", "2026", "--to", "/raw"});
            write("2026/" + file, "new " + file.toUtf8());
        }
        write("2026/a.txt", "new a.txt!");
    }
};

TEST_F(PutOpenQuestions, AreNotTakenForAnsweredWhenTheLoginExpires) {
    write("other.txt", "other");
    const auto hold = proxy->holdReply({"POST", ".*/uploads"});
    proxy->replaceReply({"PUT", ".*/uploads/.*", 0, -1}, 401, "application/json", expired);
    Terminal terminal(client, {"put", "2026", "other.txt", "--to", "/raw", "--if-exists", "ask"});
    ASSERT_TRUE(terminal.waitFor("[q]uit")) << terminal.seen();
    hold->release();
    EXPECT_EQ(terminal.finish(), 5) << terminal.seen();
    EXPECT_THAT(terminal.seen(), Not(HasSubstr("policy")));
}

TEST_F(PutOpenQuestions, AnAnswerThatWasNotCarriedOutIsNoSkip) {
    const auto hold = proxy->holdReply({"GET", ".*/files/2"});
    proxy->replaceReply({"GET", ".*/files/2", 0, -1}, 403, "application/json",
                        R"({"status": "error", "error": {"code": 5, "message": "No."}})");
    Terminal terminal(client, {"put", "2026", "--to", "/raw", "--if-exists", "ask"});
    ASSERT_TRUE(terminal.waitFor("[q]uit")) << terminal.seen();
    terminal.type("n\n");
    hold->drop();
    EXPECT_THAT(terminal.finish(), ::testing::AllOf(::testing::Ne(0), ::testing::Ne(14))) << terminal.seen();
    EXPECT_THAT(terminal.seen(), Not(HasSubstr("policy")));
    EXPECT_THAT(terminal.seen(), HasSubstr("not_tried"));
}

} // namespace
} // namespace orx::testing
