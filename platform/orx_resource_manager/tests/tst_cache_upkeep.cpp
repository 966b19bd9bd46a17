#include "CacheUpkeepFixture.h"

#include <sqlite3.h>
#include <sys/resource.h>

using namespace orx;
using namespace std::chrono_literals;

namespace {

//! In the year 2100.
constexpr time_t kFarAhead = 4'102'444'800;

class CacheUpkeepTest : public orx::testing::CacheUpkeepFixture {
protected:
    static void setTimes(const QStringList& names, time_t seconds) {
        const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
        for (const QString& name : names)
            ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(name).constData(), times, 0), 0);
    }
};

//! While it lives the process can open only so many files.
class FewFiles {
public:
    explicit FewFiles(rlim_t count) {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit few = m_before;
        few.rlim_cur = count;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewFiles() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

} // namespace

TEST_F(CacheUpkeepTest, WithoutLimitsNothingGoes) {
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->removed.isEmpty());
    EXPECT_EQ(report->bytesLeft, 300);
    EXPECT_EQ(subPaths().size(), 3);
}

TEST_F(CacheUpkeepTest, TheLeastRecentlyUsedGoFirst) {
    execute("UPDATE entries SET used_ms = used_ms - 1000000");
    ASSERT_TRUE(cache.lease(u"a"_qs));
    const auto report = cache.prune({250, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), QStringList{u"b"_qs});
    EXPECT_EQ(report->bytesRemoved, 100);
    EXPECT_EQ(report->bytesLeft, 200);
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"b"_qs)));
    EXPECT_TRUE(cache.contains(u"a"_qs));
}

TEST_F(CacheUpkeepTest, TheLongUnusedGo) {
    execute("UPDATE entries SET used_ms = used_ms - 10000000 WHERE sub_path IN ('a', 'b')");
    const auto report = cache.prune({std::nullopt, 1h});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), (QStringList{u"a"_qs, u"b"_qs}));
    EXPECT_EQ(subPaths(), QStringList{u"c"_qs});
}

TEST_F(CacheUpkeepTest, PinnedEntriesStay) {
    ASSERT_FALSE(cache.setCleanupPolicy(u"a"_qs, ResourceCleanupPolicy::Keep).hasError());
    const auto report = cache.prune({0, 0s});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->removed.size(), 2);
    EXPECT_EQ(report->bytesLeft, 100);
    EXPECT_TRUE(cache.contains(u"a"_qs));
    EXPECT_FALSE(cache.remove(u"a"_qs).hasError());
    EXPECT_FALSE(cache.contains(u"a"_qs));
}

TEST_F(CacheUpkeepTest, EntriesToDiscardGoWhateverTheLimits) {
    ASSERT_FALSE(cache.setCleanupPolicy(u"c"_qs, ResourceCleanupPolicy::Discard).hasError());
    const auto report = cache.prune({200, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), QStringList{u"c"_qs});
    EXPECT_EQ(subPaths(), (QStringList{u"a"_qs, u"b"_qs}));
}

TEST_F(CacheUpkeepTest, WhatIsUsedStaysAndAnotherGoesInItsStead) {
    execute("UPDATE entries SET used_ms = used_ms - 1000000 WHERE sub_path = 'a'");
    ResourceCache other(root());
    auto lease = other.lease(u"a"_qs);
    ASSERT_TRUE(lease);
    // Written down, the use of "a" would save it: it is to be the first to go.
    ASSERT_TRUE(other.entries());
    execute("UPDATE entries SET used_ms = 1 WHERE sub_path = 'a'");
    const auto report = cache.prune({200, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->inUse, 1);
    EXPECT_EQ(report->removed.size(), 1);
    EXPECT_EQ(report->bytesLeft, 200);
    EXPECT_TRUE(cache.contains(u"a"_qs));
    EXPECT_TRUE(cache.remove(u"a"_qs).is(ErrorCode::Busy));
    lease.reset();
    EXPECT_FALSE(cache.remove(u"a"_qs).hasError());
}

TEST_F(CacheUpkeepTest, LeasesOfOneProcessAddUp) {
    auto first = cache.lease(u"a"_qs);
    auto second = cache.lease(u"a"_qs);
    ASSERT_TRUE(first && second);
    first.reset();
    EXPECT_EQ(cache.prune({0, std::nullopt})->inUse, 1);
    const ResourceCacheLease moved = std::move(*second);
    second.reset();
    EXPECT_TRUE(moved.isHeld());
    EXPECT_TRUE(cache.remove(u"a"_qs).is(ErrorCode::Busy));
}

TEST_F(CacheUpkeepTest, EmptiedDirectoriesGoWithTheLastEntry) {
    ASSERT_FALSE(fill(u"s/f/1"_qs, "x").hasError());
    ASSERT_FALSE(fill(u"s/g"_qs, "x").hasError());
    ASSERT_FALSE(cache.remove(u"s/f/1"_qs).hasError());
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"s/f"_qs)));
    EXPECT_TRUE(cache.contains(u"s/g"_qs));
}

TEST_F(CacheUpkeepTest, RemovingWhatIsNotThereIsNoError) {
    EXPECT_FALSE(cache.remove(u"x/y"_qs).hasError());
}

TEST_F(CacheUpkeepTest, LeftoversAreSweptByPruning) {
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"left/over"_qs), "x"));
    ASSERT_FALSE(fill(u"s/kept"_qs, "x").hasError());
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"s/leftover"_qs), "x"));
    const QString staging = root() + u"/state/staging/"_qs;
    ASSERT_TRUE(orx::testing::writeFile(staging + u"add-0123456789abcdef0123456789abcdef/a"_qs, "x"));
    const QString fresh = u"fill-"_qs + orx::testing::sha256("fresh");
    const QString stale = u"fill-"_qs + orx::testing::sha256("stale");
    ASSERT_TRUE(orx::testing::writeFile(staging + fresh + u"/part"_qs, "x"));
    ASSERT_TRUE(orx::testing::writeFile(staging + stale + u"/part"_qs, "x"));
    setTimes({staging + stale + u"/part"_qs, staging + stale}, 1);
    const QString ahead = u"fill-"_qs + orx::testing::sha256("ahead");
    ASSERT_TRUE(orx::testing::writeFile(staging + ahead + u"/part"_qs, "x"));
    setTimes({staging + ahead + u"/part"_qs, staging + ahead}, kFarAhead);
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->leftoverBytes, 5);
    EXPECT_TRUE(report->removed.isEmpty());
    EXPECT_TRUE(report->problems.isEmpty());
    EXPECT_EQ(staged(), QStringList{fresh});
    EXPECT_EQ(QDir(placeOf(QString())).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              (QStringList{u"a"_qs, u"b"_qs, u"c"_qs, u"s"_qs}));
    EXPECT_EQ(QDir(placeOf(u"s"_qs)).entryList(QDir::Files), QStringList{u"kept"_qs});
    EXPECT_TRUE(cache.contains(u"s/kept"_qs));
}

TEST_F(CacheUpkeepTest, LeftoversAreSweptOnceADayByFillsAndAdditions) {
    const QString left = placeOf(u"left/over"_qs);
    ASSERT_TRUE(orx::testing::writeFile(path(u"source"_qs), "x"));
    int fills = 0;
    const std::function<void()> bring[] = {
        [&] { EXPECT_FALSE(fill(u"fill-%1"_qs.arg(++fills), "x").hasError()); },
        [&] {
            EXPECT_FALSE(cache.add(nullptr, u"added"_qs, Path(path(u"source"_qs))).hasError());
            EXPECT_TRUE(cache.waitForPending().isEmpty());
        },
        [&] {
            const auto write = [&] {
                EXPECT_TRUE(orx::testing::writeFile(cache.expectedPath(u"written"_qs)->toString(), "x"));
                return Error();
            };
            EXPECT_FALSE(cache.add(nullptr, u"written"_qs, write).hasError());
            EXPECT_TRUE(cache.waitForPending().isEmpty());
        }};
    for (const auto& once : bring) {
        for (const time_t lastSweep : {time_t(1), kFarAhead}) {
            ASSERT_TRUE(orx::testing::writeFile(left, "x"));
            once();
            EXPECT_TRUE(QFileInfo::exists(left));
            setTimes({root() + u"/state/swept"_qs}, lastSweep);
            once();
            EXPECT_FALSE(QFileInfo::exists(placeOf(u"left"_qs)));
        }
    }
    EXPECT_TRUE(staged().isEmpty());
    EXPECT_TRUE(cache.contains(u"a"_qs));
}

TEST_F(CacheUpkeepTest, AUseRecordedByAClockThatWasAheadDoesNotProtectForEver) {
    execute("UPDATE entries SET used_ms = used_ms + 1000000000000 WHERE sub_path = 'a'");
    ASSERT_TRUE(cache.prune());
    ASSERT_TRUE(cache.lease(u"b"_qs) && cache.lease(u"c"_qs));
    const auto report = cache.prune({200, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), QStringList{u"a"_qs});
}

TEST_F(CacheUpkeepTest, WhatCannotBeRemovedOrReadIsToldAndTheRestIsDoneAllTheSame) {
    constexpr int kDepth = 100;
    const QString deep = u"/d"_qs.repeated(kDepth);
    const QString staging = root() + u"/state/staging/"_qs;
    ASSERT_TRUE(QDir().mkpath(path(u"source"_qs) + deep));
    ASSERT_FALSE(cache.add(nullptr, u"A"_qs, Path(path(u"source"_qs))).hasError());
    ASSERT_TRUE(cache.waitForPending().isEmpty());
    ASSERT_TRUE(QDir().mkpath(staging + u"add-1"_qs + deep));
    ASSERT_TRUE(orx::testing::writeFile(staging + u"add-2/part"_qs, "xyz"));
    {
        const FewFiles few(kDepth);
        const auto verified = cache.verify();
        ASSERT_TRUE(verified) << verified.errorMessage().toStdString();
        EXPECT_EQ(verified->problems.size(), 1);
        EXPECT_EQ(verified->entries, 3);
        EXPECT_TRUE(verified->damaged.isEmpty());
        const auto pruned = cache.prune();
        ASSERT_TRUE(pruned) << pruned.errorMessage().toStdString();
        EXPECT_EQ(pruned->problems.size(), 1);
        EXPECT_EQ(pruned->leftoverBytes, 3);
        EXPECT_EQ(staged(), QStringList{u"add-1"_qs});
    }
    EXPECT_TRUE(cache.verify()->problems.isEmpty());
    EXPECT_TRUE(cache.prune()->problems.isEmpty());
    EXPECT_TRUE(staged().isEmpty());
    EXPECT_TRUE(cache.contains(u"A"_qs));
}

TEST_F(CacheUpkeepTest, VerificationFindsWhatSizeAndTimeDoNotShow) {
    damage(placeOf(u"b"_qs));
    EXPECT_TRUE(cache.contains(u"b"_qs));
    qint64 seen = 0;
    const auto report = cache.verify([&](qint64 bytes) {
        EXPECT_GE(bytes, seen);
        seen = bytes;
        return true;
    });
    ASSERT_TRUE(report);
    EXPECT_EQ(report->entries, 3);
    EXPECT_EQ(report->bytes, 300);
    EXPECT_EQ(seen, 300);
    ASSERT_EQ(report->damaged.size(), 1);
    EXPECT_EQ(report->damaged.first().first, u"b"_qs);
    EXPECT_FALSE(report->damaged.first().second.isEmpty());
    EXPECT_EQ(subPaths(), (QStringList{u"a"_qs, u"c"_qs}));
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"b"_qs)));
}

TEST_F(CacheUpkeepTest, ADamagedEntryInUseIsNotServedAgain) {
    damage(placeOf(u"b"_qs));
    const auto lease = cache.lease(u"b"_qs);
    ASSERT_TRUE(lease);
    EXPECT_EQ(cache.verify()->damaged.size(), 1);
    EXPECT_TRUE(QFileInfo::exists(placeOf(u"b"_qs)));
    EXPECT_FALSE(cache.contains(u"b"_qs));
    EXPECT_FALSE(fill(u"b"_qs, "good").hasError());
    EXPECT_TRUE(cache.contains(u"b"_qs));
}

TEST_F(CacheUpkeepTest, WhatAReaderFoundDamagedIsNotThereUntilItIsFilledAnew) {
    damage(placeOf(u"b"_qs));
    const auto seen = FileCopy::stampOf(placeOf(u"b"_qs));
    ASSERT_TRUE(seen);
    EXPECT_FALSE(cache.markDamaged(u"b"_qs, *seen).hasError());
    EXPECT_FALSE(cache.contains(u"b"_qs));
    EXPECT_FALSE(cache.lease(u"b"_qs));
    EXPECT_TRUE(cache.contains(u"a"_qs));
    EXPECT_FALSE(fill(u"b"_qs, "good").hasError());
    EXPECT_TRUE(cache.contains(u"b"_qs));
}

TEST_F(CacheUpkeepTest, WhatCameSinceAReaderFoundDamageStays) {
    const auto seen = FileCopy::stampOf(placeOf(u"b"_qs));
    ASSERT_TRUE(seen);
    ASSERT_FALSE(fill(u"b"_qs, QByteArray(100, 'y'), true).hasError());
    EXPECT_FALSE(cache.markDamaged(u"b"_qs, *seen).hasError());
    EXPECT_TRUE(cache.contains(u"b"_qs));
    EXPECT_FALSE(cache.markDamaged(u"absent"_qs, *seen).hasError());
    EXPECT_TRUE(cache.markDamaged(u"../b"_qs, *seen).is(ErrorCode::InvalidArgument));
}

TEST_F(CacheUpkeepTest, ADirectoryInWhichAReaderFoundDamageIsNotThereUntilItIsBroughtAnew) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(orx::testing::writeFile(top + u"/in/file"_qs, "content"));
    const auto add = [&] {
        ASSERT_FALSE(cache.add(nullptr, u"folder"_qs, Path(top)).hasError());
        ASSERT_TRUE(cache.waitForPending().isEmpty());
    };
    add();
    const auto first = FileCopy::stampOf(placeOf(u"folder"_qs));
    ASSERT_TRUE(first);
    damage(placeOf(u"folder/in/file"_qs));
    EXPECT_FALSE(cache.look(u"folder"_qs).hasError()); // sizes and times do not show it
    EXPECT_FALSE(cache.markDamaged(u"folder"_qs, *first).hasError());
    EXPECT_FALSE(cache.contains(u"folder"_qs));
    add();
    EXPECT_FALSE(cache.markDamaged(u"folder"_qs, *first).hasError());
    EXPECT_TRUE(cache.contains(u"folder"_qs));
}

TEST_F(CacheUpkeepTest, ALookIntoADirectoryFindsWhatItsTopDoesNotShow) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(orx::testing::writeFile(top + u"/in/file"_qs, "content"));
    ASSERT_FALSE(cache.add(nullptr, u"folder"_qs, Path(top)).hasError());
    ASSERT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_FALSE(cache.look(u"folder"_qs).hasError());
    ASSERT_TRUE(QFile::resize(placeOf(u"folder/in/file"_qs), 3));
    EXPECT_TRUE(cache.contains(u"folder"_qs));
    EXPECT_TRUE(cache.look(u"folder"_qs).is(ErrorCode::NotFound));
    EXPECT_FALSE(cache.contains(u"folder"_qs));
    EXPECT_TRUE(cache.look(u"absent"_qs).is(ErrorCode::NotFound));
    EXPECT_TRUE(cache.look(u"../a"_qs).is(ErrorCode::InvalidArgument));
}

TEST_F(CacheUpkeepTest, VerificationLooksIntoDirectories) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(orx::testing::writeFile(top + u"/in/file"_qs, "content"));
    ASSERT_FALSE(cache.add(nullptr, u"folder"_qs, Path(top)).hasError());
    ASSERT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.verify()->damaged.isEmpty());
    damage(placeOf(u"folder/in/file"_qs));
    const auto report = cache.verify();
    ASSERT_EQ(report->damaged.size(), 1);
    EXPECT_TRUE(report->damaged.first().second.contains(u"in/file"_qs));
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"folder"_qs)));
}

TEST_F(CacheUpkeepTest, WhatAReaderFoundDamagedIsRemovedByVerificationThoughItsRecordAgrees) {
    ASSERT_FALSE(cache.setCleanupPolicy(u"b"_qs, ResourceCleanupPolicy::Keep).hasError());
    const auto stamp = FileCopy::stampOf(placeOf(u"b"_qs));
    ASSERT_TRUE(stamp);
    ASSERT_FALSE(cache.markDamaged(u"b"_qs, *stamp).hasError());
    EXPECT_FALSE(cache.contains(u"b"_qs));
    const auto report = cache.verify();
    ASSERT_TRUE(report);
    ASSERT_EQ(report->damaged.size(), 1);
    EXPECT_EQ(report->damaged.first().first, u"b"_qs);
    EXPECT_EQ(subPaths(), (QStringList{u"a"_qs, u"c"_qs}));
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"b"_qs)));
}

TEST_F(CacheUpkeepTest, VerificationCanBeCancelled) {
    EXPECT_TRUE(cache.verify([](qint64) { return false; }).error().isCanceled());
    EXPECT_EQ(subPaths().size(), 3);
}

TEST_F(CacheUpkeepTest, ADamagedDatabaseIsSetAsideAndTheCacheFetchesAnew) {
    {
        ResourceCache first(path(u"other"_qs));
        const auto task = first.fillTask(nullptr, u"a"_qs, orx::testing::fetchOf(u"a"_qs, "1"),
                                         ResourceCache::FillMode::Missing);
        task->exec();
        ASSERT_FALSE(task->waitForFinished().hasError());
    }
    const QString state = path(u"other/state"_qs);
    ASSERT_TRUE(orx::testing::writeFile(state + u"/cache.sqlite"_qs, QByteArray(8192, 'z')));
    QFile::remove(state + u"/cache.sqlite-wal"_qs);
    QFile::remove(state + u"/cache.sqlite-shm"_qs);
    ResourceCache second(path(u"other"_qs));
    EXPECT_FALSE(second.contains(u"a"_qs));
    EXPECT_EQ(QDir(state).entryList({u"cache.sqlite.damaged-*"_qs}).size(), 1);
    const auto task = second.fillTask(nullptr, u"a"_qs, orx::testing::fetchOf(u"a"_qs, "2"),
                                      ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_TRUE(second.contains(u"a"_qs));
    EXPECT_EQ(second.entries()->size(), 1);
}

TEST_F(CacheUpkeepTest, ADatabaseOfALaterFormatIsRefusedAndLeftAlone) {
    execute("PRAGMA user_version = 2");
    ResourceCache other(root());
    const auto entries = other.entries();
    ASSERT_TRUE(entries.hasError());
    EXPECT_TRUE(entries.error().is(ErrorCode::ParseError));
    EXPECT_TRUE(entries.errorMessage().contains(u"newer release"_qs));
    EXPECT_FALSE(other.contains(u"a"_qs));
    EXPECT_TRUE(other.prune({0, std::nullopt}).hasError());
    const auto task = other.fillTask(nullptr, u"n"_qs, orx::testing::fetchOf(u"n"_qs, "1"),
                                     ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_TRUE(task->waitForFinished().hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(u"a"_qs)), QByteArray(100, 'x'));
    EXPECT_TRUE(QDir(QFileInfo(database()).path()).entryList({u"*damaged*"_qs}).isEmpty());
}
