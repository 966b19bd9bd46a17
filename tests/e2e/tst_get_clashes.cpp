// Files of one download that come to one place: none replaces another one, in whatever order they arrive.
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

using ::testing::HasSubstr;

const std::string question = "[q]uit";

//! A server with the empty folder /mixed, whose replies a test can hold.
class GetClashes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
        client.mustRun({"mkdir", "/mixed"});
    }

    //! The id of the new file.
    int put(const QString& name, const QByteArray& content) const {
        const QString source = client.makeFile("source", content);
        const int id = client.mustRun({"--json", "put", "--no-cache", source, "--to", "/mixed", "--as", name})
                           .object()["id"]
                           .toInt();
        EXPECT_TRUE(QFile::remove(source));
        return id;
    }
    //! The same of a packed file of \a files, each with "packed " and its name in it.
    int putPacked(const QString& name, const QStringList& files) const {
        vonk::PackInput input;
        for (const QString& file : files)
            input.companions << client.makeFile(file, "packed " + file.toUtf8());
        const QStringList sources = input.companions;
        input.path = input.companions.takeFirst();
        const QString packed = client.path(name);
        EXPECT_TRUE(vonk::VonkPacker::pack(input, packed));
        const int id =
            client.mustRun({"--json", "put", "--no-cache", packed, "--to", "/mixed"}).object()["id"].toInt();
        for (const QString& path : sources + QStringList{packed})
            EXPECT_TRUE(QFile::remove(path));
        return id;
    }

    //! The same of one that holds the directory \a name with the file "acqu".
    int putPackedDirectory(const QString& name) const {
        EXPECT_TRUE(QDir().mkpath(client.path(name)));
        client.makeFile(name + "/acqu", "packed");
        vonk::PackInput input;
        input.path = client.path(name);
        EXPECT_TRUE(vonk::VonkPacker::pack(input, client.path(name + ".vonk")));
        const int id =
            client.mustRun({"--json", "put", "--no-cache", client.path(name + ".vonk"), "--to", "/mixed"})
                .object()["id"]
                .toInt();
        EXPECT_TRUE(QDir(client.path(name)).removeRecursively());
        EXPECT_TRUE(QFile::remove(client.path(name + ".vonk")));
        return id;
    }

    void writeOld(const QString& name) const {
        ASSERT_TRUE(QDir().mkpath(client.path("out/mixed")));
        client.makeFile("out/mixed/" + name, "old");
    }
    QByteArray local(const QString& name) const {
        return Client::contentOf(client.path("out/mixed/" + name));
    }
    bool hasCome(const QString& name, const QByteArray& content) const {
        return waitUntil(
            [&] { return QFileInfo::exists(client.path("out/mixed/" + name)) && local(name) == content; });
    }
    //! The first reply with content of the file, which for a packed one tells what it holds.
    std::shared_ptr<FaultProxy::Hold> holdContentOf(int id) const {
        return proxy->holdReply({"GET", ".*/files/" + std::to_string(id) + "/versions/1/content"});
    }
    std::unique_ptr<QProcess> start(const QStringList& options) const {
        return client.start(QStringList{"--json", "get", "/mixed", "--to", "out"} + options);
    }
    static QList<QJsonObject> failuresOf(const Outcome& outcome) {
        QList<QJsonObject> found = outcome.objects();
        found.removeIf([](const QJsonObject& object) { return object["type"] != "failure"; });
        return found;
    }
    //! One file failed, because \a maker of the same run is there.
    static void expectRefused(const Outcome& outcome, int maker) {
        EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
        const QList<QJsonObject> failures = failuresOf(outcome);
        ASSERT_EQ(failures.size(), 1) << outcome.out.constData();
        EXPECT_EQ(failures[0]["error"], "AlreadyExists");
        EXPECT_THAT(failures[0]["message"].toString().toStdString(),
                    HasSubstr("is file:" + std::to_string(maker) + "@1 of this same download"));
    }

    RealServer server;
    std::unique_ptr<FaultProxy> proxy;
    Client client;
};

//! With the cache and without.
class GetClashesOverwriting : public GetClashes, public ::testing::WithParamInterface<bool> {
protected:
    QStringList overwriting() const {
        QStringList options{"--if-exists", "overwrite"};
        return GetParam() ? options : options << "--no-cache";
    }
};

INSTANTIATE_TEST_SUITE_P(Ways, GetClashesOverwriting, ::testing::Bool(), [](const auto& parameters) {
    return std::string(parameters.param ? "ThroughTheCache" : "Directly");
});

TEST_P(GetClashesOverwriting, AnAcquisitionDoesNotReplaceAPlainFileThatCameBefore) {
    const int plain = put("run1.raw", "plain");
    const auto later = holdContentOf(putPacked("run1.raw.vonk", {"run1.raw"}));
    const auto process = start(overwriting());
    ASSERT_TRUE(hasCome("run1.raw", "plain"));
    later->release();
    expectRefused(Client::finish(*process), plain);
    EXPECT_EQ(local("run1.raw"), "plain");
    // Neither does the next run settle it in silence, where one of them is there already.
    const Outcome again = Client::finish(*start(overwriting()));
    EXPECT_EQ(again.exitCode, 14);
    EXPECT_EQ(failuresOf(again).size(), 1);
}

TEST_F(GetClashes, APlainFileDoesNotReplaceAnAcquisitionThatCameWhileItWasFetched) {
    const auto later = holdContentOf(put("run1.raw", "plain"));
    const int packed = putPacked("run1.raw.vonk", {"run1.raw"});
    writeOld("run1.raw");
    const auto process = start({"--if-exists", "overwrite"});
    later->waitUntilAnswered();
    ASSERT_TRUE(hasCome("run1.raw", "packed run1.raw"));
    later->release();
    expectRefused(Client::finish(*process), packed);
    EXPECT_EQ(local("run1.raw"), "packed run1.raw");
}

// Without the cache a file keeps its place from the beginning on.
TEST_F(GetClashes, AnAcquisitionWaitsForAPlainFileThatIsFetchedToItsPlace) {
    const int plain = put("run1.raw", "plain");
    const auto first = holdContentOf(plain);
    const auto packed = holdContentOf(putPacked("run1.raw.vonk", {"run1.raw"}));
    writeOld("run1.raw");
    const auto process = start({"--if-exists", "overwrite", "--no-cache"});
    first->waitUntilAnswered();
    packed->release();
    EXPECT_EQ(local("run1.raw"), "old");
    first->release();
    expectRefused(Client::finish(*process), plain);
    EXPECT_EQ(local("run1.raw"), "plain");
}

TEST_P(GetClashesOverwriting, EveryEntryOfAnAcquisitionThatIsOfTheSameRunCounts) {
    const int plain = put("b.bin", "plain");
    const auto later = holdContentOf(putPacked("run.vonk", {"a.bin", "b.bin", "c.bin"}));
    writeOld("a.bin");
    writeOld("c.bin");
    const auto process = start(overwriting());
    ASSERT_TRUE(hasCome("b.bin", "plain"));
    later->release();
    expectRefused(Client::finish(*process), plain);
    EXPECT_EQ(local("a.bin"), "old");
    EXPECT_EQ(local("b.bin"), "plain");
    EXPECT_EQ(local("c.bin"), "old");
}

TEST_F(GetClashes, TwoFilesThatAreToHaveTheSameFreeNameGetTwo) {
    put("a.txt", "content of a");
    const auto second = holdContentOf(put("a (2).txt", "content of a (2)"));
    writeOld("a.txt");
    const auto process = start({"--no-cache", "--if-exists", "rename"});
    ASSERT_TRUE(waitUntil(
        [&] { return second->isAnswered() || QFileInfo::exists(client.path("out/mixed/a (2).txt")); }));
    second->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.out.constData();
    EXPECT_EQ(local("a.txt"), "old");
    QList<QByteArray> contents;
    for (const QString& name : client.filesIn("out/mixed"))
        contents << local(name);
    EXPECT_THAT(contents, ::testing::UnorderedElementsAre("old", "content of a", "content of a (2)"));
}

TEST_F(GetClashes, AQuestionNamesThePlainFileOfTheFolderThatIsInTheWay) {
    const int plain = put("run1.raw", "plain");
    const auto later = holdContentOf(putPacked("run1.raw.vonk", {"run1.raw"}));
    Terminal terminal(client, {"get", "/mixed", "--to", "out"});
    ASSERT_TRUE(hasCome("run1.raw", "plain"));
    later->release();
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("file:" + std::to_string(plain) + "@1 of this download"));
    // Who was shown it may say so.
    terminal.type("o\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("run1.raw"), "packed run1.raw");
}

TEST_F(GetClashes, AQuestionNamesTheFileThatGotItsNameByAnAnswer) {
    const int renamed = put("a.txt", "content of a");
    const auto later = holdContentOf(put("a (2).txt", "content of a (2)"));
    writeOld("a.txt");
    Terminal terminal(client, {"get", "/mixed", "--to", "out"});
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    terminal.type("r\n");
    ASSERT_TRUE(hasCome("a (2).txt", "content of a"));
    later->release();
    ASSERT_TRUE(terminal.waitFor(question)) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("file:" + std::to_string(renamed) + "@1 of this download"));
    terminal.type("s\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_EQ(local("a (2).txt"), "content of a");
}

//! The folder /mixed/run1.d with the file "notes", and run1.d.vonk, which unfolds to run1.d.
class GetUnfolding : public GetClashes {
protected:
    void SetUp() override {
        GetClashes::SetUp();
        client.mustRun({"mkdir", "/mixed/run1.d"});
        const QString notes = client.makeFile("notes", "notes");
        client.mustRun({"put", "--no-cache", notes, "--to", "/mixed/run1.d"});
        packed = putPackedDirectory("run1.d");
        ASSERT_TRUE(QFile::remove(notes));
    }
    static void expectNotMerged(const Outcome& outcome, const QStringList& named) {
        EXPECT_EQ(outcome.exitCode, 14) << outcome.out.constData();
        const QList<QJsonObject> failures = failuresOf(outcome);
        ASSERT_EQ(failures.size(), 1);
        const QString message = failures[0]["message"].toString();
        EXPECT_THAT(message.toStdString(), HasSubstr("nothing is merged"));
        for (const QString& name : named)
            EXPECT_TRUE(message.contains(name)) << message.toStdString();
    }

    int packed = 0;
};

TEST_F(GetUnfolding, AnAcquisitionIsNotMergedWithAFolderBesideIt) {
    for (const QString policy : {"overwrite", "rename", "skip", "fail"}) {
        const Outcome outcome = Client::finish(*start({"--if-exists", policy}));
        expectNotMerged(outcome, {"\"run1.d.vonk\"", "out/mixed/run1.d\"", "folder:3"});
        EXPECT_EQ(client.filesIn("out/mixed"), QStringList{"run1.d"});
        EXPECT_EQ(client.filesIn("out/mixed/run1.d"), QStringList{"notes"});
    }
}

TEST_F(GetUnfolding, OfTwoThatAreAskedForTheLaterOneFails) {
    const QString folder = "/mixed/run1.d";
    const QString file = "/mixed/run1.d.vonk";
    expectNotMerged(client.run({"--json", "get", folder, file, "--to", "one", "--if-exists", "overwrite"}),
                    {"run1.d.vonk", "one/run1.d\"", "folder:3"});
    EXPECT_EQ(client.filesIn("one/run1.d"), QStringList{"notes"});
    // What an earlier run brought is of this one too when it stays.
    for (int run = 0; run < 2; ++run) {
        expectNotMerged(
            client.run({"--json", "get", file, folder, "--to", "other", "--if-exists", "overwrite"}),
            {folder, "other/run1.d\"", QString("file:%1@1").arg(packed)});
        EXPECT_EQ(client.filesIn("other/run1.d"), QStringList{"acqu"});
    }
}

} // namespace
} // namespace orx::testing
