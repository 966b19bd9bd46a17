#include "CacheFixture.h"

#include <QProcess>

using namespace orx;

namespace {

const QString kEntry = QStringLiteral("server/run1.mzML");

class CacheProcessesTest : public orx::testing::CacheFixture {
protected:
    void start(QProcess& process, const QStringList& command) {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(CACHE_PROCESS), QStringList{root(), kEntry} + command);
        ASSERT_TRUE(process.waitForStarted());
    }
    static QByteArray nextLine(QProcess& process) {
        while (!process.canReadLine())
            if (!process.waitForReadyRead(-1))
                return "(ended)";
        return process.readLine().trimmed();
    }
};

} // namespace

TEST_F(CacheProcessesTest, OfProcessesThatFillAnEntryOneFetches) {
    QProcess first;
    start(first, {u"fill"_qs, u"content of the first"_qs});
    ASSERT_EQ(nextLine(first), "fetching");
    QProcess others[2];
    for (QProcess& other : others) {
        start(other, {u"fill"_qs, u"content of another"_qs});
        // It has met the fill of the first, which goes on only then.
        ASSERT_EQ(nextLine(other), "waiting");
    }
    first.write("\n");
    EXPECT_EQ(nextLine(first), "filled");
    for (QProcess& other : others) {
        EXPECT_EQ(nextLine(other), "filled");
        EXPECT_TRUE(other.state() == QProcess::NotRunning || other.waitForFinished(-1));
        EXPECT_EQ(other.exitCode(), 0);
    }
    EXPECT_TRUE(first.state() == QProcess::NotRunning || first.waitForFinished(-1));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "content of the first");
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheProcessesTest, AKilledFillLeavesNoEntryAndIsResumed) {
    QProcess killed;
    start(killed, {u"half"_qs, u"whole content"_qs});
    ASSERT_EQ(nextLine(killed), "half");
    const auto waiting = cache.fillTask(
        nullptr, kEntry,
        [](const DirPath& directory) {
            const QString target = directory.child(u"run1.mzML"_qs);
            EXPECT_EQ(orx::testing::readFile(target + u".part"_qs), "whole ");
            EXPECT_TRUE(orx::testing::writeFile(target + u".part"_qs, "whole content"));
            EXPECT_TRUE(QFile::rename(target + u".part"_qs, target));
            return probes::taskWith(QVariant());
        },
        ResourceCache::FillMode::Missing);
    waiting->exec();
    EXPECT_TRUE(waiting->waitForFinished(0).is(ErrorCode::TimedOut));
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_TRUE(subPaths().isEmpty());
    killed.kill();
    ASSERT_TRUE(killed.waitForFinished(-1));
    EXPECT_FALSE(waiting->waitForFinished().hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "whole content");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheProcessesTest, AKilledWriterLeavesTheOldEntry) {
    ASSERT_FALSE(fill(kEntry, "old content").hasError());
    QProcess killed;
    start(killed, {u"write"_qs, u"new content"_qs});
    ASSERT_EQ(nextLine(killed), "half");
    killed.kill();
    ASSERT_TRUE(killed.waitForFinished(-1));
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old content");
    EXPECT_EQ(staged().size(), 1);
    const auto writer = [this] {
        const auto path = cache.expectedPath(kEntry);
        return path && orx::testing::writeFile(path->toString(), "new content")
                   ? Error()
                   : Error(ErrorCode::General, {});
    };
    ASSERT_FALSE(cache.add(nullptr, kEntry, writer).hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "new content");
    ASSERT_TRUE(cache.prune());
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheProcessesTest, WhatAnotherProcessReadsIsNotRemovedUntilItEnds) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    QProcess reader;
    start(reader, {u"lease"_qs});
    ASSERT_EQ(nextLine(reader), "leased");
    const auto report = cache.prune({0, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->inUse, 1);
    EXPECT_TRUE(report->removed.isEmpty());
    EXPECT_TRUE(cache.remove(kEntry).is(ErrorCode::Busy));
    EXPECT_TRUE(cache.contains(kEntry));
    reader.kill();
    ASSERT_TRUE(reader.waitForFinished(-1));
    EXPECT_EQ(cache.prune({0, std::nullopt})->removed.size(), 1);
    EXPECT_FALSE(cache.contains(kEntry));
}
