// Somebody sits at a terminal and decides what becomes of files that are in the way.
#include "Terminal.h"

#include <FaultProxy.h>
#include <VonkPacker.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace orx::testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string question = "[q]uit";

class GetQuestions : public ::testing::Test {
protected:
    // /raw/2026 holds a.mzML, b.mzML and c.mzML; the first two names are taken in out/2026.
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        client.mustRun({"mkdir", "-p", "/raw/2026"});
        for (const QString name : {"a.mzML", "b.mzML", "c.mzML"}) {
            const QString source = client.makeFile("source", "content of " + name.toUtf8());
            client.mustRun({"put", "--no-cache", source, "--to", "/raw/2026", "--as", name});
        }
        ASSERT_TRUE(QFile::remove(client.path("source")));
        ASSERT_TRUE(QDir().mkpath(client.path("out/2026")));
        client.makeFile("out/2026/a.mzML", "local a");
        client.makeFile("out/2026/b.mzML", "local b");
    }
    QByteArray local(const QString& name) const { return Client::contentOf(client.path("out/2026/" + name)); }

    RealServer server;
    Client client;
};

TEST_F(GetQuestions, BothSidesAreShownAndTheAnswerIsForThisOne) {
    const QString path = client.path("out/2026/a.mzML");
    ASSERT_TRUE(QFile::remove(path));
    // Version 1 comes; meanwhile the server has a longer version 2, and the local file is edited.
    client.mustRun({"get", "file:1@1", "--to", path});
    client.mustRun({"put", client.makeFile("new", QByteArray(2048, 'n')), "--to", "file:1"});
    client.makeFile("out/2026/a.mzML", "edited");
    Terminal terminal(client, {"get", "/raw/2026/a.mzML", "--to", "out/2026"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("out/2026/a.mzML\" is there already, with another content"));
    EXPECT_THAT(terminal.seen(), ContainsRegex("here +6 B  20[0-9-]+ [0-9:]+  file:1@1 when it came here"));
    EXPECT_THAT(terminal.seen(), ContainsRegex("to come +2.0 KiB  20[0-9-]+ [0-9:]+  file:1@2"));
    EXPECT_EQ(local("a.mzML"), "edited");
    terminal.type("o\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), QByteArray(2048, 'n'));
}

TEST_F(GetQuestions, EachIsAskedAboutInTurn) {
    Terminal terminal(client, {"get", "/raw/2026", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("what\n");
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("r\n");
    ASSERT_TRUE(terminal.waitFor("is there already")) << terminal.seen();
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("r\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), "local a");
    EXPECT_EQ(local("a (2).mzML"), "content of a.mzML");
    EXPECT_EQ(local("b.mzML"), "local b");
    EXPECT_EQ(local("b (2).mzML"), "content of b.mzML");
    EXPECT_EQ(local("c.mzML"), "content of c.mzML");
    EXPECT_THAT(terminal.seen(), HasSubstr("3 files, 3 downloaded"));
    EXPECT_THAT(terminal.seen(), HasSubstr("out/2026/a (2).mzML"));
}

struct ForAll {
    const char* answer;
    QByteArray a;
    QByteArray b;
};

class GetQuestionsForAll : public GetQuestions, public ::testing::WithParamInterface<ForAll> {};

INSTANTIATE_TEST_SUITE_P(Answers, GetQuestionsForAll,
                         ::testing::Values(ForAll{"O", "content of a.mzML", "content of b.mzML"},
                                           ForAll{"S", "local a", "local b"},
                                           ForAll{"R", "local a", "local b"}),
                         [](const auto& parameters) { return std::string(parameters.param.answer); });

TEST_P(GetQuestionsForAll, AreAnsweredOnce) {
    Terminal terminal(client, {"get", "/raw/2026", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type(GetParam().answer + std::string("\n"));
    EXPECT_FALSE(terminal.waitFor(question));
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), GetParam().a);
    EXPECT_EQ(local("b.mzML"), GetParam().b);
    EXPECT_EQ(local("c.mzML"), "content of c.mzML");
    const QByteArray renamed = *GetParam().answer == 'R' ? "content of a.mzML" : "";
    EXPECT_EQ(QFileInfo::exists(client.path("out/2026/a (2).mzML")) ? local("a (2).mzML") : "", renamed);
}

class GetQuestionsGivenUp : public GetQuestions, public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Answers, GetQuestionsGivenUp, ::testing::Values("q\n", "\x03", "\x04"),
                         [](const auto& parameters) {
                             const char first = *parameters.param;
                             return std::string(first == 'q' ? "Quit" : first == 3 ? "CtrlC" : "EndOfInput");
                         });

TEST_P(GetQuestionsGivenUp, NothingMoreIsDone) {
    Terminal terminal(client, {"get", "/raw/2026", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type(GetParam());
    EXPECT_FALSE(terminal.waitFor(question));
    EXPECT_EQ(terminal.finish(), 130) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("Run the same command again to go on where it stopped"));
    EXPECT_THAT(terminal.seen(), Not(HasSubstr("not downloaded:")));
    EXPECT_EQ(local("a.mzML"), "local a");
    EXPECT_EQ(local("b.mzML"), "local b");
}

TEST_F(GetQuestions, AFileOfThisDownloadIsNamed) {
    client.mustRun({"mkdir", "/old"});
    client.mustRun(
        {"put", "--no-cache", client.makeFile("source", "old content"), "--to", "/old", "--as", "a.mzML"});
    Terminal terminal(client, {"get", "/raw/2026/a.mzML", "/old/a.mzML", "--to", "together"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("file:1@1 of this download"));
    terminal.type("r\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(Client::contentOf(client.path("together/a.mzML")), "content of a.mzML");
    EXPECT_EQ(Client::contentOf(client.path("together/a (2).mzML")), "old content");
}

TEST_F(GetQuestions, ALinkThatLeadsNowhereIsAskedAboutToo) {
    ASSERT_TRUE(QFile::remove(client.path("out/2026/a.mzML")));
    ASSERT_TRUE(QFile::link("nowhere", client.path("out/2026/a.mzML")));
    Terminal terminal(client, {"get", "/raw/2026/a.mzML", "--to", "out/2026"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("a link"));
    terminal.type("o\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), "content of a.mzML");
    EXPECT_FALSE(QFileInfo(client.path("out/2026/a.mzML")).isSymLink());
}

TEST_F(GetQuestions, TheyComeBeforeTheContentIsFetched) {
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        client.makeFile("out/2026/a.mzML", "local a");
        server.clearRequests();
        Terminal terminal(client, QStringList{"get", "/raw/2026/a.mzML", "--to", "out/2026"} + cache);
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        EXPECT_EQ(server.countRequests("GET", "/content"), 0);
        terminal.type("o\n");
        EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
        EXPECT_EQ(local("a.mzML"), "content of a.mzML");
    }
}

// The first request for the content is never answered: only a client that goes on gives it up and asks again.
TEST_F(GetQuestions, TheOtherFilesComeAndTimeOutsRunWhileSomebodyThinks) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    client.setEnvironment("HALVANE_TIMEOUT", "1s");
    const auto held = proxy.holdReply({"GET", ".*/content"});
    Terminal terminal(client, {"get", "/raw/2026", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_TRUE(waitUntil([this] { return QFile::exists(client.path("out/2026/c.mzML")); }));
    EXPECT_EQ(local("c.mzML"), "content of c.mzML");
    EXPECT_EQ(local("a.mzML"), "local a");
    terminal.type("O\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), "content of a.mzML");
    EXPECT_EQ(local("b.mzML"), "content of b.mzML");
    held->drop();
}

// Answered is about what was shown, however long the content takes.
TEST_F(GetQuestions, WhatChangesAfterTheAnswerIsAskedAboutAgain) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        for (const std::string answer : {"s", "r", "o"}) {
            client.makeFile("out/2026/a.mzML", "local a");
            Terminal terminal(client, QStringList{"get", "/raw/2026/a.mzML", "--to", "out/2026"} + cache);
            ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
            EXPECT_THAT(terminal.seen(), HasSubstr(" 7 B "));
            const auto held = proxy.holdReply({"GET", ".*/content"});
            terminal.type("o\n");
            held->waitUntilAnswered();
            client.makeFile("out/2026/a.mzML", "of an instrument");
            held->release();
            ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
            EXPECT_THAT(terminal.seen(), HasSubstr(" 16 B "));
            EXPECT_EQ(local("a.mzML"), "of an instrument");
            terminal.type(answer + "\n");
            EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
            EXPECT_EQ(local("a.mzML"), answer == "o" ? "content of a.mzML" : "of an instrument");
            EXPECT_EQ(QFile::remove(client.path("out/2026/a (2).mzML")), answer == "r");
            EXPECT_EQ(client.filesIn("out/2026"), (QStringList{"a.mzML", "b.mzML"}));
            client.mustRun({"cache", "prune", "--max-size", "0"});
        }
    }
}

TEST_F(GetQuestions, WhatGoesAfterTheAnswerIsNotAskedAbout) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        client.makeFile("out/2026/a.mzML", "local a");
        Terminal terminal(client, QStringList{"get", "/raw/2026/a.mzML", "--to", "out/2026"} + cache);
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        const auto held = proxy.holdReply({"GET", ".*/content"});
        terminal.type("o\n");
        held->waitUntilAnswered();
        ASSERT_TRUE(QFile::remove(client.path("out/2026/a.mzML")));
        held->release();
        EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
        EXPECT_EQ(local("a.mzML"), "content of a.mzML");
        client.mustRun({"cache", "prune", "--max-size", "0"});
    }
}

// Who said so for all said it of whatever is there.
TEST_F(GetQuestions, AnAnswerForAllHoldsForWhatChangesLater) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        client.makeFile("out/2026/a.mzML", "local a");
        Terminal terminal(client, QStringList{"get", "/raw/2026/a.mzML", "--to", "out/2026"} + cache);
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        const auto held = proxy.holdReply({"GET", ".*/content"});
        terminal.type("O\n");
        held->waitUntilAnswered();
        client.makeFile("out/2026/a.mzML", "changed");
        held->release();
        EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
        EXPECT_EQ(local("a.mzML"), "content of a.mzML");
        client.mustRun({"cache", "prune", "--max-size", "0"});
    }
}

// As many as are fetched at a time wait for their answers, and one more; all others come all the same.
TEST_F(GetQuestions, MoreThanAreFetchedAtATimeAreAllAnsweredAndEverythingComes) {
    client.mustRun({"mkdir", "/many"});
    ASSERT_TRUE(QDir().mkpath(client.path("out/many")));
    const auto nameOf = [](int number) { return QString("f%1.txt").arg(number, 2, 10, QChar('0')); };
    for (int number = 0; number < 12; ++number) {
        const QString source = client.makeFile("source", "content " + QByteArray::number(number));
        client.mustRun({"put", "--no-cache", source, "--to", "/many", "--as", nameOf(number)});
        if (number < 9)
            client.makeFile("out/many/" + nameOf(number), "local");
    }
    Terminal terminal(client, {"get", "/many", "--to", "out"});
    for (int asked = 0; asked < 9; ++asked) {
        ASSERT_TRUE(terminal.waitFor("is there already")) << terminal.seen();
        ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
        terminal.type("o\n");
    }
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("12 files, 12 downloaded"));
    for (int number = 0; number < 12; ++number)
        EXPECT_EQ(Client::contentOf(client.path("out/many/" + nameOf(number))),
                  "content " + QByteArray::number(number));
}

TEST_F(GetQuestions, WhatWasTypedAheadAnswersNoQuestion) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    const auto held = proxy.holdReply({"GET", ".*/files/[0-9]+.*"});
    Terminal terminal(client, {"get", "file:1", "--to", "out/2026/a.mzML"});
    held->waitUntilAnswered();
    terminal.type("o\n");
    held->release();
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), "local a");
    terminal.type("s\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a.mzML"), "local a");
}

//! Packed acquisitions, whose contents are what is copied.
class GetUnfolded : public GetQuestions {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        client.mustRun({"mkdir", "/packed"});
        for (const int id : {1, 2})
            client.mustRun({"put", packed(id), "--to", "/packed"});
    }

    //! Of the files "spectra.bin" and "method.txt".
    QString packed(int id) const {
        QStringList files;
        for (const QString entry : {"spectra.bin", "method.txt"})
            files << client.makeFile(entry, entry.toUtf8() + " of " + QByteArray::number(id));
        vonk::PackInput input;
        input.path = files.takeFirst();
        input.companions = files;
        const QString target = client.path(QStringLiteral("run%1.vonk").arg(id));
        const auto metadata = vonk::VonkPacker::pack(input, target);
        EXPECT_TRUE(metadata) << qPrintable(metadata.error().errorMessage());
        return target;
    }
};

TEST_F(GetUnfolded, WhatChangesAfterTheAnswerIsAskedAboutAgain) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    ASSERT_TRUE(QDir().mkpath(client.path("source/run.d/data")));
    client.makeFile("source/run.d/acqu", "parameters");
    client.makeFile("source/run.d/data/fid", "signal");
    vonk::PackInput input;
    input.path = client.path("source/run.d");
    ASSERT_TRUE(vonk::VonkPacker::pack(input, client.path("run.d.vonk")));
    client.mustRun({"put", "--no-cache", client.path("run.d.vonk"), "--to", "/packed"});
    ASSERT_TRUE(QDir().mkpath(client.path("out/run.d/data")));
    const QString fid = "out/run.d/data/fid";
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        for (const std::string answer : {"s", "o"}) {
            client.makeFile("out/run.d/acqu", "edited");
            client.makeFile(fid, "local");
            Terminal terminal(client, QStringList{"get", "/packed/run.d.vonk", "--to", "out"} + cache);
            ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
            const auto held = proxy.holdReply({"GET", ".*/content"});
            terminal.type("o\n");
            held->waitUntilAnswered();
            client.makeFile(fid, "of an instrument");
            held->release();
            ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
            EXPECT_EQ(Client::contentOf(client.path(fid)), "of an instrument");
            terminal.type(answer + "\n");
            EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
            EXPECT_EQ(Client::contentOf(client.path(fid)), answer == "s" ? "of an instrument" : "signal");
            EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});
            client.mustRun({"cache", "prune", "--max-size", "0"});
        }
    }
}

TEST_F(GetUnfolded, AnEntryThatAnotherFileOfTheFolderMadeIsToldByItsReference) {
    Terminal terminal(client, {"get", "/packed", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    // Whichever came first.
    EXPECT_THAT(terminal.seen(), ContainsRegex("file:[12]@1 of this download"));
    terminal.type("r\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(client.filesIn("out/packed"),
              (QStringList{"method (2).txt", "method.txt", "spectra (2).bin", "spectra.bin"}));
    const QByteArray first = Client::contentOf(client.path("out/packed/method.txt"));
    const QByteArray second = Client::contentOf(client.path("out/packed/method (2).txt"));
    EXPECT_NE(first, second);
    EXPECT_THAT(first.toStdString(), ContainsRegex("method.txt of [12]"));
    EXPECT_THAT(second.toStdString(), ContainsRegex("method.txt of [12]"));
}

} // namespace
} // namespace orx::testing
