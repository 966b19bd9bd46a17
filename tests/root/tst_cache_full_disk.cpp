// A cache on a full disk: pruning, which the messages name as the remedy, works all the same.
#include "MountedVolume.h"

#include <PathImpl.h>
#include <ResourceCache.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QStorageInfo>

#include <memory>

using namespace orx;
using namespace orx::testing;

namespace {

constexpr int kEntryBytes = 1'000'000;

class CacheOnAFullDisk : public ::testing::Test {
protected:
    void SetUp() override {
        disk = MountedVolume::tmpfs(8);
        ASSERT_TRUE(disk);
        QFile source(disk->path() + QStringLiteral("/source"));
        ASSERT_TRUE(source.open(QIODevice::WriteOnly));
        ASSERT_EQ(source.write(QByteArray(kEntryBytes, 'x')), kEntryBytes);
        source.close();
        cache = std::make_unique<ResourceCache>(root());
        for (const char* name : {"a", "b", "c"})
            ASSERT_FALSE(cache->add(nullptr, QString::fromLatin1(name), Path(source.fileName())).hasError());
        ASSERT_TRUE(cache->waitForPending().isEmpty());
    }
    QString root() const { return disk->path() + QStringLiteral("/cache"); }
    void fillUp() {
        QFile filler(disk->path() + QStringLiteral("/filler"));
        ASSERT_TRUE(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        while (filler.write(QByteArray(4096, 'x')) == 4096) {
        }
        QStorageInfo storage(disk->path());
        ASSERT_EQ(storage.bytesAvailable(), 0);
    }
    void expectPruned() {
        const auto report = cache->prune({kEntryBytes, std::nullopt});
        ASSERT_TRUE(report) << report.errorMessage().toStdString();
        EXPECT_EQ(report->removed.size(), 2);
        EXPECT_TRUE(report->problems.isEmpty()) << report->problems.join(u'\n').toStdString();
        EXPECT_TRUE(cache->contains(QStringLiteral("c")));
        EXPECT_EQ(QDir(root() + QStringLiteral("/content")).entryList(QDir::Files),
                  QStringList{QStringLiteral("c")});
        EXPECT_EQ(cache->entries()->size(), 1);
    }

    std::unique_ptr<MountedVolume> disk;
    std::unique_ptr<ResourceCache> cache;
};

} // namespace

TEST_F(CacheOnAFullDisk, IsPrunedByAProcessThatUsesIt) {
    fillUp();
    expectPruned();
}

TEST_F(CacheOnAFullDisk, IsPrunedByAProcessThatBegins) {
    cache.reset();
    fillUp();
    cache = std::make_unique<ResourceCache>(root());
    expectPruned();
}

TEST_F(CacheOnAFullDisk, IsPrunedWhenItIsOfAReleaseThatLeftNoMark) {
    cache.reset();
    ASSERT_TRUE(QFile::remove(root() + QStringLiteral("/state/is-a-cache")));
    fillUp();
    cache = std::make_unique<ResourceCache>(root());
    expectPruned();
}

TEST_F(CacheOnAFullDisk, IsPrunedTwice) {
    fillUp();
    expectPruned();
    ASSERT_TRUE(QFile::remove(disk->path() + QStringLiteral("/filler")));
    QFile source(disk->path() + QStringLiteral("/source"));
    ASSERT_FALSE(cache->add(nullptr, QStringLiteral("a"), Path(source.fileName())).hasError());
    ASSERT_FALSE(cache->add(nullptr, QStringLiteral("b"), Path(source.fileName())).hasError());
    ASSERT_TRUE(cache->waitForPending().isEmpty());
    ASSERT_FALSE(cache->setCleanupPolicy(QStringLiteral("c"), ResourceCleanupPolicy::Keep).hasError());
    fillUp();
    expectPruned();
}
