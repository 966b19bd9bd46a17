// Packing and unpacking that is interrupted, killed or watched: nothing half-made has a name that counts, and
// the same command does it afterwards.
#include "SmallWriter.h"
#include "StoppedRun.h"
#include "Terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <csignal>

namespace orx::testing {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

//! Takes longer to pack and unpack than a signal to arrive.
constexpr qint64 kLarge = qint64(48) * 1024 * 1024;

class PackedInterruptions : public ::testing::Test {
protected:
    void SetUp() override {
        raw = client.makeLargeFile("run1.raw", kLarge);
        QFile file(raw);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_GT(file.write(QByteArray::fromHex("01a15300630061006e007300")), 0);
        file.close();
        content = sha256Of(Client::contentOf(raw));
        ASSERT_TRUE(QDir().mkpath(client.path("out")));
    }
    void pack() const { client.mustRun({"pack", "run1.raw", "-o", "out"}); }
    QString vonk() const { return client.path("out/run1.raw.vonk"); }
    QString unpacked() const { return client.path("back/run1.raw"); }
    void removeUnpacked() const { QDir(client.path("back")).removeRecursively(); }
    void expectUnpackedWhole() const { EXPECT_EQ(sha256Of(Client::contentOf(unpacked())), content); }

    Client client;
    QString raw;
    QString content;
};

//! The directory in which what is unpacked into a new one is made.
QString besideBack(const Client& client) {
    return client.path({});
}

TEST_F(PackedInterruptions, CtrlCWhilePackingLeavesNothing) {
    StoppedRun run(client, {"--json", "pack", "run1.raw", "-o", "out"}, client.path("out"),
                   [this] { QFile::remove(vonk()); });
    ASSERT_TRUE(run.isStopped());
    EXPECT_FALSE(QFile::exists(vonk()));
    const Outcome outcome = run.goOnWith(SIGINT);
    EXPECT_EQ(outcome.exitCode, 130) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["error"], "Canceled");
    EXPECT_THAT(std::string(outcome.err), HasSubstr("Interrupted; nothing was made of \"run1.raw\"."));
    EXPECT_EQ(client.filesIn("out"), QStringList());
    pack();
    client.mustRun({"check", "--full", vonk()});
}

TEST_F(PackedInterruptions, AKilledPackingLeavesNoFileOfThatName) {
    StoppedRun run(client, {"pack", "run1.raw", "-o", "out"}, client.path("out"),
                   [this] { QFile::remove(vonk()); });
    ASSERT_TRUE(run.isStopped());
    EXPECT_FALSE(run.goOnWith(SIGKILL).ended);
    EXPECT_EQ(client.filesIn("out"), halfMadeIn(client.path("out")));
    pack();
    client.mustRun({"check", "--full", vonk()});
}

TEST_F(PackedInterruptions, CtrlCWhileUnpackingLeavesNothing) {
    pack();
    StoppedRun run(client, {"unpack", vonk(), "--to", "back"}, besideBack(client),
                   [this] { removeUnpacked(); });
    ASSERT_TRUE(run.isStopped());
    EXPECT_FALSE(QFile::exists(client.path("back")));
    const Outcome outcome = run.goOnWith(SIGINT);
    EXPECT_EQ(outcome.exitCode, 130) << outcome.err.constData();
    EXPECT_EQ(client.filesIn(), (QStringList{"out", "run1.raw"}));
    client.mustRun({"unpack", vonk(), "--to", "back"});
    expectUnpackedWhole();
}

TEST_F(PackedInterruptions, CtrlCWhileUnpackingIntoADirectoryLeavesWhatWasInIt) {
    pack();
    ASSERT_TRUE(QDir().mkpath(client.path("back")));
    client.makeFile("back/stays", "as it is");
    StoppedRun run(client, {"unpack", vonk(), "--to", "back"}, client.path("back"),
                   [this] { QFile::remove(unpacked()); });
    ASSERT_TRUE(run.isStopped());
    EXPECT_EQ(run.goOnWith(SIGTERM).exitCode, 130);
    EXPECT_EQ(client.filesIn("back"), QStringList{"stays"});
    client.mustRun({"unpack", vonk(), "--to", "back"});
    expectUnpackedWhole();
    EXPECT_EQ(client.filesIn("back"), (QStringList{"run1.raw", "stays"}));
}

TEST_F(PackedInterruptions, AKilledUnpackingLeavesNothingOfThatName) {
    pack();
    StoppedRun run(client, {"unpack", vonk(), "--to", "back"}, besideBack(client),
                   [this] { removeUnpacked(); });
    ASSERT_TRUE(run.isStopped());
    EXPECT_FALSE(run.goOnWith(SIGKILL).ended);
    EXPECT_FALSE(QFile::exists(client.path("back")));
    client.mustRun({"unpack", vonk(), "--to", "back"});
    expectUnpackedWhole();
}

TEST_F(PackedInterruptions, WhatTakesTheNameMeanwhileStays) {
    StoppedRun packing(client, {"pack", "run1.raw", "-o", "out"}, client.path("out"),
                       [this] { QFile::remove(vonk()); });
    ASSERT_TRUE(packing.isStopped());
    client.makeFile("out/run1.raw.vonk", "precious");
    EXPECT_EQ(packing.goOn().exitCode, 4);
    EXPECT_EQ(Client::contentOf(vonk()), "precious");
    EXPECT_EQ(client.filesIn("out"), QStringList{"run1.raw.vonk"});

    ASSERT_TRUE(QFile::remove(vonk()));
    pack();
    StoppedRun unpacking(client, {"unpack", vonk(), "--to", "back"}, besideBack(client),
                         [this] { removeUnpacked(); });
    ASSERT_TRUE(unpacking.isStopped());
    ASSERT_TRUE(QDir().mkpath(client.path("back")));
    client.makeFile("back/run1.raw", "precious");
    EXPECT_EQ(unpacking.goOn().exitCode, 4);
    EXPECT_EQ(Client::contentOf(unpacked()), "precious");
    EXPECT_EQ(client.filesIn("back"), QStringList{"run1.raw"});
    EXPECT_EQ(halfMadeIn(client.path({})), QStringList());
}

TEST_F(PackedInterruptions, DataThatChangesWhileItIsPackedIsNotPacked) {
    StoppedRun run(client, {"--json", "pack", "run1.raw", "-o", "out"}, client.path("out"),
                   [this] { QFile::remove(vonk()); });
    ASSERT_TRUE(run.isStopped());
    QFile file(raw);
    ASSERT_TRUE(file.open(QIODevice::Append));
    ASSERT_EQ(file.write("more"), 4);
    file.close();
    const Outcome outcome = run.goOn();
    EXPECT_EQ(outcome.exitCode, 13) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["error"], "FileChanged");
    EXPECT_THAT(std::string(outcome.err), HasSubstr("run1.raw\" changed while it was packed; pack it again"));
    EXPECT_EQ(client.filesIn("out"), QStringList());
}

TEST_F(PackedInterruptions, ProgressIsOneLineOnATerminal) {
    // Sparse: the disk has nothing to do, the processor for longer than the line takes to appear.
    QFile file(raw);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.resize(qint64(1) << 30));
    file.close();
    Terminal terminal(client, {"pack", "run1.raw", "-o", "out"});
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), ContainsRegex("\x1b\\[Kpacking run1.raw  [0-9]+ %  [0-9]+:[0-9]+ left"));
    EXPECT_THAT(terminal.seen(), HasSubstr("out/run1.raw.vonk, 1 file, 1.0 GiB to "));
    EXPECT_EQ(std::count(terminal.seen().begin(), terminal.seen().end(), '\n'), 1);
}

TEST_F(PackedInterruptions, AnUpgradeThatIsInterruptedOrKilledLeavesTheOldFile) {
    vonk::SmallWriter writer(1);
    writer.addFile("content/run1.raw", Client::contentOf(raw));
    writer.finish();
    const QByteArray old = writer.bytes();
    client.makeFile("out/old.vonk", old);
    const auto restore = [&] { client.makeFile("out/old.vonk", old); };
    for (const int signal : {SIGINT, SIGKILL}) {
        StoppedRun run(client, {"upgrade", "out/old.vonk"}, client.path("out"), restore);
        ASSERT_TRUE(run.isStopped());
        const Outcome outcome = run.goOnWith(signal);
        EXPECT_EQ(outcome.ended, signal == SIGINT);
        EXPECT_TRUE(signal == SIGKILL || outcome.exitCode == 130) << outcome.exitCode;
        EXPECT_EQ(halfMadeIn(client.path("out")).isEmpty(), signal == SIGINT);
        EXPECT_TRUE(Client::contentOf(client.path("out/old.vonk")) == old);
    }
    client.mustRun({"upgrade", "out/old.vonk"});
    EXPECT_EQ(client.mustRun({"--json", "check", "--full", "out/old.vonk"}).object()["format_version"],
              "2.0");
}

} // namespace
} // namespace orx::testing
