#include "CacheFixture.h"
#include "FullPool.h"

#include <WorkerPool.h>

#include <QTimer>

#include <SQLiteCpp/Database.h>

#include <atomic>
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
    QString makeFolder() const {
        const QString top = path(QStringLiteral("folder"));
        EXPECT_TRUE(orx::testing::writeFile(top + u"/a"_qs, "1"));
        EXPECT_TRUE(orx::testing::writeFile(top + u"/b/c"_qs, "22"));
        return top;
    }
    //! Where a writer that runs makes the content.
    QString made() const { return cache.expectedPath(kEntry)->toString(); }
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

TEST_F(CacheAddTest, ADirectoryMayBeRenamedRightAfterTheCall) {
    const QString top = makeFolder();
    ASSERT_TRUE(QDir().mkpath(top + u"/empty"_qs));
    {
        const probes::FullPool busy;
        ASSERT_FALSE(cache.add(nullptr, kEntry, Path(top)).hasError());
        ASSERT_TRUE(QDir().mkpath(path(u"elsewhere"_qs)));
        ASSERT_TRUE(QDir().rename(top, path(u"elsewhere/renamed"_qs)));
    }
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry) + u"/b/c"_qs), "22");
    EXPECT_TRUE(QFileInfo(placeOf(kEntry) + u"/empty"_qs).isDir());
    EXPECT_EQ(cache.entries()->first().files, 2);
    EXPECT_EQ(cache.entries()->first().bytes, 3);
    EXPECT_EQ(cache.verify()->damaged.size(), 0);
}

TEST_F(CacheAddTest, OfADirectoryThatIsRemovedRightAfterTheCallNothingIsKept) {
    const QString top = makeFolder();
    {
        const probes::FullPool busy;
        ASSERT_FALSE(cache.add(nullptr, kEntry, Path(top)).hasError());
        ASSERT_TRUE(QDir(top).removeRecursively());
    }
    const QStringList failures = cache.waitForPending();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_TRUE(failures.first().contains(u"changed or was removed"_qs)) << failures.first().toStdString();
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, ADirectoryThatChangesBeforeItsTurnIsNotKept) {
    const QString top = path(u"folder"_qs);
    const struct {
        const char* what;
        std::function<bool()> change;
    } rows[] = {
        {"a file is written", [&] { return orx::testing::writeFile(top + u"/b/c"_qs, "longer"); }},
        {"a file goes", [&] { return QFile::remove(top + u"/b/c"_qs); }},
        {"a file comes", [&] { return orx::testing::writeFile(top + u"/b/new"_qs, "x"); }},
        {"a directory comes", [&] { return QDir().mkpath(top + u"/b/d/e"_qs); }},
        {"everything goes", [&] { return QDir(top).removeRecursively(); }},
    };
    ASSERT_FALSE(fill(u"first"_qs, "old").hasError());
    ASSERT_TRUE(orx::testing::writeFile(path(u"first"_qs), "new"));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        makeFolder();
        {
            // The additions stop at the first; one free worker lists the directory, and then runs the job
            // after that.
            const orx::testing::HeldPlace held(root(), u"first"_qs);
            const probes::FullPool busy(WorkerPool::instance().threadCount() - 2);
            ASSERT_FALSE(cache.add(nullptr, u"first"_qs, Path(path(u"first"_qs))).hasError());
            ASSERT_FALSE(cache.add(nullptr, kEntry, Path(top)).hasError());
            bool isListed = false;
            WorkerPool::instance().submit([] {}, nullptr, [&isListed] { isListed = true; });
            orx::testing::processUntil([&isListed] { return isListed; });
            ASSERT_TRUE(row.change());
        }
        const QStringList failures = cache.waitForPending();
        ASSERT_EQ(failures.size(), 1);
        EXPECT_TRUE(failures.first().contains(u"changed or was removed"_qs))
            << failures.first().toStdString();
        EXPECT_EQ(subPaths(), QStringList{u"first"_qs});
        EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
        EXPECT_TRUE(staged().isEmpty());
        QDir(top).removeRecursively();
    }
}

TEST_F(CacheAddTest, MoreSourcesThanStayOpenAreCopiedToo) {
    for (int i = 0; i < 300; ++i) {
        const QString name = path(QStringLiteral("source%1").arg(i));
        ASSERT_TRUE(orx::testing::writeFile(i % 2 == 0 ? name + u"/in"_qs : name, QByteArray::number(i)));
        ASSERT_FALSE(cache.add(nullptr, QStringLiteral("e/%1").arg(i), Path(name)).hasError());
    }
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(subPaths().size(), 300);
    EXPECT_EQ(orx::testing::readFile(placeOf(u"e/299"_qs)), "299");
    EXPECT_EQ(orx::testing::readFile(placeOf(u"e/298/in"_qs)), "298");
}

TEST_F(CacheAddTest, ADirectoryWithLinksInItIsNotKept) {
    const QString top = path(u"folder"_qs);
    ASSERT_TRUE(QDir().mkpath(top));
    ASSERT_TRUE(QFile::link(QStringLiteral("/etc/passwd"), top + u"/link"_qs));
    ASSERT_FALSE(cache.add(nullptr, kEntry, Path(top)).hasError());
    const QStringList failures = cache.waitForPending();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(
        failures.first(),
        QStringLiteral("\"%1/link\" is a link or a special file, which the cache does not keep.").arg(top));
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, WhatIsNeitherFileNorDirectoryIsRefused) {
    ASSERT_EQ(::mkfifo(QFile::encodeName(path(u"pipe"_qs)).constData(), 0600), 0);
    EXPECT_TRUE(cache.add(nullptr, kEntry, Path(path(u"pipe"_qs))).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(cache.waitForPending().isEmpty());
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

TEST_F(CacheAddTest, ADirectoryThatIsLargerThanTheCacheMayBeIsNotKept) {
    cache.setLimits({2, std::nullopt});
    ASSERT_FALSE(cache.add(nullptr, kEntry, Path(makeFolder())).hasError());
    const QStringList failures = cache.waitForPending();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures.first(),
              QStringLiteral("\"%1\" is larger than the cache may be (2 bytes).").arg(path(u"folder"_qs)));
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

TEST_F(CacheAddTest, AWriterMakesTheContentWhereTheCacheTellsIt) {
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              EXPECT_TRUE(QFileInfo(QFileInfo(made()).path()).isDir());
                              EXPECT_EQ(QFileInfo(made()).fileName(), u"run1.mzML"_qs);
                              EXPECT_NE(made(), placeOf(kEntry));
                              EXPECT_EQ(std::async(std::launch::async, [&] { return made(); }).get(),
                                        placeOf(kEntry));
                              EXPECT_TRUE(orx::testing::writeFile(made(), "written"));
                              return Error();
                          })
                     .hasError());
    EXPECT_EQ(made(), placeOf(kEntry));
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(cache.entries()->first().sha256, orx::testing::sha256("written"));
}

TEST_F(CacheAddTest, AWriterThatFailsLeavesNothing) {
    const Error error = cache.add(nullptr, kEntry, [&] {
        EXPECT_TRUE(orx::testing::writeFile(made(), "half"));
        return Error(ErrorCode::General, u"out of ink"_qs);
    });
    EXPECT_EQ(error.errorMessage(), u"out of ink"_qs);
    (void)cache.waitForPending();
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheAddTest, AWriterMayFinishLater) {
    QString target;
    std::shared_ptr<ResourceCacheWork> work;
    EXPECT_FALSE(cache.deferSeal(kEntry));
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              target = made();
                              work = cache.deferSeal(kEntry);
                              return Error();
                          })
                     .hasError());
    ASSERT_TRUE(work);
    EXPECT_FALSE(cache.contains(kEntry));
    ASSERT_TRUE(orx::testing::writeFile(target, "unpacked"));
    // Nobody takes it for a leftover.
    ASSERT_TRUE(cache.prune());
    EXPECT_TRUE(QFileInfo::exists(target));
    // Nor does anybody fill the entry meanwhile.
    const auto waiting =
        cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    waiting->exec();
    const auto elsewhere = std::async(std::launch::async, [&work] { work->finished(Error()); });
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_FALSE(waiting->waitForFinished().hasError());
}

TEST_F(CacheAddTest, WhatAWriterCallsMayGoOnWithoutKnowingTheCache) {
    QString target;
    std::shared_ptr<BackgroundWork> work;
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              target = made();
                              work = BackgroundWork::begin();
                              return Error();
                          })
                     .hasError());
    ASSERT_TRUE(work);
    EXPECT_FALSE(BackgroundWork::begin());
    EXPECT_FALSE(work->isCanceled());
    ASSERT_TRUE(orx::testing::writeFile(target, "unpacked"));
    const auto elsewhere = std::async(std::launch::async, [&work] { work->finished(Error()); });
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheAddTest, WorkInTheBackgroundIsToldWhenItIsDropped) {
    std::shared_ptr<BackgroundWork> work;
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              work = BackgroundWork::begin();
                              return Error();
                          })
                     .hasError());
    const auto elsewhere = std::async(std::launch::async, [&work] {
        while (!work->isCanceled())
            std::this_thread::yield();
        work->finished(Error(ErrorCode::Canceled, QString()));
    });
    cache.dropPending();
    (void)cache.waitForPending();
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, WorkThatIsGivenUpLeavesNothing) {
    std::shared_ptr<ResourceCacheWork> work;
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              EXPECT_TRUE(orx::testing::writeFile(made(), "half"));
                              work = cache.deferSeal(kEntry);
                              return Error();
                          })
                     .hasError());
    work.reset();
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheAddTest, WrittenContentIsComparedToo) {
    cache.setChecksumSource([](const ResourceReference&) { return orx::testing::sha256("true"); });
    ASSERT_FALSE(cache
                     .add(probes::sampleReference(), kEntry,
                          [&] {
                              EXPECT_TRUE(orx::testing::writeFile(made(), "false"));
                              return Error();
                          })
                     .hasError());
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}

TEST_F(CacheAddTest, AWriterWaitsForNobody) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    ASSERT_FALSE(cache.setCleanupPolicy(kEntry, ResourceCleanupPolicy::Keep).hasError());
    std::shared_ptr<ResourceCacheWork> work;
    QString target;
    {
        // Somebody takes leftovers away, another one exchanges the entry, a third one writes records.
        orx::testing::OtherLocks locks(root());
        locks.hold(orx::testing::OtherLocks::kSweep);
        locks.hold(orx::testing::OtherLocks::of(kEntry, orx::testing::OtherLocks::Place));
        SQLite::Database records(database().toStdString(), SQLite::OPEN_READWRITE, 10'000);
        records.exec("BEGIN IMMEDIATE");
        const Error error = cache.add(nullptr, kEntry, [&] {
            target = made();
            work = cache.deferSeal(kEntry);
            return Error();
        });
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        ASSERT_TRUE(work);
        ASSERT_TRUE(orx::testing::writeFile(target, "written"));
        work->finished(Error());
        // The worker waits, and this thread's events go on.
        int turns = 0;
        QTimer timer;
        QObject::connect(&timer, &QTimer::timeout, [&] { ++turns; });
        timer.start(0);
        orx::testing::processUntil([&] { return turns == 100; });
        EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
        EXPECT_TRUE(cache.contains(kEntry));
        records.exec("COMMIT");
    }
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "written");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(*cache.cleanupPolicy(kEntry), ResourceCleanupPolicy::Keep);
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheAddTest, AWriterIsRefusedWhileSomebodyFillsTheEntry) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    {
        orx::testing::OtherLocks locks(root());
        locks.hold(orx::testing::OtherLocks::of(kEntry, orx::testing::OtherLocks::Fill));
        EXPECT_TRUE(cache.add(nullptr, kEntry, [] { return Error(); }).is(ErrorCode::Busy));
    }
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheAddTest, WhoReadsKeepsWhatAWriterReplaces) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    QFile reader(placeOf(kEntry));
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
    const auto lease = cache.lease(kEntry);
    ASSERT_TRUE(lease && lease->isHeld());
    ASSERT_FALSE(cache
                     .add(nullptr, kEntry,
                          [&] {
                              EXPECT_TRUE(orx::testing::writeFile(made(), "written"));
                              return Error();
                          })
                     .hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(reader.readAll(), "old");
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "written");
}

TEST_F(CacheAddTest, AWriterThatFailsLeavesWhatWasThere) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    const std::function<Error()> writers[] = {
        [] { return Error(ErrorCode::StorageFull, u"out of ink"_qs); },
        [&] {
            EXPECT_TRUE(orx::testing::writeFile(made(), "half"));
            return Error(ErrorCode::StorageFull, u"out of ink"_qs);
        },
        [] { return Error(); }, // makes nothing
    };
    for (const auto& writer : writers) {
        (void)cache.add(nullptr, kEntry, writer);
        EXPECT_EQ(cache.waitForPending().size(), 1);
        EXPECT_TRUE(cache.contains(kEntry));
        EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
        EXPECT_EQ(subPaths(), QStringList{kEntry});
        EXPECT_TRUE(staged().isEmpty());
    }
}

TEST_F(CacheAddTest, ACopyAndAWriterOfOneEntryDoNotMeet) {
    QString target;
    std::shared_ptr<ResourceCacheWork> work;
    const auto beginToWrite = [&] {
        target = made();
        work = cache.deferSeal(kEntry);
        return Error();
    };
    // The copy has its turn before what is written is sealed.
    ASSERT_FALSE(cache.add(nullptr, kEntry, beginToWrite).hasError());
    ASSERT_FALSE(addFile("copied").hasError());
    ASSERT_TRUE(orx::testing::writeFile(target, "written"));
    work->finished(Error());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "written");

    ASSERT_FALSE(cache.add(nullptr, kEntry, beginToWrite).hasError());
    ASSERT_FALSE(addFile("copied").hasError());
    work->finished(Error(ErrorCode::General, u"out of ink"_qs));
    EXPECT_EQ(cache.waitForPending().size(), 1);
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "copied");
    EXPECT_TRUE(staged().isEmpty());
}
