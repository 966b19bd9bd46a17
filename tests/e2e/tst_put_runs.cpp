// What becomes of a put of many files when names are taken, something fails, somebody is asked, or it is
// ended in the middle.
#include "Terminal.h"
#include "UploadTrees.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <csignal>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

using Outcomes = QMap<QString, QString>;

// ---- names that are taken

//! /raw/2026 has a.txt with another content than the local one; b.txt is new.
class PutTaken : public UploadTrees {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        write("2026/a.txt", "old a");
        client.mustRun({"put", "2026", "--to", "/raw"});
        write("2026/a.txt", "new a");
        write("2026/b.txt", "content of b");
        server.clearRequests();
    }
    Outcome putTree(const QStringList& options) const {
        return put(QStringList{"2026", "--to", "/raw"} + options);
    }
};

TEST_F(PutTaken, NewVersion) {
    EXPECT_EQ(putTree({"--if-exists", "new-version"}).exitCode, 0);
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a.txt@2", "/raw/2026/b.txt@1"}));
    EXPECT_EQ(contentOnServer("/raw/2026/a.txt"), "new a");
}

// The second run finds the content under the name that the first one gave it.
TEST_F(PutTaken, KeepBoth) {
    const Outcome outcome = putTree({"--if-exists", "keep-both"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    const QStringList both{"/raw/2026/a (2).txt@1", "/raw/2026/a.txt@1", "/raw/2026/b.txt@1"};
    EXPECT_EQ(onServer("/raw/2026"), both);
    EXPECT_EQ(contentOnServer("/raw/2026/a (2).txt"), "new a");
    server.clearRequests();
    const Outcome second = putTree({"--if-exists", "keep-both"});
    EXPECT_EQ(second.exitCode, 0);
    EXPECT_EQ(outcomes(second, "2026"), (Outcomes{{"a.txt", "unchanged"}, {"b.txt", "unchanged"}}));
    EXPECT_EQ(changes(), QStringList());
    EXPECT_EQ(onServer("/raw/2026"), both);
}

TEST_F(PutTaken, Skip) {
    const Outcome outcome = putTree({"--if-exists", "skip"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(leftOut(outcome, "2026"), (Outcomes{{"a.txt", "policy"}}));
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a.txt@1", "/raw/2026/b.txt@1"}));
}

TEST_F(PutTaken, FailStopsTheRunUnlessItKeepsGoing) {
    // Without a terminal, to ask is to fail.
    for (const QString word : {"fail", "ask"}) {
        const Outcome outcome = putTree({"--if-exists", word});
        EXPECT_EQ(outcome.exitCode, 4) << outcome.err.constData();
        EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"a.txt", "AlreadyExists"}}));
        EXPECT_EQ(onServer("/raw/2026"), QStringList{"/raw/2026/a.txt@1"});
    }
    const Outcome outcome = putTree({"--if-exists", "fail", "--keep-going"});
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"a.txt", "AlreadyExists"}}));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("--if-exists new-version"));
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a.txt@1", "/raw/2026/b.txt@1"}));
}

TEST_F(PutTaken, ASingleFileIsComparedInTheSameWay) {
    const QString file = client.path("2026/a.txt");
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "fail"}).exitCode, 4);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "keep-both"}).exitCode, 0);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "new-version"}).exitCode, 0);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "fail"}).object()["outcome"], "unchanged");
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a (2).txt@1", "/raw/2026/a.txt@2"}));
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "fail", "--as", "b"}).exitCode, 2);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--if-exists", "fail", "--new-version"}).exitCode, 2);
}

TEST_F(PutTaken, ADryRunTellsEverythingAndChangesNothing) {
    makeRawFile("2026/sub/run.mzML");
    write("2026/.hidden", "x");
    const QStringList before = onServer("/raw");
    server.clearRequests();
    const QList<std::pair<QString, QString>> answers{
        {"new-version", "new_version"}, {"keep-both", "keep_both"}, {"skip", "skip"}, {"fail", "fail"}};
    for (const auto& [option, action] : answers) {
        const Outcome outcome = putTree({"--if-exists", option, "--dry-run"});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        Outcomes planned;
        for (const QJsonObject& entry : ofType(outcome, "planned"))
            planned.insert(QDir(client.path("2026")).relativeFilePath(entry["path"].toString()),
                           entry["as"].toString() + ' ' + entry["action"].toString());
        EXPECT_EQ(planned, (Outcomes{{".", "folder existing_folder"},
                                     {"a.txt", "file " + action},
                                     {"b.txt", "file new_file"},
                                     {"sub", "folder new_folder"},
                                     {"sub/run.mzML", "raw data new_file"}}));
        EXPECT_EQ(leftOut(outcome, "2026"), (Outcomes{{".hidden", "hidden"}}));
        const bool isSent = option == "new-version" || option == "keep-both";
        const QJsonObject sum = ofType(outcome, "plan").first();
        EXPECT_EQ(sum["files"], isSent ? 3 : 2);
        EXPECT_EQ(sum["bytes"], 12 + 25072 + (isSent ? 5 : 0));
    }
    EXPECT_EQ(changes(), QStringList());
    EXPECT_EQ(onServer("/raw"), before);
    const Outcome text = client.run({"put", "2026", "--to", "/raw", "--if-exists", "keep-both", "--dry-run"});
    EXPECT_THAT(text.out.toStdString(), HasSubstr("a (2).txt (file:1@1)"));
    EXPECT_THAT(text.out.toStdString(), HasSubstr("would be sent; nothing was"));
}

TEST_F(PutTaken, ADryRunGivesNoNameThatSomethingBesideItWillHave) {
    makePacked("2026/run.vonk");
    client.mustRun({"put", "2026", "--to", "/raw"});
    write("2026/run.vonk", "something else");
    write("2026/run (2)", "packed, it would be run (2).vonk");
    const Outcome outcome = putTree({"--if-exists", "keep-both", "--dry-run"});
    for (const QJsonObject& entry : ofType(outcome, "planned")) {
        if (entry["path"] == client.path("2026/run.vonk")) {
            EXPECT_EQ(entry["name"], "run (3).vonk");
        }
    }
    EXPECT_EQ(ofType(outcome, "planned").size(), 5) << outcome.out.constData();
}

// ---- somebody is asked

const std::string question = "[q]uit";

class PutQuestions : public PutTaken {
protected:
    void SetUp() override {
        PutTaken::SetUp();
        write("2026/c.txt", "old c");
        client.mustRun({"put", "2026/c.txt", "--to", "/raw/2026"});
        write("2026/c.txt", "new c");
    }
    QStringList asking() const { return {"put", "2026", "--to", "/raw", "--if-exists", "ask"}; }
};

TEST_F(PutQuestions, EachIsAskedAboutInTurnAndOthersGoOnMeanwhile) {
    Terminal terminal(client, asking());
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("the folder has a file of that name"));
    terminal.type("what\n");
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("k\n");
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("k\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(onServer("/raw/2026"),
              (QStringList{"/raw/2026/a (2).txt@1", "/raw/2026/a.txt@1", "/raw/2026/b.txt@1",
                           "/raw/2026/c (2).txt@1", "/raw/2026/c.txt@1"}));
}

// Nobody answers what was not seen.
TEST_F(PutQuestions, WhatIsTypedAheadIsNoAnswer) {
    Terminal terminal(client, asking());
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("s\nk\n");
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("s\n");
    EXPECT_FALSE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(onServer("/raw/2026"),
              (QStringList{"/raw/2026/a.txt@1", "/raw/2026/b.txt@1", "/raw/2026/c.txt@1"}));
}

TEST_F(PutQuestions, AnAnswerForAllIsAskedForOnce) {
    for (const char* const answer : {"S\n", "N\n"}) {
        Terminal terminal(client, asking());
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        terminal.type(answer);
        EXPECT_FALSE(terminal.waitFor(question));
        EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
        const QString version = *answer == 'S' ? "1" : "2";
        EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a.txt@" + version, "/raw/2026/b.txt@1",
                                                      "/raw/2026/c.txt@" + version}));
    }
}

TEST_F(PutQuestions, WhoQuitsEndsTheRun) {
    for (const char* const answer : {"q\n", "\x03", "\x04"}) {
        Terminal terminal(client, asking());
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        terminal.type(answer);
        EXPECT_FALSE(terminal.waitFor(question));
        EXPECT_EQ(terminal.finish(), 130) << terminal.seen();
        EXPECT_THAT(terminal.seen(), HasSubstr("Run the same command again"));
    }
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{"/raw/2026/a.txt@1", "/raw/2026/c.txt@1"}));
}

// ---- something fails

class PutFailing : public UploadTrees {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        makeWholeTree();
        const QString packed = client.path("2026/sub/deep/old.vonk");
        good = Client::contentOf(packed);
        write("2026/sub/deep/old.vonk", good.first(good.size() / 2));
    }

    QByteArray good;
};

TEST_F(PutFailing, OneFailureStopsTheRun) {
    const Outcome outcome = put({"2026", "--to", "/raw"});
    EXPECT_NE(outcome.exitCode, 0);
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"sub/deep/old.vonk", "ChecksumMismatch"}}));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("not uploaded:"));
}

TEST_F(PutFailing, WhatFailedGoesUpByARetryAndNothingElse) {
    const Outcome outcome = put({"2026", "--to", "/raw", "--keep-going"});
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"sub/deep/old.vonk", "ChecksumMismatch"}}));
    const QJsonObject folder = ofType(outcome, "folder").first();
    EXPECT_EQ(folder["outcome"], "incomplete");
    EXPECT_EQ(folder["uploaded"], 4);
    EXPECT_EQ(folder["failed"], 1);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("1 failed, 4 files are there."));

    write("2026/sub/deep/old.vonk", good);
    server.clearRequests();
    const Outcome retry = put({"2026", "--to", "/raw", "--keep-going", "--retry"});
    EXPECT_EQ(retry.exitCode, 0) << retry.err.constData();
    EXPECT_EQ(outcomes(retry, "2026").value("sub/deep/old.vonk"), "uploaded");
    EXPECT_EQ(ofType(retry, "folder").first()["unchanged"], 4);
    EXPECT_EQ(changes().filter("finalize").size(), 1);
    EXPECT_THAT(onServer("/raw"), ::testing::Contains(QString("/raw/2026/sub/deep/old.vonk@1")));
}

// A size alone says nothing.
TEST_F(PutFailing, ARetryComparesTheContentOfWhatFailed) {
    write("2026/sub/deep/old.vonk", good);
    write("2026/sub/b.txt", "one");
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    write("2026/sub/b.txt", "two");
    EXPECT_EQ(put({"2026", "--to", "/raw", "--keep-going", "--if-exists", "fail"}).exitCode, 14);
    const Outcome retry = put({"2026", "--to", "/raw", "--retry"});
    EXPECT_EQ(retry.exitCode, 0) << retry.err.constData();
    EXPECT_EQ(outcomes(retry, "2026").value("sub/b.txt"), "uploaded");
}

TEST_F(PutFailing, ANameThatTheServerRefusesFailsAlone) {
    write("2026/sub/deep/old.vonk", good);
    write("2026/b\x01.txt", "content of b");
    write("2026/c\x01/d.txt", "content of d");
    makeDirectory("2026/c\x01/empty");
    const Outcome outcome = put({"2026", "--to", "/raw", "--keep-going"});
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (Outcomes{{"b\x01.txt", "InvalidName"}, {"c\x01", "InvalidName"}}));
    EXPECT_EQ(leftOut(outcome, "2026"),
              (Outcomes{{"c\x01/d.txt", "not_tried"}, {"c\x01/empty", "not_tried"}}));
    EXPECT_EQ(ofType(outcome, "folder").first()["uploaded"], 5);
    EXPECT_EQ(ofType(outcome, "folder").first()["unexplained"], 0);
}

// ---- it is ended in the middle

class PutInterrupted : public UploadTrees {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
        for (int i = 0; i < 20; ++i)
            write(QStringLiteral("2026/sub%1/f%2.txt").arg(i % 3).arg(i), "content " + QByteArray::number(i));
        makeRawFile("2026/run.mzML");
    }
    //! A run whose sixth file is made by the server, and which does not hear of it.
    std::unique_ptr<QProcess> startAndHold() {
        hold = proxy->holdReply({"POST", ".*/uploads/finalize", 5});
        auto process = client.start({"put", "2026", "--to", "/raw"});
        hold->waitUntilAnswered();
        return process;
    }
    //! Everything is there once after the same command.
    void expectWholeAfterwards() {
        proxy->clearRules();
        const Outcome again = put({"2026", "--to", "/raw"});
        EXPECT_EQ(again.exitCode, 0) << again.err.constData();
        QStringList expected{"/raw/2026/", "/raw/2026/run.mzML.vonk@1", "/raw/2026/sub0/", "/raw/2026/sub1/",
                             "/raw/2026/sub2/"};
        for (int i = 0; i < 20; ++i)
            expected.append(QStringLiteral("/raw/2026/sub%1/f%2.txt@1").arg(i % 3).arg(i));
        expected.sort();
        EXPECT_EQ(onServer("/raw"), expected);
        server.clearRequests();
        EXPECT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
        EXPECT_EQ(changes(), QStringList());
    }

    std::unique_ptr<FaultProxy> proxy;
    std::shared_ptr<FaultProxy::Hold> hold;
};

TEST_F(PutInterrupted, CtrlCEndsItCleanlyAndTheSameCommandGoesOn) {
    const auto process = startAndHold();
    ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
    const Outcome outcome = Client::finish(*process);
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(outcome.exitCode, 130);
    EXPECT_THAT(outcome.err.toStdString(),
                HasSubstr("Run the same command again to go on where it stopped."));
    EXPECT_THAT(outcome.out.toStdString(), HasSubstr("not tried"));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("not_tried"));
    hold->drop();
    expectWholeAfterwards();
}

TEST_F(PutInterrupted, ALoginThatEndsMeanwhileEndsTheRunEarly) {
    for (int i = 0; i < 100; ++i)
        write(QStringLiteral("2026/more/f%1.txt").arg(i), "more " + QByteArray::number(i));
    proxy->replaceReply({"POST", ".*/uploads", 2, -1}, 401, "application/json",
                        R"({"status": "error", "error": {"code": 2, "message": "The token has expired."}})");
    const Outcome outcome = put({"2026", "--to", "/raw", "--keep-going"});
    EXPECT_THAT(outcome.exitCode, ::testing::AnyOf(5, 14)) << outcome.err.constData();
    const Outcomes failed = failures(outcome, "2026");
    EXPECT_FALSE(failed.isEmpty());
    for (const QString& error : failed)
        EXPECT_EQ(error, "NotAuthenticated");
    const QJsonObject folder = ofType(outcome, "folder").first();
    EXPECT_GT(folder["not_tried"].toInt(), 0);
    EXPECT_EQ(folder["unexplained"], 0);
    EXPECT_EQ(folder["uploaded"].toInt() + folder["failed"].toInt() + folder["not_tried"].toInt(), 121);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("halvane login"));
}

TEST_F(PutInterrupted, AKilledClientMakesNoFileTwice) {
    const auto process = startAndHold();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    expectWholeAfterwards();
}

} // namespace
} // namespace orx::testing
