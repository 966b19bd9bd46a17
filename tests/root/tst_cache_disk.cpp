// The cache on a disk whose power goes off while it is filled, and on one that is full.
#include "MountedVolume.h"

#include <CacheEntries.h>
#include <ResourceCache.h>
#include <WorkerStepTask.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>
#include <QRandomGenerator>

using namespace orx;
using namespace orx::testing;

namespace {

constexpr int kEntries = 12;
const QString kTop = QStringLiteral("server");

QString rootOn(const MountedVolume& disk) {
    return disk.path() + QStringLiteral("/cache");
}

//! A process that fills all entries and then replaces them, killed when it said that \a replaced of them are
//! new. What it did after that may be on the disk or not.
bool fillUntilKilled(const QString& root, int replaced, const QString& preload) {
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    if (!preload.isEmpty()) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LD_PRELOAD"), preload);
        environment.insert(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("verify_asan_link_order=0"));
        process.setProcessEnvironment(environment);
    }
    process.start(QStringLiteral(CACHE_PROCESS),
                  {root, kTop, QStringLiteral("replace"), QString::number(kEntries)});
    const QByteArray awaited = "new " + QByteArray::number(replaced - 1);
    for (QByteArray line; line != awaited; line = process.readLine().trimmed())
        if (!process.canReadLine() && !process.waitForReadyRead(-1))
            return false;
    process.kill();
    return process.waitForFinished(-1);
}

//! What the cache hands out for one entry.
struct Served {
    //! Not fetched now: it was there.
    bool wasThere = false;
    QString path;
};

Served serve(ResourceCache& cache, int number) {
    Served served{true, cache.expectedPath(numberedEntry(kTop, number))->toString()};
    const auto task = cache.fillTask(
        nullptr, numberedEntry(kTop, number),
        [&](const DirPath& directory) -> std::unique_ptr<Task> {
            served.wasThere = false;
            return std::make_unique<WorkerStepTask>(QStringLiteral("fetch"), [=] {
                return writeNumberedEntry(directory.child(QString::number(number)), number, "now")
                           ? Error()
                           : Error(ErrorCode::FileNotWritable, directory.toString());
            });
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    const Error error = task->waitForFinished();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    return served;
}

struct Loss {
    //! Handed out though neither the old nor the new content.
    int damaged = 0;
    //! Not the new content though it was said to be there.
    int undone = 0;
};

Loss lossAfterPowerCut(int replaced, const QString& preload = QString()) {
    Loss loss;
    const auto disk = MountedVolume::ext4(64);
    if (!disk || !fillUntilKilled(rootOn(*disk), replaced, preload)) {
        ADD_FAILURE() << "the entries were not filled";
        return loss;
    }
    const auto after = disk->afterPowerCut();
    if (!after) {
        ADD_FAILURE() << "there is no disk after the power cut";
        return loss;
    }
    ResourceCache cache(rootOn(*after));
    for (int i = 0; i < kEntries; ++i) {
        const Served served = serve(cache, i);
        const bool isNew = served.wasThere && holdsNumberedEntry(served.path, i, "new");
        const bool isWhole = isNew || holdsNumberedEntry(served.path, i, served.wasThere ? "old" : "now");
        loss.damaged += isWhole ? 0 : 1;
        loss.undone += i < replaced && !isNew ? 1 : 0;
    }
    const auto verified = cache.verify();
    EXPECT_TRUE(verified && verified->damaged.isEmpty()) << qPrintable(verified.errorMessage());
    EXPECT_EQ(verified ? verified->entries : 0, kEntries);
    const auto pruned = cache.prune();
    EXPECT_TRUE(pruned) << qPrintable(pruned.errorMessage());
    return loss;
}

} // namespace

TEST(CacheDisk, AfterAPowerCutEachEntryIsWholeOrAbsentAndReplacedOnesStayReplaced) {
    for (int round = 0; round < 3; ++round) {
        const int replaced = 1 + int(QRandomGenerator::global()->bounded(kEntries));
        SCOPED_TRACE(replaced);
        const Loss loss = lossAfterPowerCut(replaced);
        EXPECT_EQ(loss.damaged, 0);
        EXPECT_EQ(loss.undone, 0);
    }
}

TEST(CacheDisk, APowerCutIsNoticedWhenNothingIsFlushed) {
    EXPECT_GT(lossAfterPowerCut(kEntries, QStringLiteral(ORX_NO_FLUSH_LIBRARY)).undone, 0);
}

namespace {

QString fileOf(const MountedVolume& disk, const char* name, int megabytes) {
    const QString path = disk.path() + u'/' + QString::fromLatin1(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    const QByteArray megabyte(1024 * 1024, name[0]);
    for (int i = 0; i < megabytes; ++i)
        EXPECT_EQ(file.write(megabyte), megabyte.size());
    return path;
}

//! Takes all the room there is.
QString fillUp(const MountedVolume& disk) {
    const QString path = disk.path() + QStringLiteral("/filler");
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    for (const qsizetype size : {1024 * 1024, 4096, 1}) {
        const QByteArray block(size, 'f');
        while (file.write(block) == size) {
        }
    }
    return path;
}

QByteArray contentAt(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
}

} // namespace

TEST(CacheDisk, AnAdditionToAFullOneLeavesTheOldEntryAndSaysWhatToDo) {
    const auto elsewhere = MountedVolume::tmpfs(64);
    const auto disk = MountedVolume::tmpfs(8);
    ASSERT_TRUE(elsewhere && disk);
    ResourceCache cache(rootOn(*disk));
    const QString entry = QStringLiteral("server/run1");
    ASSERT_FALSE(cache.add(nullptr, entry, Path(fileOf(*elsewhere, "old", 1))).hasError());
    ASSERT_EQ(cache.waitForPending(), QStringList());

    const QString large = fileOf(*elsewhere, "large", 20);
    ASSERT_FALSE(cache.add(nullptr, entry, Path(large)).hasError());
    const QStringList failures = cache.waitForPending();
    ASSERT_EQ(failures.size(), 1);
    const QString place = cache.expectedPath(entry)->toString();
    EXPECT_TRUE(failures.first().contains(u'"' + place + u'"')) << qPrintable(failures.first());
    EXPECT_TRUE(failures.first().contains(QStringLiteral("free some space there, or prune the cache")))
        << qPrintable(failures.first());
    EXPECT_TRUE(cache.contains(entry));
    EXPECT_EQ(contentAt(place), QByteArray(1024 * 1024, 'o'));
    EXPECT_TRUE(cache.verify()->damaged.isEmpty());
    EXPECT_TRUE(QDir(rootOn(*disk) + QStringLiteral("/state/staging")).isEmpty());
    // What was half copied is gone: there is room again.
    ASSERT_FALSE(cache.add(nullptr, entry, Path(fileOf(*elsewhere, "new", 4))).hasError());
    EXPECT_EQ(cache.waitForPending(), QStringList());
    EXPECT_EQ(contentAt(place), QByteArray(4 * 1024 * 1024, 'n'));
}

TEST(CacheDisk, AFillOfAFullOneLeavesTheOldEntryAndWorksWhenThereIsRoom) {
    const auto elsewhere = MountedVolume::tmpfs(64);
    const auto disk = MountedVolume::tmpfs(8);
    ASSERT_TRUE(elsewhere && disk);
    ResourceCache cache(rootOn(*disk));
    const QString entry = QStringLiteral("server/run1");
    const QString place = cache.expectedPath(entry)->toString();
    ASSERT_FALSE(cache.add(nullptr, entry, Path(fileOf(*elsewhere, "old", 1))).hasError());
    ASSERT_EQ(cache.waitForPending(), QStringList());
    const auto fill = [&](const QByteArray& content) {
        const auto task = cache.fillTask(
            nullptr, entry,
            [content](const DirPath& directory) -> std::unique_ptr<Task> {
                return std::make_unique<WorkerStepTask>(
                    QStringLiteral("fetch"), [content, path = directory.child(QStringLiteral("run1"))] {
                        QFile file(path);
                        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size()
                                   ? Error()
                                   : Error(ErrorCode::FileNotWritable, path);
                    });
            },
            ResourceCache::FillMode::Anew);
        task->exec();
        return task->waitForFinished();
    };
    const QString filler = fillUp(*disk);
    // An empty content needs no room, but its record does: that is where it fails.
    const Error error = fill(QByteArray());
    EXPECT_TRUE(error.is(ErrorCode::StorageFull)) << qPrintable(error.traceText());
    EXPECT_TRUE(error.errorMessage().contains(rootOn(*disk))) << qPrintable(error.errorMessage());
    EXPECT_EQ(contentAt(place), QByteArray(1024 * 1024, 'o'));
    EXPECT_TRUE(cache.contains(entry));

    ASSERT_TRUE(QFile::remove(filler));
    const Error later = fill("new");
    EXPECT_FALSE(later.hasError()) << qPrintable(later.traceText());
    EXPECT_EQ(contentAt(place), "new");
    EXPECT_TRUE(cache.verify()->damaged.isEmpty());
}
