#include "MsDataMaker.h"

#include <ProbeMemory.h>

#include <QFile>

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orx;
using orx::test::MsDataMaker;

namespace {

//! A memory whose probes are counted and to which everything happened long ago.
class Counted {
public:
    explicit Counted(size_t capacity = 100)
        : memory(
              capacity,
              [this](const QByteArray& path, const FileStamp& stamp) {
                  ++probes;
                  return probeMsData(path, stamp);
              },
              [this] { return now.load(); }) {}

    std::atomic<int> probes = 0;
    std::atomic<qint64> now = std::numeric_limits<qint64>::max();
    ProbeMemory memory;
};

//! Another time of modification, since the kernel's clock may not have moved on since the last change.
void touch(const QString& path, qint64 seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

} // namespace

TEST(ProbeMemory, looksOnceAtWhatDoesNotChange) {
    const MsDataMaker maker;
    const QString paths[] = {maker.file(QStringLiteral("a.mzML"), MsDataMaker::mzMl()),
                             maker.file(QStringLiteral("notes.txt"), "hello"),
                             maker.catalogue(QStringLiteral("b.d")),
                             maker.directory(QStringLiteral("plain"))};
    Counted counted;
    for (int round = 0; round < 3; ++round) {
        for (const QString& path : paths)
            counted.memory.check(path);
    }
    EXPECT_EQ(counted.probes, 4);
}

TEST(ProbeMemory, looksAgainAtAFileThatChanged) {
    const MsDataMaker maker;
    const QString path = maker.file(QStringLiteral("a.mzML"), MsDataMaker::mzMl());
    Counted counted;
    EXPECT_TRUE(counted.memory.check(path).isValid());
    maker.file(QStringLiteral("a.mzML"), "no run any more");
    EXPECT_FALSE(counted.memory.check(path).isValid());
    touch(path, 1'000'000);
    EXPECT_FALSE(counted.memory.check(path).isValid());
    EXPECT_EQ(counted.probes, 3);
}

TEST(ProbeMemory, looksAgainAtADirectoryWhoseInnerFileChangedInPlace) {
    const MsDataMaker maker;
    const QString path = maker.catalogue(QStringLiteral("a.d"), "0");
    Counted counted;
    EXPECT_FALSE(counted.memory.check(path).isValid());
    struct stat before {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &before), 0);
    // A journal in memory: no entry of the directory comes or goes.
    MsDataMaker::execute(
        path + QStringLiteral("/analysis.tdf"),
        "PRAGMA journal_mode = MEMORY; UPDATE GlobalMetadata SET Value = '1' WHERE Key = 'ClosedProperly'");
    touch(path + QStringLiteral("/analysis.tdf"), 2'000'000);
    struct stat after {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &after), 0);
    ASSERT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_TRUE(counted.memory.check(path).isValid());
    EXPECT_EQ(counted.probes, 2);
}

TEST(ProbeMemory, looksAgainWhenAnEmptyInnerFileGrows) {
    const MsDataMaker maker;
    const QString path = maker.directory(QStringLiteral("a.d"));
    maker.file(QStringLiteral("a.d/acqus"), "x");
    maker.file(QStringLiteral("a.d/fid"), "");
    Counted counted;
    EXPECT_FALSE(counted.memory.check(path).isValid());
    maker.file(QStringLiteral("a.d/fid"), "signal");
    EXPECT_TRUE(counted.memory.check(path).isValid());
}

TEST(ProbeMemory, looksAgainWhenASubdirectoryGetsWhatWasMissing) {
    const MsDataMaker maker;
    maker.file(QStringLiteral("a.d/AcqData/MSScan.bin"), "x");
    Counted counted;
    EXPECT_FALSE(counted.memory.check(maker.path(QStringLiteral("a.d"))).isValid());
    maker.file(QStringLiteral("a.d/AcqData/MSPeak.bin"), "x");
    touch(maker.path(QStringLiteral("a.d/AcqData")), 1'000'000);
    EXPECT_TRUE(counted.memory.check(maker.path(QStringLiteral("a.d"))).isValid());
}

TEST(ProbeMemory, looksAgainWhenACompanionComesGoesOrChanges) {
    const MsDataMaker maker;
    const QString document = maker.file(QStringLiteral("a.imzML"), MsDataMaker::imzMl({}));
    Counted counted;
    EXPECT_FALSE(counted.memory.check(document).isValid());
    const QString companion = maker.file(QStringLiteral("A.ibd"), "binary data");
    touch(maker.path({}), 1'000'000);
    EXPECT_TRUE(counted.memory.check(document).isValid());
    maker.file(QStringLiteral("A.ibd"), "");
    EXPECT_FALSE(counted.memory.check(document).isValid());
    maker.file(QStringLiteral("A.ibd"), "again");
    EXPECT_TRUE(counted.memory.check(document).isValid());
    ASSERT_TRUE(QFile::remove(companion));
    EXPECT_FALSE(counted.memory.check(document).isValid());
    EXPECT_EQ(counted.probes, 5);
}

TEST(ProbeMemory, answersForOtherLinksOnlyWhereTheNameDoesNotCount) {
    const MsDataMaker maker;
    const QString plain = maker.file(QStringLiteral("a.mzML"), MsDataMaker::mzMl());
    const QString pair = maker.file(QStringLiteral("a.wiff"), MsDataMaker::compoundDocument());
    maker.file(QStringLiteral("a.wiff.scan"), "x");
    for (const char* name : {"b.mzML", "b.wiff"}) {
        const QString target = maker.path(QString::fromLatin1(name));
        const QString& source = target.endsWith(QStringLiteral("ML")) ? plain : pair;
        ASSERT_EQ(::link(QFile::encodeName(source).constData(), QFile::encodeName(target).constData()), 0);
    }
    Counted counted;
    EXPECT_TRUE(counted.memory.check(plain).isValid());
    EXPECT_TRUE(counted.memory.check(maker.path(QStringLiteral("b.mzML"))).isValid());
    EXPECT_EQ(counted.probes, 1);
    EXPECT_TRUE(counted.memory.check(pair).isValid());
    EXPECT_FALSE(counted.memory.check(maker.path(QStringLiteral("b.wiff"))).isValid());
    EXPECT_TRUE(counted.memory.check(pair).isValid());
}

TEST(ProbeMemory, remembersNothingOfWhatChangedJustNow) {
    const MsDataMaker maker;
    const QString path = maker.file(QStringLiteral("a.mzML"), MsDataMaker::mzMl());
    struct stat status {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &status), 0);
    Counted counted;
    const qint64 changed = qint64(status.st_ctim.tv_sec) * 1'000'000'000 + status.st_ctim.tv_nsec;
    counted.now = changed + ProbeMemory::SETTLED_AFTER;
    counted.memory.check(path);
    counted.memory.check(path);
    EXPECT_EQ(counted.probes, 2);
    counted.now = changed + ProbeMemory::SETTLED_AFTER + 1;
    counted.memory.check(path);
    counted.memory.check(path);
    EXPECT_EQ(counted.probes, 3);
}

TEST(ProbeMemory, forgetsFirstWhatWasAskedForLongestAgo) {
    const MsDataMaker maker;
    const QString a = maker.file(QStringLiteral("a"), "a");
    const QString b = maker.file(QStringLiteral("b"), "b");
    const QString c = maker.file(QStringLiteral("c"), "c");
    Counted counted(2);
    counted.memory.check(a);
    counted.memory.check(b);
    counted.memory.check(a);
    counted.memory.check(c);
    EXPECT_EQ(counted.probes, 3);
    counted.memory.check(a);
    EXPECT_EQ(counted.probes, 3);
    counted.memory.check(b);
    EXPECT_EQ(counted.probes, 4);
}

TEST(ProbeMemory, isSharedByThreads) {
    const MsDataMaker maker;
    QStringList paths;
    for (int i = 0; i < 20; ++i)
        paths.append(maker.file(QStringLiteral("%1.mzML").arg(i), i % 2 == 0 ? MsDataMaker::mzMl() : "text"));
    Counted counted(7);
    std::atomic<int> valid = 0;
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int round = 0; round < 5; ++round) {
                    for (const QString& path : paths)
                        valid += counted.memory.check(path).isValid() ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(valid, 4 * 5 * 10);
}
