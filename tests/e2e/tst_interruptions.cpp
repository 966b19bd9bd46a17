// Transfers that are interrupted in every way: the next run goes on where the last one stopped, and exactly
// one version comes of it.
#include "Client.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <csignal>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

// Small chunks keep the files small.
constexpr qint64 chunkSize = 512 * 1024;
constexpr int chunkCount = 5;
const std::string chunkPath = ".*/chunks/[0-9]+";
const std::string finalizePath = ".*/uploads/finalize";
const std::string contentPath = ".*/content";

FaultProxy::Match chunk(int index) {
    return {"PUT", ".*/chunks/" + std::to_string(index), 0, 1};
}

class Interruptions : public ::testing::Test {
protected:
    void SetUp() override {
        server.setArguments({"--chunk-size", QString::number(chunkSize)});
        ASSERT_TRUE(server.start());
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
        client.mustRun({"mkdir", "/raw"});
        file = client.makeLargeFile("run.mzML", (chunkCount - 1) * chunkSize + 4321);
    }

    int chunksSent() const { return proxy->traffic("PUT", chunkPath).requests; }
    QList<QJsonObject> listing() { return client.mustRun({"--json", "ls", "/raw"}).objects(); }

    void expectContent(const QString& reference) {
        client.mustRun(
            {"get", "--no-cache", reference, "--to", client.path("back"), "--if-exists", "overwrite"});
        EXPECT_TRUE(Client::contentOf(client.path("back")) == Client::contentOf(file));
    }

    RealServer server;
    std::unique_ptr<FaultProxy> proxy;
    Client client;
    QString file;
};

// The same interruption of each kind of put.
class InterruptedPut : public Interruptions, public ::testing::WithParamInterface<QStringList> {
protected:
    void SetUp() override {
        Interruptions::SetUp();
        if (!isNewVersion())
            return;
        const QByteArray content = Client::contentOf(file);
        client.makeFile("run.mzML", "version 1");
        client.mustRun({"put", file, "--to", "/raw"});
        client.makeFile("run.mzML", content);
    }

    bool isNewVersion() const { return GetParam().contains("--new-version"); }
    QStringList command() const { return QStringList{"--json", "put", file, "--to", "/raw"} + GetParam(); }

    // Starts a put and returns once the server has four of the five chunks and the client waits for two
    // replies.
    std::unique_ptr<QProcess> startAndHoldChunks() {
        const auto third = proxy->holdReply(chunk(2));
        const auto fourth = proxy->holdReply(chunk(3));
        sentBefore = chunksSent();
        auto process = client.start(command());
        third->waitUntilAnswered();
        fourth->waitUntilAnswered();
        held = {third, fourth};
        return process;
    }

    void dropHeld() {
        for (const auto& hold : held)
            hold->drop();
    }

    // The next run of the same command ends well after sending so many chunks, and one version is the result.
    QJsonObject expectResumed(int chunks, const QString& outcome) {
        const int before = chunksSent();
        const QJsonObject uploaded = client.mustRun(command()).object();
        EXPECT_EQ(chunksSent() - before, chunks);
        EXPECT_EQ(uploaded["outcome"].toString(), outcome);
        expectOneNewVersion(uploaded);
        return uploaded;
    }

    void expectOneNewVersion(const QJsonObject& uploaded) {
        const int version = isNewVersion() ? 2 : 1;
        EXPECT_EQ(uploaded["version"].toInt(), version);
        EXPECT_EQ(uploaded["sha256"].toString(), sha256Of(Client::contentOf(file)));
        const QList<QJsonObject> files = listing();
        ASSERT_EQ(files.size(), 1);
        EXPECT_EQ(files[0]["version"].toInt(), version);
        EXPECT_EQ(files[0]["id"].toInt(), uploaded["id"].toInt());
        expectContent("/raw/run.mzML");
    }

    // A put that is meant makes another file or version, as ever.
    void expectDeliberatePutCounts() {
        const QJsonObject again = client.mustRun(command()).object();
        EXPECT_EQ(again["version"].toInt(), isNewVersion() ? 3 : 1);
        EXPECT_EQ(listing().size(), isNewVersion() ? 1 : 2);
    }

    QList<std::shared_ptr<FaultProxy::Hold>> held;
    int sentBefore = 0;
};

TEST_P(InterruptedPut, TheServerIsKilledDuringTheChunks) {
    const auto process = startAndHoldChunks();
    server.kill();
    dropHeld();
    const Outcome failed = Client::finish(*process);
    EXPECT_EQ(failed.exitCode, 10) << failed.err.constData();
    EXPECT_THAT(failed.err.toStdString(), HasSubstr("Run the same command again"));
    ASSERT_TRUE(server.start());
    expectResumed(1, "uploaded");
    expectDeliberatePutCounts();
}

TEST_P(InterruptedPut, TheServerComesBackWhileTheClientTriesAgain) {
    const auto process = startAndHoldChunks();
    server.kill();
    ASSERT_TRUE(server.start());
    dropHeld();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    expectOneNewVersion(outcome.object());
}

TEST_P(InterruptedPut, TheClientIsKilledDuringTheChunks) {
    const auto process = startAndHoldChunks();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    dropHeld();
    expectResumed(1, "uploaded");
    expectDeliberatePutCounts();
}

TEST_P(InterruptedPut, TheServerIsKilledBetweenFinalisationAndItsReply) {
    const auto hold = proxy->holdReply({"POST", finalizePath});
    const auto process = client.start(command());
    hold->waitUntilAnswered();
    server.kill();
    hold->drop();
    EXPECT_EQ(Client::finish(*process).exitCode, 10);
    ASSERT_TRUE(server.start());
    expectResumed(0, "found");
    expectDeliberatePutCounts();
}

TEST_P(InterruptedPut, TheClientIsKilledBeforeItReadsTheResult) {
    const auto hold = proxy->holdReply({"POST", finalizePath});
    const auto process = client.start(command());
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    expectResumed(0, "found");
    expectDeliberatePutCounts();
}

TEST_P(InterruptedPut, TheReplyToTheFinalisationIsLost) {
    proxy->dropAfterForwarding({"POST", finalizePath});
    const Outcome outcome = client.run(command());
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    expectOneNewVersion(outcome.object());
}

TEST_P(InterruptedPut, CtrlCSaysHowToGoOn) {
    const auto process = startAndHoldChunks();
    ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
    const Outcome interrupted = Client::finish(*process);
    dropHeld();
    EXPECT_EQ(interrupted.exitCode, 130);
    EXPECT_THAT(interrupted.err.toStdString(), HasSubstr("Run the same command again"));
    EXPECT_EQ(interrupted.object()["error"], "Canceled");
    expectResumed(1, "uploaded");
}

TEST_P(InterruptedPut, TheLoginEndsMeanwhile) {
    const auto process = startAndHoldChunks();
    client.mustRun({"logout"});
    for (const auto& hold : held)
        hold->release();
    const Outcome failed = Client::finish(*process);
    EXPECT_EQ(failed.exitCode, 5);
    EXPECT_THAT(failed.err.toStdString(), HasSubstr("halvane login"));
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
    expectResumed(1, "uploaded");
}

TEST_P(InterruptedPut, AChangedFileStartsAfresh) {
    const auto process = startAndHoldChunks();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    dropHeld();
    client.makeLargeFile("run.mzML", (chunkCount - 1) * chunkSize + 4321, 99);
    expectResumed(chunkCount, "uploaded");
}

INSTANTIATE_TEST_SUITE_P(Put, InterruptedPut,
                         ::testing::Values(QStringList{}, QStringList{"--new-version"},
                                           QStringList{"--new-version", "--check-version"}),
                         [](const auto& parameters) {
                             const QStringList& options = parameters.param;
                             return std::string(options.isEmpty()     ? "NewFile"
                                                : options.size() == 1 ? "NewVersion"
                                                                      : "NewVersionChecked");
                         });

// The file is looked for by another name than its own; the first run made it, and the second one must not
// take it for an older version.
TEST_F(Interruptions, APutUnderAnotherNameIsFoundAgain) {
    const QStringList command{"--json", "put", file, "--to", "/raw", "--as", "first.mzML", "--new-version"};
    for (const int version : {1, 2}) {
        SCOPED_TRACE(version);
        file = client.makeLargeFile("run.mzML", 2 * chunkSize, unsigned(version));
        const auto hold = proxy->holdReply({"POST", finalizePath});
        const auto process = client.start(command);
        hold->waitUntilAnswered();
        process->kill();
        ASSERT_TRUE(process->waitForFinished());
        hold->drop();
        const QJsonObject found = client.mustRun(command).object();
        EXPECT_EQ(found["outcome"], "found");
        EXPECT_EQ(found["version"], version);
        const QList<QJsonObject> files = listing();
        ASSERT_EQ(files.size(), 1);
        EXPECT_EQ(files[0]["version"], version);
        const Outcome kept = client.mustRun({"cache", "path", QString("file:1@%1").arg(version)});
        EXPECT_TRUE(Client::contentOf(QString::fromUtf8(kept.out).trimmed()) == Client::contentOf(file))
            << "what the killed run could not put into the cache";
    }
}

TEST_F(Interruptions, WhatIsFoundAgainIsKeptInTheCacheOnlyAsItWasSent) {
    const auto setTime = [this] {
        QFile opened(file);
        ASSERT_TRUE(opened.open(QIODevice::ReadWrite));
        ASSERT_TRUE(opened.setFileTime(QDateTime::fromSecsSinceEpoch(1'700'000'000),
                                       QFileDevice::FileModificationTime));
    };
    file = client.makeLargeFile("run.mzML", 2 * chunkSize, 1);
    setTime();
    const QStringList command{"--json", "put", file, "--to", "/raw"};
    const auto hold = proxy->holdReply({"POST", finalizePath});
    const auto process = client.start(command);
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    client.makeLargeFile("run.mzML", 2 * chunkSize, 2);
    setTime();
    const Outcome found = client.mustRun(command);
    EXPECT_EQ(found.object()["outcome"], "found");
    EXPECT_THAT(found.err.toStdString(), HasSubstr("no copy of it is in the cache"));
    EXPECT_EQ(client.mustRun({"--json", "cache", "ls"}).objects(), QList<QJsonObject>());
}

// Nobody is told that the file is not there. Only where metadata are missing, another run goes on.
TEST_F(Interruptions, WhatStopsAPutAfterItsVersionIsMadeSaysThatTheFileIsThere) {
    const QStringList command{"--json", "put", file, "--to", "/raw", "--metadata", "operator=anna"};
    const auto onceMore = HasSubstr("un the same command again");
    // The first two are of one file: the second run attaches its metadata.
    for (const FaultProxy::Match& last :
         {FaultProxy::Match{"PUT", ".*/extended-metadata"}, FaultProxy::Match{"GET", ".*/files/[0-9]+", 1}}) {
        const auto hold = proxy->holdReply(last);
        const auto process = client.start(command);
        hold->waitUntilAnswered();
        ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
        const Outcome interrupted = Client::finish(*process);
        hold->drop();
        EXPECT_EQ(interrupted.exitCode, 130);
        EXPECT_THAT(interrupted.err.toStdString(), HasSubstr("is on the server as file:"));
        if (last.method == "PUT")
            EXPECT_THAT(interrupted.err.toStdString(), onceMore);
        else
            EXPECT_THAT(interrupted.err.toStdString(), Not(onceMore));
        EXPECT_EQ(listing().size(), 1);
    }
    proxy->replaceReply({"PUT", ".*/extended-metadata", 0, -1}, 200, "text/html", "<html>Maintenance</html>");
    const Outcome failed = client.run(command);
    EXPECT_EQ(failed.exitCode, 11) << failed.err.constData();
    EXPECT_THAT(failed.err.toStdString(), HasSubstr("is on the server as file:"));
    EXPECT_THAT(failed.err.toStdString(), onceMore);
    EXPECT_EQ(listing().size(), 2);
    proxy->clearRules();
    EXPECT_EQ(client.mustRun(command).object()["outcome"], "found");
    EXPECT_EQ(listing().size(), 2);
}

TEST_P(InterruptedPut, TheClientIsKilledBeforeTheMetadataAreAttached) {
    const QStringList withMetadata = command() + QStringList{"--metadata", "operator=anna"};
    const FaultProxy::Match attach{"PUT", ".*/extended-metadata", 0, -1};
    for (const int run : {1, 2}) {
        SCOPED_TRACE(run);
        const int before = proxy->traffic(attach.method, attach.path).requests;
        proxy->dropBeforeForwarding(attach);
        const auto process = client.start(withMetadata);
        proxy->waitForTraffic(attach.method, attach.path,
                              [before](const auto& traffic) { return traffic.requests > before; });
        process->kill();
        ASSERT_TRUE(process->waitForFinished());
    }
    proxy->clearRules();
    ASSERT_EQ(proxy->traffic(attach.method, attach.path).replies, 0);
    const QJsonObject found = client.mustRun(withMetadata).object();
    EXPECT_EQ(found["outcome"], "found");
    expectOneNewVersion(found);
    EXPECT_EQ(proxy
                  ->traffic(attach.method, ".*/files/" + found["id"].toVariant().toString().toStdString() +
                                               "/extended-metadata")
                  .replies,
              1);
    expectDeliberatePutCounts();
}

// What was put last is what counts, also when it was there once.
TEST_F(Interruptions, AnOldVersionThatIsPutBackIsANewOne) {
    const QStringList command{"--json", "put", file, "--to", "/raw", "--new-version"};
    const auto hold = proxy->holdReply({"POST", finalizePath});
    const auto process = client.start(command);
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    ASSERT_TRUE(QFile::rename(file, client.path("old")));
    client.makeFile("run.mzML", "edited");
    EXPECT_EQ(client.mustRun(command).object()["version"], 2);
    ASSERT_TRUE(QFile::remove(file));
    ASSERT_TRUE(QFile::rename(client.path("old"), file));
    const QJsonObject restored = client.mustRun(command).object();
    EXPECT_EQ(restored["outcome"], "uploaded");
    EXPECT_EQ(restored["version"], 3);
    expectContent("/raw/run.mzML");
}

TEST_F(Interruptions, AFileThatChangesWhileItIsSentIsRefused) {
    // Longer than what is read ahead while two requests wait.
    const qint64 size = 20 * chunkSize;
    for (const qint64 newSize : {size + 1, size - 1, 6 * chunkSize, size}) {
        SCOPED_TRACE(newSize);
        file = client.makeLargeFile("run.mzML", size);
        const auto first = proxy->holdReply(chunk(0));
        const auto second = proxy->holdReply(chunk(1));
        const auto process = client.start({"--json", "put", file, "--to", "/raw"});
        first->waitUntilAnswered();
        second->waitUntilAnswered();
        if (newSize == size)
            client.makeLargeFile("run.mzML", size, 99);
        else
            ASSERT_TRUE(QFile::resize(file, newSize));
        first->release();
        second->release();
        const Outcome outcome = Client::finish(*process);
        EXPECT_EQ(outcome.exitCode, 13) << outcome.err.constData();
        EXPECT_EQ(outcome.object()["error"], "FileChanged");
        EXPECT_EQ(listing().size(), 0);
        EXPECT_EQ(proxy->traffic("POST", finalizePath).requests, 0);
    }
    client.mustRun({"put", file, "--to", "/raw"});
    expectContent("/raw/run.mzML");
}

TEST_F(Interruptions, TwoPutsAtATimeAreTwoPuts) {
    const auto hold = proxy->holdReply(chunk(2));
    const auto first = client.start({"--json", "put", file, "--to", "/raw"});
    hold->waitUntilAnswered();
    // The first one lives and works on its upload, so that the second has one of its own.
    const QJsonObject second = client.mustRun({"--json", "put", file, "--to", "/raw"}).object();
    EXPECT_EQ(second["outcome"], "uploaded");
    hold->release();
    const Outcome outcome = Client::finish(*first);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_NE(outcome.object()["id"].toInt(), second["id"].toInt());
    EXPECT_EQ(listing().size(), 2);
}

TEST_F(Interruptions, ABrokenConnectionInAChunkIsMendedByItself) {
    proxy->cutRequestBody(chunk(1), 100'000);
    proxy->dropAfterForwarding(chunk(3));
    const QJsonObject uploaded = client.mustRun({"--json", "put", file, "--to", "/raw"}).object();
    EXPECT_EQ(uploaded["version"], 1);
    EXPECT_EQ(chunksSent(), chunkCount + 2);
    expectContent("/raw/run.mzML");
}

TEST_F(Interruptions, ADamagedChunkNeverCounts) {
    proxy->corruptRequestBody(chunk(1), 400'000);
    Outcome outcome = client.run({"--json", "put", file, "--to", "/raw"});
    if (outcome.exitCode != 0) {
        EXPECT_EQ(outcome.exitCode, 13) << outcome.err.constData();
        EXPECT_EQ(listing().size(), 0);
        outcome = client.mustRun({"--json", "put", file, "--to", "/raw"});
    }
    EXPECT_EQ(outcome.object()["sha256"].toString(), sha256Of(Client::contentOf(file)));
    EXPECT_EQ(listing().size(), 1);
    expectContent("/raw/run.mzML");
}

// Both ways: through the cache, and without it.
class InterruptedGet : public Interruptions, public ::testing::WithParamInterface<QStringList> {
protected:
    void SetUp() override {
        Interruptions::SetUp();
        client.mustRun({"put", "--no-cache", file, "--to", "/raw"});
        client.makeFile("back", "what was there");
    }

    QStringList command() const {
        return QStringList{"--json",      "get",      "/raw/run.mzML", "--to", client.path("back"),
                           "--if-exists", "overwrite"} +
               GetParam();
    }
};

INSTANTIATE_TEST_SUITE_P(Get, InterruptedGet, ::testing::Values(QStringList{}, QStringList{"--no-cache"}),
                         [](const auto& parameters) {
                             return std::string(parameters.param.isEmpty() ? "ThroughTheCache" : "Directly");
                         });

TEST_P(InterruptedGet, ADownloadGoesOnWhereItStopped) {
    proxy->cutReplyBody({"GET", contentPath, 0, -1}, 1'200'000);
    const QStringList get = command();
    const Outcome first = client.run(get);
    const quint64 received = proxy->traffic("GET", contentPath).replyBytes;
    proxy->clearRules();
    if (first.exitCode != 0) {
        EXPECT_EQ(first.exitCode, 10) << first.err.constData();
        EXPECT_EQ(Client::contentOf(client.path("back")), "what was there");
        const QJsonObject second = client.mustRun(get).object();
        EXPECT_EQ(second["outcome"], "downloaded");
        EXPECT_LT(proxy->traffic("GET", contentPath).replyBytes - received, quint64(QFileInfo(file).size()));
    }
    EXPECT_TRUE(Client::contentOf(client.path("back")) == Client::contentOf(file));
    EXPECT_EQ(client.filesIn(), (QStringList{"back", "run.mzML"}));
}

TEST_P(InterruptedGet, TheClientIsKilledDuringTheContent) {
    proxy->cutReplyBody({"GET", contentPath}, 1'200'000);
    const auto hold = proxy->holdReply({"GET", contentPath});
    const auto process = client.start(command());
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    EXPECT_EQ(Client::contentOf(client.path("back")), "what was there");
    const quint64 before = proxy->traffic("GET", contentPath).replyBytes;
    EXPECT_EQ(client.mustRun(command()).object()["outcome"], "downloaded");
    const quint64 fetched = proxy->traffic("GET", contentPath).replyBytes - before;
    EXPECT_GT(fetched, 0u);
    EXPECT_LE(fetched, quint64(QFileInfo(file).size() - 1'000'000));
    EXPECT_TRUE(Client::contentOf(client.path("back")) == Client::contentOf(file));
    EXPECT_EQ(client.filesIn(), (QStringList{"back", "run.mzML"}));
}

TEST_P(InterruptedGet, CtrlCEndsItAndSaysHowToGoOn) {
    const auto hold = proxy->holdReply({"GET", contentPath});
    const auto process = client.start(command());
    hold->waitUntilAnswered();
    ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
    const Outcome interrupted = Client::finish(*process);
    hold->drop();
    EXPECT_EQ(interrupted.exitCode, 130);
    EXPECT_EQ(interrupted.object()["error"], "Canceled");
    EXPECT_THAT(interrupted.err.toStdString(), HasSubstr("Run the same command again"));
    EXPECT_EQ(Client::contentOf(client.path("back")), "what was there");
    EXPECT_EQ(client.mustRun(command()).object()["outcome"], "downloaded");
}

TEST_P(InterruptedGet, ADamagedDownloadNeverReachesItsName) {
    proxy->corruptReplyBody({"GET", contentPath, 0, -1}, 1'234'567);
    const Outcome outcome = client.run(command());
    EXPECT_EQ(outcome.exitCode, 13) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["error"], "ChecksumMismatch");
    EXPECT_EQ(client.mustRun({"cache", "ls"}).out, "");
    EXPECT_EQ(Client::contentOf(client.path("back")), "what was there");
    EXPECT_EQ(client.filesIn(), (QStringList{"back", "run.mzML"}));
}

TEST_F(Interruptions, AServerThatTurnsIntoSomethingElse) {
    proxy->replaceReply({"POST", finalizePath, 0, -1}, 200, "text/html", "<html>Maintenance</html>");
    const Outcome outcome = client.run({"--json", "put", file, "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 11) << outcome.err.constData();
    proxy->clearRules();
    const QJsonObject uploaded = client.mustRun({"--json", "put", file, "--to", "/raw"}).object();
    EXPECT_EQ(uploaded["outcome"], "found");
    EXPECT_EQ(listing().size(), 1);
}

} // namespace
} // namespace orx::testing
