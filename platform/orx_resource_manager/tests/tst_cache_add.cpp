#include "CacheFixture.h"
#include "FullPool.h"

#include <future>

using namespace orx;

namespace {

const QString kEntry = QStringLiteral("server/run1.mzML");

class CacheAddTest : public orx::testing::CacheFixture {
protected:
    QString source(const QByteArray& content) {
        const QString name = path(QStringLiteral("source"));
        EXPECT_TRUE(orx::testing::writeFile(name, content));
        return name;
    }
    Error addFile(const QByteArray& content) {
        return cache.add(probes::sampleReference(), kEntry, Path(source(content)));
    }
};

} // namespace

TEST_F(CacheAddTest, AFileIsThereWhenTheWaitEnds) {
    ASSERT_FALSE(addFile("content").hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "content");
    EXPECT_EQ(cache.entries()->first().sha256, orx::testing::sha256("content"));
    EXPECT_EQ(QFileInfo(placeOf(kEntry)).lastModified(), QFileInfo(path(u"source"_qs)).lastModified());
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheAddTest, TheSourceMayBeRemovedRightAfterTheCall) {
    const QByteArray content(5'000'000, 'x');
    ASSERT_FALSE(addFile(content).hasError());
    ASSERT_TRUE(QFile::remove(path(u"source"_qs)));
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), content);
}

TEST_F(CacheAddTest, ADirectoryMayBeRemovedRightAfterTheCall) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(orx::testing::writeFile(top + u"/a"_qs, "1"));
    ASSERT_TRUE(orx::testing::writeFile(top + u"/b/c"_qs, "22"));
    ASSERT_TRUE(QDir().mkpath(top + u"/empty"_qs));
    ASSERT_FALSE(cache.add(nullptr, kEntry, Path(top)).hasError());
    ASSERT_TRUE(QDir(top).removeRecursively());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry) + u"/b/c"_qs), "22");
    EXPECT_TRUE(QFileInfo(placeOf(kEntry) + u"/empty"_qs).isDir());
    EXPECT_EQ(cache.verify()->damaged.size(), 0);
}

TEST_F(CacheAddTest, MoreSourcesThanStayOpenAreCopiedToo) {
    for (int i = 0; i < 300; ++i) {
        const QString name = path(QStringLiteral("source%1").arg(i));
        ASSERT_TRUE(orx::testing::writeFile(name, QByteArray::number(i)));
        ASSERT_FALSE(cache.add(nullptr, QStringLiteral("e/%1").arg(i), Path(name)).hasError());
    }
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(subPaths().size(), 300);
    EXPECT_EQ(orx::testing::readFile(placeOf(u"e/299"_qs)), "299");
}

TEST_F(CacheAddTest, LinksInASourceAreRefused) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(QDir().mkpath(top));
    ASSERT_TRUE(QFile::link(QStringLiteral("/etc/passwd"), top + u"/link"_qs));
    EXPECT_TRUE(cache.add(nullptr, kEntry, Path(top)).is(ErrorCode::InvalidArgument));
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, AMissingSourceIsAnErrorAtOnce) {
    EXPECT_TRUE(cache.add(nullptr, kEntry, Path(path(u"none"_qs))).is(ErrorCode::NotFound));
    EXPECT_TRUE(cache.waitForPending().isEmpty());
}

TEST_F(CacheAddTest, ASourceThatChangesMeanwhileIsNotKept) {
    probes::FullPool pool; // the change comes before any copy
    const QString other = path(u"other"_qs);
    ASSERT_TRUE(orx::testing::writeFile(other, "unchanged"));
    ASSERT_FALSE(cache.add(nullptr, u"other"_qs, Path(other)).hasError());
    ASSERT_FALSE(addFile("content").hasError());
    ASSERT_TRUE(orx::testing::writeFile(path(u"source"_qs), "changed afterwards"));
    pool.release();
    const QStringList failures = cache.waitForPending();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_TRUE(failures.first().contains(u"changed"_qs)) << failures.first().toStdString();
    EXPECT_EQ(subPaths(), QStringList{u"other"_qs});
}

TEST_F(CacheAddTest, OnlyWhatTheServerAcknowledgedAppears) {
    QString acknowledged = orx::testing::sha256("content");
    cache.setChecksumSource([&](const ResourceReference&) { return acknowledged; });
    ASSERT_FALSE(addFile("something else").hasError());
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
    ASSERT_FALSE(addFile("content").hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    // What is there already is not copied again: not even its source is looked at.
    EXPECT_FALSE(cache.add(probes::sampleReference(), kEntry, Path(u"/none"_qs)).hasError());
}

TEST_F(CacheAddTest, WhatIsLargerThanTheCacheMayBeIsRefused) {
    cache.setLimits({3, std::nullopt});
    EXPECT_TRUE(addFile("content").is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, AnAdditionReplacesTheEntry) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    ASSERT_FALSE(addFile("newer").hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "newer");
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, DroppedAdditionsLeaveNothing) {
    {
        const probes::FullPool pool; // none is copied before all are dropped
        for (int i = 0; i < 5; ++i) {
            const QString name = path(QStringLiteral("source%1").arg(i));
            ASSERT_TRUE(orx::testing::writeFile(name, "content"));
            ASSERT_FALSE(cache.add(nullptr, QStringLiteral("e/%1").arg(i), Path(name)).hasError());
        }
        cache.dropPending();
    }
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(subPaths().isEmpty());
    EXPECT_TRUE(staged().isEmpty());
    ASSERT_FALSE(addFile("content").hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, AdditionsThatAreDroppedWhileTheyRunAreWholeOrAbsent) {
    const QByteArray content(4'000'000, 'x');
    for (int i = 0; i < 5; ++i) {
        const QString name = path(QStringLiteral("large%1").arg(i));
        ASSERT_TRUE(orx::testing::writeFile(name, content));
        ASSERT_FALSE(cache.add(nullptr, QStringLiteral("e/%1").arg(i), Path(name)).hasError());
    }
    cache.dropPending();
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(staged().isEmpty());
    for (int i = 0; i < 5; ++i) {
        const QString subPath = QStringLiteral("e/%1").arg(i);
        EXPECT_EQ(QFileInfo::exists(placeOf(subPath)), cache.contains(subPath));
        EXPECT_TRUE(!cache.contains(subPath) || orx::testing::readFile(placeOf(subPath)) == content);
    }
}

TEST_F(CacheAddTest, AWriterMakesTheContentAtItsPlace) {
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              EXPECT_TRUE(QFileInfo(QFileInfo(placeOf(kEntry)).path()).isDir());
                              EXPECT_TRUE(orx::testing::writeFile(placeOf(kEntry), "written"));
                              return Error();
                          })
                     .hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(cache.entries()->first().sha256, orx::testing::sha256("written"));
}

TEST_F(CacheAddTest, AWriterThatFailsLeavesNothing) {
    const Error error = cache.add(nullptr, kEntry, [&] {
        EXPECT_TRUE(orx::testing::writeFile(placeOf(kEntry), "half"));
        return Error(ErrorCode::General, u"out of ink"_qs);
    });
    EXPECT_EQ(error.errorMessage(), u"out of ink"_qs);
    (void)cache.waitForPending();
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, AWriterMayFinishLater) {
    std::shared_ptr<ResourceCacheWork> work;
    EXPECT_FALSE(cache.deferSeal(kEntry));
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              work = cache.deferSeal(kEntry);
                              return Error();
                          })
                     .hasError());
    ASSERT_TRUE(work);
    EXPECT_FALSE(cache.contains(kEntry));
    ASSERT_TRUE(orx::testing::writeFile(placeOf(kEntry), "unpacked"));
    // Nobody takes it for a leftover.
    ASSERT_TRUE(cache.prune());
    EXPECT_TRUE(QFileInfo::exists(placeOf(kEntry)));
    // Nor does anybody fill the entry meanwhile.
    const auto waiting =
        cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    waiting->exec();
    const auto elsewhere = std::async(std::launch::async, [&work] { work->finished(Error()); });
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_FALSE(waiting->waitForFinished().hasError());
}

TEST_F(CacheAddTest, WorkThatIsGivenUpLeavesNothing) {
    std::shared_ptr<ResourceCacheWork> work;
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              work = cache.deferSeal(kEntry);
                              return Error();
                          })
                     .hasError());
    ASSERT_TRUE(orx::testing::writeFile(placeOf(kEntry), "half"));
    work.reset();
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, WrittenContentIsComparedToo) {
    cache.setChecksumSource([](const ResourceReference&) { return orx::testing::sha256("true"); });
    ASSERT_FALSE(cache
                     .add(probes::sampleReference(), kEntry,
                          [&] {
                              EXPECT_TRUE(orx::testing::writeFile(placeOf(kEntry), "false"));
                              return Error();
                          })
                     .hasError());
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, AWriterDoesNotTakeAwayWhatIsInUse) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    const auto lease = cache.lease(kEntry);
    ASSERT_TRUE(lease && lease->isHeld());
    EXPECT_TRUE(cache.add(nullptr, kEntry, [] { return Error(); }).is(ErrorCode::Busy));
    EXPECT_TRUE(cache.contains(kEntry));
}
