// The client's disk is full in the middle of a put: what could not go up is told, what could is there once,
// and the same command completes the tree when there is room.
#include "MountedVolume.h"
#include "UploadTrees.h"

#include <gmock/gmock.h>

#include <QDir>
#include <QFile>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class PutFromAFullDisk : public UploadTrees, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        disk = MountedVolume::tmpfs(8);
        ASSERT_TRUE(disk);
        for (int i = 0; i < plain; ++i)
            write(QStringLiteral("2026/sub%1/f%2.txt").arg(i % 2).arg(i), "content " + QByteArray::number(i));
    }
    QStringList putting(const QString& more = {}) const {
        QStringList arguments{"2026", "--to", "/raw"};
        if (GetParam())
            arguments.append("--keep-going");
        if (!more.isEmpty())
            arguments.append(more);
        return arguments;
    }
    //! Until nothing more fits.
    void fill() const {
        QFile filler(disk->path() + "/filler");
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        for (const int size : {65'536, 4'096, 1}) {
            while (filler.write(QByteArray(size, 'x')) == size) {
            }
        }
    }
    void makeRoom() const { ASSERT_TRUE(QFile::remove(disk->path() + "/filler")); }
    //! Each file is uploaded, failed or not tried, and what was acknowledged is there once.
    void expectAllTold(const Outcome& outcome, int files) const {
        const QJsonObject folder = ofType(outcome, "folder").value(0);
        EXPECT_EQ(folder["files"], files) << outcome.out.constData();
        EXPECT_EQ(folder["unexplained"], 0);
        EXPECT_EQ(folder["uploaded"].toInt() + folder["failed"].toInt() + folder["not_tried"].toInt(), files);
        const QStringList there = onServer("/raw").filter("@");
        // What was given up because another one failed may have been made all the same.
        EXPECT_GE(there.size(), folder["uploaded"].toInt()) << outcome.err.constData();
        EXPECT_LE(there.size(), folder["uploaded"].toInt() + folder["not_tried"].toInt());
        EXPECT_EQ(there.filter("@1").size(), there.size());
    }
    //! The same command sends the rest, and once more nothing.
    void expectCompletedByTheSameCommand(int files) {
        const Outcome again = put(putting());
        EXPECT_EQ(again.exitCode, 0) << again.err.constData();
        const QStringList there = onServer("/raw").filter("@");
        EXPECT_EQ(there.size(), files);
        EXPECT_EQ(there.filter("@1").size(), files);
        server.clearRequests();
        EXPECT_EQ(put(putting("--retry")).exitCode, 0);
        EXPECT_EQ(changes(), QStringList());
    }

    static constexpr int plain = 12;
    std::unique_ptr<MountedVolume> disk;
};
INSTANTIATE_TEST_SUITE_P(KeepGoing, PutFromAFullDisk, ::testing::Bool(),
                         [](const auto& keepGoing) { return keepGoing.param ? "Yes" : "No"; });

TEST_P(PutFromAFullDisk, RawDataThatCannotBePackedFails) {
    makeRawFile("2026/sub0/run.mzML");
    client.setEnvironment("TMPDIR", disk->path());
    fill();
    const Outcome outcome = put(putting());
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"sub0/run.mzML", "StorageFull"}}))
        << outcome.err.constData();
    EXPECT_NE(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr(disk->path().toStdString()));
    expectAllTold(outcome, plain + 1);
    if (GetParam()) {
        EXPECT_EQ(onServer("/raw").filter("@").size(), plain);
    }
    makeRoom();
    EXPECT_EQ(QDir(disk->path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList())
        << "nothing half-packed is left";
    expectCompletedByTheSameCommand(plain + 1);
}

// Uploads are recorded there before they begin, so that none is made twice.
TEST_P(PutFromAFullDisk, WithoutRoomForTheRecordsOfUploadsNothingIsMadeTwice) {
    client.setEnvironment("HALVANE_CONFIG_DIR", disk->path() + "/config");
    ASSERT_TRUE(client.login(server.url()));
    fill();
    const Outcome outcome = put(putting());
    EXPECT_TRUE(outcome.ended);
    EXPECT_NE(outcome.exitCode, 0);
    expectAllTold(outcome, plain);
    makeRoom();
    expectCompletedByTheSameCommand(plain);
}

} // namespace
} // namespace orx::testing
