// The command line packs, unpacks and upgrades on a disk that is full, or becomes full: it says so, and
// leaves nothing half-made.
#include "Client.h"
#include "MountedVolume.h"
#include "StoppedRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QStorageInfo>

#include <csignal>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

constexpr qint64 kMebibyte = qint64(1024) * 1024;

class PackingOnAFullDisk : public ::testing::Test {
protected:
    void SetUp() override {
        disk = MountedVolume::tmpfs(64);
        ASSERT_TRUE(disk);
        raw = client.makeLargeFile(QStringLiteral("run1.raw"), 40 * kMebibyte);
        QFile file(raw);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_GT(file.write(QByteArray::fromHex("01a15300630061006e007300")), 0);
    }
    QString onDisk(const QString& name) const { return disk->path() + u'/' + name; }
    //! Leaves \a bytes free, about.
    void fillUpTo(qint64 bytes) const {
        QFile filler(onDisk(QStringLiteral("filler")));
        ASSERT_TRUE(filler.open(QIODevice::Append | QIODevice::Unbuffered));
        while (QStorageInfo(disk->path()).bytesAvailable() > bytes &&
               filler.write(QByteArray(4096, 'x')) == 4096) {
        }
    }
    QStringList names() const {
        return QDir(disk->path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    static void expectFull(const Outcome& outcome) {
        EXPECT_EQ(outcome.exitCode, 4) << outcome.err.constData();
        EXPECT_EQ(outcome.object()[QStringLiteral("error")], QStringLiteral("StorageFull"));
        EXPECT_THAT(std::string(outcome.err), HasSubstr("There is no room for \""));
    }

    Client client;
    std::unique_ptr<MountedVolume> disk;
    QString raw;
};

TEST_F(PackingOnAFullDisk, NothingIsBegunWhereThereIsNoRoom) {
    fillUpTo(20 * kMebibyte);
    const Outcome packing = client.run({QStringLiteral("--json"), QStringLiteral("pack"), raw,
                                        QStringLiteral("-o"), onDisk(QStringLiteral("run1.vonk"))});
    expectFull(packing);
    EXPECT_THAT(std::string(packing.err), HasSubstr("MiB are free"));
    const QString vonk = client.path(QStringLiteral("run1.vonk"));
    client.mustRun({QStringLiteral("pack"), raw, QStringLiteral("-o"), vonk});
    const Outcome unpacking = client.run({QStringLiteral("--json"), QStringLiteral("unpack"), vonk,
                                          QStringLiteral("--to"), onDisk(QStringLiteral("back"))});
    expectFull(unpacking);
    EXPECT_THAT(std::string(unpacking.err),
                HasSubstr("\"" + onDisk(QStringLiteral("back")).toStdString() + "\""));
    EXPECT_EQ(names(), QStringList{QStringLiteral("filler")});
}

TEST_F(PackingOnAFullDisk, WhatWasBegunIsRemovedWhenTheDiskBecomesFull) {
    const QString vonk = onDisk(QStringLiteral("run1.vonk"));
    StoppedRun run(client,
                   {QStringLiteral("--json"), QStringLiteral("pack"), raw, QStringLiteral("-o"), vonk},
                   disk->path(), [&vonk] { QFile::remove(vonk); });
    ASSERT_TRUE(run.isStopped());
    fillUpTo(0);
    expectFull(run.goOn());
    EXPECT_EQ(names(), QStringList{QStringLiteral("filler")});
    ASSERT_TRUE(QFile::remove(onDisk(QStringLiteral("filler"))));
    client.mustRun({QStringLiteral("pack"), raw, QStringLiteral("-o"), vonk});
    client.mustRun({QStringLiteral("check"), QStringLiteral("--full"), vonk});
}

TEST_F(PackingOnAFullDisk, WhatWasUnpackedIsRemovedWhenTheDiskBecomesFull) {
    const QString vonk = client.path(QStringLiteral("run1.vonk"));
    client.mustRun({QStringLiteral("pack"), raw, QStringLiteral("-o"), vonk});
    const QString back = onDisk(QStringLiteral("back"));
    const QStringList unpack{QStringLiteral("--json"), QStringLiteral("unpack"), vonk, QStringLiteral("--to"),
                             back};
    StoppedRun run(client, unpack, disk->path(), [&back] { QDir(back).removeRecursively(); });
    ASSERT_TRUE(run.isStopped());
    fillUpTo(0);
    expectFull(run.goOn());
    EXPECT_EQ(names(), QStringList{QStringLiteral("filler")});
    ASSERT_TRUE(QFile::remove(onDisk(QStringLiteral("filler"))));
    client.mustRun(unpack);
    EXPECT_TRUE(Client::contentOf(back + QStringLiteral("/run1.raw")) == Client::contentOf(raw));
}

} // namespace
} // namespace orx::testing
