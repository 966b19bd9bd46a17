// A large tree goes up with few descriptors, its files are looked into once, and what is counted beforehand
// grows with the number of entries. A program of its own: it counts the system calls of its process.
#include "TreeUploads.h"

#include <FewDescriptors.h>
#include <HalvaneConnection.h>
#include <ResourceManager.h>
#include <UploadFileInputValidation.h>
#include <UploadSums.h>

#include <QDateTime>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

//! Of files of the trees.
std::atomic<int> opens = 0;
std::atomic<int> looks = 0;

bool isOfTree(const char* path) {
    return path != nullptr && std::strstr(path, "/raw/chain ") != nullptr;
}

int openCounted(int directory, const char* path, int flags, mode_t mode) {
    if (isOfTree(path) && (flags & O_DIRECTORY) == 0)
        ++opens;
    return int(::syscall(SYS_openat, directory, path, flags, mode));
}

} // namespace

// Every call of this process comes by here, those of the libraries, too.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = mode_t(va_arg(arguments, int));
    va_end(arguments);
    return openCounted(AT_FDCWD, path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = mode_t(va_arg(arguments, int));
    va_end(arguments);
    return openCounted(AT_FDCWD, path, flags, mode);
}

extern "C" int openat(int directory, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const auto mode = mode_t(va_arg(arguments, int));
    va_end(arguments);
    return openCounted(directory, path, flags, mode);
}

extern "C" int statx(int directory, const char* path, int flags, unsigned int mask, struct statx* buffer) {
    if (isOfTree(path))
        ++looks;
    return int(::syscall(SYS_statx, directory, path, flags, mask, buffer));
}

namespace orx::testing {
namespace {

class TreeLimits : public TreeUploads {
protected:
    TreeLimits() {
        // The proxy would take descriptors of this process.
        HalvaneConnection::instance().setSettings(
            HalvaneSettings(HalvaneMachineSettings(server.url()), HalvaneUserSettings()));
    }
    //! So many files in chains of folders, each chain so many levels deep, ten files a folder.
    void makeTree(int files, int levels) {
        for (int folder = 0; folder * 10 < files; ++folder) {
            QString path = text("chain %1/").arg(folder / levels);
            for (int level = 1; level <= folder % levels; ++level)
                path += text("level %1/").arg(level);
            for (int i = 0; i < 10; ++i)
                put(path + text("run %1.bin").arg(i), 40 + i);
        }
        // What is as young as the clock is coarse is not remembered, since it might change unseen.
        const qint64 made = QDateTime::currentMSecsSinceEpoch();
        EXPECT_TRUE(waitUntil([made] { return QDateTime::currentMSecsSinceEpoch() > made + 200; }));
    }
    struct Counts {
        int opens;
        int looks;
        int listings;
        int maximum;
    };
    //! Of making the task, which sums up the maximum of the progress.
    Counts countsOfMaking() {
        opens = looks = 0;
        const quint64 before = UploadSums::instance().listings();
        const auto task = upload();
        return {opens, looks, int(UploadSums::instance().listings() - before), task->maxProgress()};
    }
};

TEST_F(TreeLimits, ALargeTreeGoesUpWithFewDescriptorsAndEachFileIsLookedIntoOnce) {
    constexpr int files = 1'000;
    constexpr int levels = 12;
    ResourceManager::setCache(nullptr);
    makeTree(files, levels);
    opens = 0;
    const FewDescriptors limit(96);
    const auto task = upload();
    EXPECT_EQ(opens, 0) << "nothing is looked into on the thread of the task";
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{files, 0, 0}));
    EXPECT_EQ(task->currentProgress(), files * 102);
    EXPECT_EQ(opens, 3 * files) << "one probe, one journal record and one upload of each";
}

TEST_F(TreeLimits, WhatWaitsForTheCacheTakesFewDescriptorsToo) {
    constexpr int files = 500;
    makeTree(files, 3);
    const FewDescriptors limit(192); // what waits may keep 64
    const auto task = upload();
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{files, 0, 0}));
    cache->waitForPending();
    const auto entries = cache->entries();
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->size(), files);
}

TEST_F(TreeLimits, TheMaximumCostsTheSameForEachEntryHoweverManyThereAre) {
    makeTree(400, 4);
    const Counts few = countsOfMaking();
    EXPECT_EQ(few.maximum, 400 * 102);
    EXPECT_EQ(few.opens, 0);
    makeTree(1'600, 4);
    const Counts many = countsOfMaking();
    EXPECT_EQ(many.maximum, 1'600 * 102);
    EXPECT_EQ(many.opens, 0);
    // A directory tells the kinds of its entries, or they are looked at once each.
    EXPECT_LE(few.looks, 3 * 441);
    EXPECT_LE(many.looks, 3 * 1'761);
    EXPECT_EQ(few.listings, 41);
    EXPECT_GE(many.listings, 120) << "or nothing was counted";
    EXPECT_LE(many.listings, 161);
}

TEST_F(TreeLimits, FoldersDoNotSumUpAgainWhatTheOnesAboveThemHaveSummedUp) {
    makeTree(400, 4);
    const auto& sums = UploadSums::instance();
    const auto isRemembered = [&] {
        const quint64 before = sums.listings();
        (void)upload();
        return sums.listings() == before;
    };
    ASSERT_TRUE(waitUntil(isRemembered)) << "as soon as it is old enough";
    // That forgets it.
    UploadFileInputValidation::setFilters(UploadFileInputValidation::filters());
    const quint64 before = sums.listings();
    const auto task = upload();
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(sums.listings() - before, 41U) << "each directory once";
}

} // namespace
} // namespace orx::testing
