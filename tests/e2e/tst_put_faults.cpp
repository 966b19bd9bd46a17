// Things go wrong in the middle of a put: what was acknowledged is there once, what was not is told with its
// reason, and the same command with --retry completes the tree.
#include "Terminal.h"
#include "UploadTrees.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>

#include <QDir>
#include <QFile>

#include <csignal>

#include <sys/resource.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

constexpr int chunkSize = 1'000;

class PutTree : public UploadTrees {
protected:
    static constexpr int Files = 21;

    void SetUp() override {
        server.setArguments({"--chunk-size", QString::number(chunkSize)});
        UploadTrees::SetUp();
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
        for (int i = 0; i < Files - 1; ++i)
            write(QStringLiteral("2026/sub%1/f%2.txt").arg(i % 3).arg(i), "content " + QByteArray::number(i));
        write(big, QByteArray(chunkSize, 'a') + QByteArray(chunkSize, 'b') + QByteArray(chunkSize, 'c'));
    }
    //! A run of which a reply is held, when all others that could be done are.
    std::unique_ptr<QProcess> startAndHold(const FaultProxy::Match& match) {
        hold = proxy->holdReply(match);
        auto process = client.start(QStringList{"--json"} + putting());
        hold->waitUntilAnswered();
        proxy->waitForTraffic("POST", ".*/uploads/finalize",
                              [](const FaultProxy::Traffic& made) { return made.replies >= Files - 1; });
        return process;
    }
    QStringList putting() const { return QStringList{"put", "2026", "--to", "/raw"} + options; }
    //! Each file is uploaded, failed, not tried or was there, and nobody lost one.
    static void expectAllTold(const Outcome& outcome) {
        const QJsonObject folder = ofType(outcome, "folder").value(0);
        EXPECT_EQ(folder["files"], Files) << outcome.out.constData();
        EXPECT_EQ(folder["unexplained"], 0);
        EXPECT_EQ(folder["uploaded"].toInt() + folder["unchanged"].toInt() + folder["failed"].toInt() +
                      folder["not_tried"].toInt(),
                  Files);
    }
    QStringList expectedOnServer() const {
        QStringList expected{"/raw/2026/", "/raw/2026/sub0/", "/raw/2026/sub1/", "/raw/2026/sub2/",
                             "/raw/" + big + "@1"};
        for (int i = 0; i < Files - 1; ++i)
            expected.append(QStringLiteral("/raw/2026/sub%1/f%2.txt@1").arg(i % 3).arg(i));
        expected.sort();
        return expected;
    }
    //! Everything is there once after a retry, and a further run changes nothing.
    void expectCompletedByARetry() {
        proxy->clearRules();
        const Outcome retry = put({"2026", "--to", "/raw", "--keep-going", "--retry"});
        EXPECT_EQ(retry.exitCode, 0) << retry.err.constData();
        expectAllTold(retry);
        EXPECT_EQ(onServer("/raw"), expectedOnServer());
        EXPECT_EQ(contentOnServer("/raw/" + big), Client::contentOf(client.path(big)));
        server.clearRequests();
        EXPECT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
        EXPECT_EQ(changes(), QStringList());
    }
    int folderId(const QString& path) const {
        for (const QJsonObject& item : client.mustRun({"--json", "ls", path.section('/', 0, -2)}).objects()) {
            if (item["name"] == path.section('/', -1))
                return item["id"].toInt();
        }
        ADD_FAILURE() << path.toStdString() << " is not there";
        return -1;
    }
    void removeFolder(const QString& path) {
        server.admin({"folder", "remove", "--folder", QString::number(folderId(path))});
    }

    const QString big = "2026/sub0/big.bin";
    QStringList options;
    std::unique_ptr<FaultProxy> proxy;
    std::shared_ptr<FaultProxy::Hold> hold;
};

//! With and without --keep-going: of one failure at the end the outcome is the same.
class PutFaults : public PutTree, public ::testing::WithParamInterface<bool> {
protected:
    PutFaults() {
        if (GetParam())
            options.append("--keep-going");
    }
};
INSTANTIATE_TEST_SUITE_P(KeepGoing, PutFaults, ::testing::Bool(),
                         [](const auto& keepGoing) { return keepGoing.param ? "Yes" : "No"; });

TEST_P(PutFaults, AServerThatIsKilledAndComesBack) {
    for (const char* const held : {".*/chunks/1", ".*/uploads/finalize"}) {
        const int files = held == std::string(".*/chunks/1") ? Files - 1 : 1;
        hold = proxy->holdReply({"", held, 0, 1});
        const auto process = client.start(QStringList{"--json"} + putting());
        hold->waitUntilAnswered();
        proxy->waitForTraffic("POST", ".*/uploads/finalize",
                              [&](const FaultProxy::Traffic& made) { return made.replies >= files; });
        server.kill();
        hold->drop();
        ASSERT_TRUE(server.start());
        // The attempts of a request may end before a slow machine has the server up again.
        const Outcome outcome = Client::finish(*process);
        EXPECT_TRUE(outcome.ended);
        expectAllTold(outcome);
        expectCompletedByARetry();
        removeFolder("/raw/2026");
    }
}

TEST_P(PutFaults, AClientThatIsKilledWhileAChunkIsSent) {
    const auto process = startAndHold({"PUT", ".*/chunks/1", 0, 1});
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    expectCompletedByARetry();
}

TEST_P(PutFaults, ALoginThatIsRevokedMeanwhile) {
    const auto process = startAndHold({"PUT", ".*/chunks/1", 0, 1});
    client.mustRun({"logout"});
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"sub0/big.bin", "NotAuthenticated"}}));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("halvane login"));
    expectAllTold(outcome);
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
    expectCompletedByARetry();
}

// A limit on the size of files stands for a full disk: both fail the write.
TEST_P(PutFaults, AServerWithoutRoom) {
    write(big, QByteArray(10'000'000, 'x'));
    ASSERT_TRUE(server.stop());
    server.setArguments({"--chunk-size", "1000000"});
    ASSERT_TRUE(server.start());
    const rlimit small{8'000'000, RLIM_INFINITY}; // the catalogue stays below it
    ASSERT_EQ(::prlimit(pid_t(server.processId()), RLIMIT_FSIZE, &small, nullptr), 0);
    const Outcome outcome = client.run(QStringList{"--json"} + putting());
    EXPECT_NE(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"sub0/big.bin", "StorageFull"}}));
    expectAllTold(outcome);
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(pid_t(server.processId()), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    expectCompletedByARetry();
}

TEST_P(PutFaults, AFolderThatIsRemovedMeanwhile) {
    const auto process = startAndHold({"PUT", ".*/chunks/1", 0, 1});
    removeFolder("/raw/2026/sub0");
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"sub0/big.bin", "NotFound"}}));
    expectAllTold(outcome);
    expectCompletedByARetry();
}

TEST_P(PutFaults, AFileThatChangesWhileItIsSent) {
    const auto process = startAndHold({"PUT", ".*/chunks/1", 0, 1});
    write(big, "another content, and shorter");
    hold->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"sub0/big.bin", "FileChanged"}}));
    expectAllTold(outcome);
    expectCompletedByARetry();
}

// The next run finds the content there and sends nothing; the journal's record is of use to who puts that
// very file once more.
TEST_F(PutTree, AVersionOfWhichNobodyHeardIsNotMadeTwice) {
    hold = proxy->holdReply({"POST", ".*/uploads/finalize", 0, 1});
    const auto process = client.start({"put", "2026/sub0/f0.txt", "2026/sub1", "--to", "/raw"});
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    const QStringList sources{"2026/sub0/f0.txt", "2026/sub1", "--to", "/raw"};
    ASSERT_EQ(put(sources).exitCode, 0);
    const QStringList whole = onServer("/raw");
    EXPECT_EQ(whole.filter("@1").size(), 8);
    EXPECT_EQ(whole.filter("@").size(), 8);
    server.clearRequests();
    ASSERT_EQ(put(sources).exitCode, 0);
    EXPECT_EQ(changes(), QStringList());
    // What is put then is what it says: a later content is one more version, and an old one another.
    write("2026/sub0/f0.txt", "a later content");
    ASSERT_EQ(put(sources).exitCode, 0);
    write("2026/sub0/f0.txt", "content 0");
    ASSERT_EQ(put(sources).exitCode, 0);
    EXPECT_EQ(onServer("/raw").filter("f0.txt"), QStringList{"/raw/f0.txt@3"});
    EXPECT_EQ(contentOnServer("/raw/f0.txt"), "content 0");
}

TEST_F(PutTree, WhatARunFoundThereIsFoundOnceMoreByWhoPutsTheFileAlone) {
    write("one/f.txt", "content");
    hold = proxy->holdReply({"POST", ".*/uploads/finalize", 0, 1});
    const auto process = client.start({"put", "one", "--to", "/raw"});
    hold->waitUntilAnswered();
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    hold->drop();
    EXPECT_EQ(outcomes(put({"one", "--to", "/raw"}), "one").value("f.txt"), "unchanged");
    const QStringList alone{"one/f.txt", "--to", "/raw/one"};
    EXPECT_EQ(put(alone).object()["outcome"], "found");
    EXPECT_EQ(onServer("/raw/one"), QStringList{"/raw/one/f.txt@1"});
    EXPECT_EQ(put(alone).object()["outcome"], "uploaded") << "whoever asks for a second one gets it";
}

// ---- what it costs

class PutTraffic : public UploadTrees {};

TEST_F(PutTraffic, ManyFilesPutIntoOneFolderCostItsListingOnce) {
    constexpr int count = 60;
    constexpr int there = 40;
    QStringList files;
    for (int i = 0; i < there; ++i)
        write(QStringLiteral("raw/there %1.txt").arg(i), QByteArray::number(i));
    ASSERT_EQ(put({"raw", "--to", "/"}).exitCode, 0);
    for (int i = 0; i < count; ++i)
        files.append(write(QStringLiteral("run %1.txt").arg(i), "content " + QByteArray::number(i)));
    server.clearRequests();
    ASSERT_EQ(put(files + QStringList{"--to", "/raw"}).exitCode, 0);
    int whole = 0;
    qint64 bytes = 0;
    for (const RealServer::Request& request : server.requests()) {
        if (request.method != "GET" || !request.path.endsWith("/files"))
            continue;
        whole += request.status == 200;
        bytes += request.bytesOut;
    }
    EXPECT_LE(whole, 1);
    // Of the files that were made meanwhile each answer tells those since the one before; some are under way
    // side by side.
    EXPECT_LT(bytes, 500 * (there + 20 * count)) << "and never all of them for each";
    EXPECT_EQ(onServer("/raw").size(), there + count);
}

// ---- what is seen of it

TEST_F(PutTree, TheLineOnATerminalTellsFilesBytesAndWhatRuns) {
    hold = proxy->holdReply({"PUT", ".*/chunks/1", 0, 1});
    Terminal terminal(client, {"put", "2026", "--to", "/raw"});
    EXPECT_TRUE(terminal.waitFor("2026  20 of 21 files  ")) << terminal.seen();
    EXPECT_TRUE(terminal.waitFor(" %  ")) << terminal.seen();
    EXPECT_TRUE(terminal.waitFor(" of 3.1 KiB")) << terminal.seen();
    EXPECT_TRUE(terminal.waitFor("big.bin")) << terminal.seen();
    hold->release();
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("-> folder:"));
    EXPECT_THAT(terminal.seen(), HasSubstr("21 files, 21 uploaded"));
}

} // namespace
} // namespace orx::testing
