// What lies in a cache without being an entry, or on the way to one: who takes it away, and who must not.
#include "CacheUpkeepFixture.h"

#include <atomic>
#include <future>
#include <thread>

#include <sys/resource.h>

using namespace orx;

namespace {

//! A hundred files may be open while it lives.
class FewFiles {
public:
    FewFiles() {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit few = m_before;
        few.rlim_cur = 100;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewFiles() { ::setrlimit(RLIMIT_NOFILE, &m_before); }
    FewFiles(const FewFiles&) = delete;
    FewFiles& operator=(const FewFiles&) = delete;

private:
    rlimit m_before{};
};

class CacheLeftoversTest : public orx::testing::CacheUpkeepFixture {
protected:
    QString staging(const QString& name) const { return root() + u"/state/staging/"_qs + name; }
    static void makeOld(const QString& name) {
        const struct timespec times[2] = {{1, 0}, {1, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(name).constData(), times, 0), 0);
    }
    static bool isLink(const QString& name) { return QFileInfo(name).isSymLink(); }
    //! Of the directory entry "folder", with the file "in/file".
    std::unique_ptr<Task> fillFolder(int& fetched) {
        return cache.fillTask(
            nullptr, u"folder"_qs,
            [&fetched](const DirPath& directory) {
                ++fetched;
                EXPECT_TRUE(orx::testing::writeFile(directory.child(u"folder/in/file"_qs), "content"));
                return probes::taskWith(QVariant());
            },
            ResourceCache::FillMode::Missing);
    }
    Error runFillFolder(int& fetched) {
        const auto task = fillFolder(fetched);
        task->exec();
        return task->waitForFinished();
    }
};

} // namespace

TEST_F(CacheLeftoversTest, ALinkInThePlaceOfAnEntryGoesWithPruning) {
    const QString outside = path(u"outside"_qs);
    ASSERT_TRUE(orx::testing::writeFile(outside, "precious"));
    ASSERT_TRUE(QFile::remove(placeOf(u"b"_qs)));
    ASSERT_TRUE(QFile::link(outside, placeOf(u"b"_qs)));
    EXPECT_TRUE(fill(u"b"_qs, "new").is(ErrorCode::InvalidArgument));
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->problems.isEmpty());
    EXPECT_FALSE(isLink(placeOf(u"b"_qs)));
    EXPECT_EQ(orx::testing::readFile(outside), "precious");
    EXPECT_FALSE(fill(u"b"_qs, "new").hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(u"b"_qs)), "new");
    EXPECT_TRUE(cache.contains(u"a"_qs));
}

TEST_F(CacheLeftoversTest, WhatLiesInTheWayToEntriesGoesWithPruning) {
    ASSERT_FALSE(fill(u"s/f/1"_qs, "x").hasError());
    ASSERT_TRUE(QDir(placeOf(u"s/f"_qs)).removeRecursively());
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"s/f"_qs), "in the way"));
    EXPECT_TRUE(fill(u"s/f/1"_qs, "x").hasError());
    ASSERT_TRUE(cache.prune());
    EXPECT_FALSE(fill(u"s/f/1"_qs, "x").hasError());
}

TEST_F(CacheLeftoversTest, ALinkInADirectoryIsADamageOfIt) {
    const QString outside = path(u"outside"_qs);
    ASSERT_TRUE(orx::testing::writeFile(outside + u"/file"_qs, "precious"));
    int fetched = 0;
    ASSERT_FALSE(runFillFolder(fetched).hasError());
    const std::function<bool()> changes[] = {
        [&] { return QFile::link(outside, placeOf(u"folder/more"_qs)); },
        [&] {
            return QDir(placeOf(u"folder/in"_qs)).removeRecursively() &&
                   QFile::link(outside, placeOf(u"folder/in"_qs));
        },
    };
    for (const auto& change : changes) {
        ASSERT_TRUE(change());
        fetched = 0;
        const Error error = runFillFolder(fetched);
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_EQ(fetched, 1);
        EXPECT_FALSE(QFileInfo::exists(placeOf(u"folder/more"_qs)));
        EXPECT_FALSE(isLink(placeOf(u"folder/in"_qs)));
        EXPECT_EQ(orx::testing::readFile(placeOf(u"folder/in/file"_qs)), "content");
        EXPECT_EQ(orx::testing::readFile(outside + u"/file"_qs), "precious");
    }
}

TEST_F(CacheLeftoversTest, ManyGoAtOnce) {
    ASSERT_FALSE(fill(u"s/kept"_qs, "x").hasError());
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(orx::testing::writeFile(placeOf(u"s/%1"_qs.arg(i)), "x"));
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->leftoverBytes, 200);
    EXPECT_EQ(QDir(placeOf(u"s"_qs)).entryList(QDir::Files), QStringList{u"kept"_qs});
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheLeftoversTest, AmongManyDirectoriesOnlyLeftoversGo) {
    constexpr int kMany = 150;
    QStringList entries;
    for (int i = 0; i < kMany; ++i) {
        entries << u"s/%1/versions/1/run"_qs.arg(i);
        ASSERT_FALSE(fill(entries.last(), "x").hasError());
    }
    QStringList leftovers;
    for (int i = 0; i < kMany; i += 3)
        leftovers << u"s/%1/left"_qs.arg(i) << u"s/%1/versions/2/run"_qs.arg(i)
                  << u"s/%1/versions/1/run.part"_qs.arg(i) << u"s/left %1/run"_qs.arg(i);
    for (const QString& leftover : leftovers)
        ASSERT_TRUE(orx::testing::writeFile(placeOf(leftover), "x"));
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->problems.isEmpty());
    EXPECT_EQ(report->leftoverBytes, leftovers.size());
    for (const QString& leftover : leftovers)
        EXPECT_FALSE(QFileInfo::exists(placeOf(leftover))) << qPrintable(leftover);
    for (const QString& entry : entries)
        EXPECT_TRUE(cache.contains(entry)) << qPrintable(entry);
    EXPECT_EQ(QDir(placeOf(u"s"_qs)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), kMany);
}

TEST_F(CacheLeftoversTest, NamesThatBeginLikeThatOfAnEntryAreToldApart) {
    // The bytes before and after "/" are "." and "0".
    const QStringList entries{u"s/n/1"_qs, u"s/n./1"_qs, u"s/n0/1"_qs, u"s/n-/1"_qs, u"s/m"_qs, u"s/m.x"_qs};
    const QStringList leftovers{u"s/n/10"_qs, u"s/n/1."_qs, u"s/n.0"_qs,  u"s/n00/1"_qs,
                                u"s/m0"_qs,   u"s/m-"_qs,   u"s/m.y/x"_qs};
    for (const QString& entry : entries)
        ASSERT_FALSE(fill(entry, "x").hasError());
    for (const QString& leftover : leftovers)
        ASSERT_TRUE(orx::testing::writeFile(placeOf(leftover), "x"));
    ASSERT_TRUE(cache.prune());
    for (const QString& entry : entries)
        EXPECT_TRUE(cache.contains(entry)) << qPrintable(entry);
    for (const QString& leftover : leftovers)
        EXPECT_FALSE(QFileInfo::exists(placeOf(leftover))) << qPrintable(leftover);
}

TEST_F(CacheLeftoversTest, EntriesInManyDirectoriesGoWithTheirDirectories) {
    for (int i = 0; i < 100; ++i)
        ASSERT_FALSE(fill(u"s/%1/versions/1/run"_qs.arg(i), "x").hasError());
    const auto kept = cache.lease(u"s/50/versions/1/run"_qs);
    ASSERT_TRUE(kept);
    const auto report = cache.prune({0, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->removed.size(), 99 + 3);
    EXPECT_EQ(QDir(placeOf(u"s"_qs)).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{u"50"_qs});
    EXPECT_TRUE(cache.contains(u"s/50/versions/1/run"_qs));
}

TEST_F(CacheLeftoversTest, WhatAFetchLeftStaysWhileAnythingInItIsFresh) {
    const QString deep = u"fill-"_qs + orx::testing::sha256("deep");
    ASSERT_TRUE(orx::testing::writeFile(staging(deep + u"/raw/2026/part"_qs), "x"));
    for (const char* name : {"/raw/2026", "/raw", ""})
        makeOld(staging(deep + QString::fromLatin1(name)));
    ASSERT_TRUE(cache.prune());
    EXPECT_EQ(staged(), QStringList{deep});
    makeOld(staging(deep + u"/raw/2026/part"_qs));
    ASSERT_TRUE(cache.prune());
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheLeftoversTest, WhatCouldNotBeRemovedIsToldThoughNothingElseCouldBeDone) {
    ASSERT_TRUE(QDir().mkpath(staging(u"add-1"_qs) + u"/d"_qs.repeated(100)));
    execute("PRAGMA user_version = 2");
    ResourceCache other(root());
    const auto report = [&other] {
        const FewFiles few;
        return other.prune();
    }();
    ASSERT_TRUE(report.hasError());
    EXPECT_TRUE(report.errorMessage().contains(u"newer release"_qs)) << qPrintable(report.errorMessage());
    ASSERT_EQ(report.error().warnings().size(), 1);
    EXPECT_TRUE(QString(report.error().warnings().first()).contains(u"add-1"_qs));
}

TEST_F(CacheLeftoversTest, WhatFetchesBroughtIsToldAndGoesOnlyWhenItIsToGo) {
    const QString running = u"fill-"_qs + orx::testing::sha256("n");
    ASSERT_TRUE(orx::testing::writeFile(staging(running + u"/part"_qs), "12345"));
    ASSERT_TRUE(orx::testing::writeFile(
        staging(u"fill-"_qs + orx::testing::sha256("interrupted") + u"/raw/part"_qs), "1234567"));
    orx::testing::OtherLocks locks(root());
    locks.hold(orx::testing::OtherLocks::of(u"n"_qs, orx::testing::OtherLocks::Fill));
    EXPECT_EQ(cache.unfinishedBytes().valueOr(-1), 12);
    const auto kept = cache.prune();
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->unfinishedBytes, 12);
    EXPECT_EQ(kept->leftoverBytes, 0);
    EXPECT_EQ(staged().size(), 2);
    const auto removed = cache.prune({}, ResourceCache::Unfinished::Removed);
    ASSERT_TRUE(removed);
    EXPECT_EQ(removed->unfinishedBytes, 5);
    EXPECT_EQ(removed->leftoverBytes, 7);
    EXPECT_TRUE(removed->removed.isEmpty());
    EXPECT_EQ(staged(), QStringList{running});
    EXPECT_EQ(cache.unfinishedBytes().valueOr(-1), 5);
}

TEST_F(CacheLeftoversTest, WhatFetchesBroughtAndCannotBeCountedIsTold) {
    const QString interrupted = u"fill-"_qs + orx::testing::sha256("interrupted");
    ASSERT_TRUE(QDir().mkpath(staging(interrupted) + u"/d"_qs.repeated(100)));
    const FewFiles few;
    EXPECT_TRUE(cache.unfinishedBytes().errorMessage().contains(interrupted));
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    ASSERT_EQ(report->problems.size(), 1);
    EXPECT_TRUE(report->problems.first().contains(interrupted));
}

TEST_F(CacheLeftoversTest, AFillHasClearedUpBeforeAnotherOneMayBegin) {
    constexpr int kParts = 3000;
    const QString key = u"fill-"_qs + orx::testing::sha256("n");
    const orx::testing::OtherLocks locks(root());
    const off_t byte = orx::testing::OtherLocks::of(u"n"_qs, orx::testing::OtherLocks::Fill);
    std::atomic<bool> isLeft = false;
    const auto next = std::async(std::launch::async, [&] {
        while (!locks.isHeld(byte))
            std::this_thread::yield();
        while (locks.isHeld(byte))
            std::this_thread::yield();
        isLeft = QFileInfo::exists(staging(key));
    });
    const auto task = cache.fillTask(
        nullptr, u"n"_qs,
        [](const DirPath& directory) {
            EXPECT_TRUE(orx::testing::writeFile(directory.child(u"n"_qs), "content"));
            for (int i = 0; i < kParts; ++i)
                EXPECT_TRUE(orx::testing::writeFile(directory.child(u"parts/%1"_qs.arg(i)), ""));
            return probes::taskWith(QVariant());
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    next.wait();
    EXPECT_FALSE(isLeft);
}
