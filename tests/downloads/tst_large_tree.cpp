// A tree that is wide and deep comes down with few descriptors, and a small file with few flushes.
#include "CacheDownloads.h"

#include <FewDescriptors.h>
#include <ResourceManager.h>

#include <QDirIterator>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <set>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<int> flushes = 0;
std::mutex directoryMutex;
//! What is watched; empty: nothing.
std::string watchedDirectory;
std::atomic<int> flushesOfDirectory = 0;
//! Of the watched one on the thread of the tests.
std::atomic<int> flushesHere = 0;
const std::thread::id here = std::this_thread::get_id();
//! Directories below it, by their paths, and how many of their flushes fail.
std::string watchedTree;
std::set<std::string> flushedInTree;
int failuresInTree = 0;
std::string failedInTree;

//! Whether it fails.
bool noteFlushInTree(const std::string& path) {
    if (watchedTree.empty() || !path.starts_with(watchedTree + '/') || path.find("/.") != std::string::npos ||
        !std::filesystem::is_directory(path))
        return false;
    if (failuresInTree > 0) {
        --failuresInTree;
        failedInTree = path;
        return true;
    }
    flushedInTree.insert(path);
    return false;
}

bool noteFlush(int descriptor) {
    ++flushes;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char path[4096];
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    const std::lock_guard lock(directoryMutex);
    if (length <= 0)
        return false;
    const std::string flushed(path, size_t(length));
    if (flushed == watchedDirectory) {
        ++flushesOfDirectory;
        flushesHere += std::this_thread::get_id() == here ? 1 : 0;
    }
    return noteFlushInTree(flushed);
}

void watch(const QString& directory) {
    const std::lock_guard lock(directoryMutex);
    watchedDirectory = QDir(directory).canonicalPath().toStdString();
    flushesOfDirectory = 0;
    flushesHere = 0;
}

void watchTree(const QString& directory, int failures) {
    const std::lock_guard lock(directoryMutex);
    watchedTree = directory.isEmpty() ? std::string() : QDir(directory).canonicalPath().toStdString();
    flushedInTree.clear();
    failuresInTree = failures;
    failedInTree.clear();
}

} // namespace

// Every flush of this process comes by here, those of SQLite and of the libraries, too.
extern "C" int fsync(int descriptor) {
    if (noteFlush(descriptor)) {
        errno = EIO;
        return -1;
    }
    return int(::syscall(SYS_fsync, descriptor));
}

extern "C" int fdatasync(int descriptor) {
    (void)noteFlush(descriptor);
    return int(::syscall(SYS_fdatasync, descriptor));
}

namespace orx::testing {
namespace {

int openDescriptors() {
    return int(QDir(QStringLiteral("/proc/self/fd"))
                   .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                   .size());
}

class LargeTree : public CacheDownloads {};
INSTANTIATE_TEST_SUITE_P(Real, LargeTree, ::testing::Values(Backend::Real), backendName);

TEST_P(LargeTree, OfTwelveLevelsComesDownWithFewDescriptorsAndHoldsNoneAfterwards) {
    constexpr int levels = 12;
    constexpr int filesPerLevel = 50;
    const int raw = makeFolder(text("raw"));
    for (int level = 1, folder = raw; level <= levels; ++level) {
        folder = makeFolder(text("level %1").arg(level), folder);
        for (int i = 0; i < filesPerLevel; ++i)
            makeFile(text("run %1").arg(i), QByteArray::number(i), folder);
    }
    {
        // What stays open for the life of the process is open after one file.
        const int alone = makeFolder(text("alone"));
        makeFile(text("a"), "1", alone);
        ASSERT_FALSE(run(*download(alone)).hasError());
    }
    const int before = openDescriptors();
    int most = 0;
    {
        const FewDescriptors limit(96);
        const auto task = download(raw);
        QObject::connect(task.get(), &BaseTask::progress, task.get(),
                         [&most] { most = std::max(most, openDescriptors()); });
        const Error error = run(*task);
        ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
        EXPECT_EQ(task->downloadedFileCount(), levels * filesPerLevel);
    }
    EXPECT_LE(most - before, 60) << "eight files and four listings at a time";
    EXPECT_LE(openDescriptors() - before, 8) << "idle connections may stay";
    int files = 0;
    QDirIterator it(at(QString()), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    for (; it.hasNext(); ++files)
        it.next();
    EXPECT_EQ(files, levels * filesPerLevel + 1);
    const auto entries = cache().entries();
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->size(), files);
}

TEST_P(LargeTree, ASmallFileIsFlushedInTheCacheAndInTheTargetAndNowhereElse) {
    const int raw = makeFolder(text("raw"));
    for (int i = 0; i < 20; ++i)
        makeFile(text("run %1").arg(i), "content", raw);
    {
        const int alone = makeFolder(text("alone"));
        makeFile(text("a"), "1", alone);
        ASSERT_FALSE(run(*download(alone)).hasError());
    }
    flushes = 0;
    watch(at(QString()));
    const auto task = download(raw);
    int atTheEnd = -1;
    QObject::connect(task.get(), &BaseTask::finished, [&atTheEnd] { atTheEnd = flushesOfDirectory; });
    ASSERT_FALSE(run(*task).hasError());
    EXPECT_LE(flushes, 2 * 20 + 1 + 4)
        << "the content in the cache and its copy; the directory once; a few for the database";
    EXPECT_GE(flushes, 2 * 20 + 1);
    EXPECT_EQ(atTheEnd, 1) << "when the end is told everything is durable";
}

TEST_P(LargeTree, WhatCameIsDurableWhateverBecameOfTheRest) {
    const int raw = makeFolder(text("raw"));
    for (int i = 0; i < 5; ++i)
        makeFile(text("run %1").arg(i), "content", raw);
    ASSERT_TRUE(QDir().mkpath(at(text("run 3/in the way"))));
    watch(at(QString()));
    {
        const auto failing = download(raw);
        failing->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
        int atTheEnd = -1;
        QObject::connect(failing.get(), &BaseTask::finished, [&atTheEnd] { atTheEnd = flushesOfDirectory; });
        EXPECT_TRUE(run(*failing).hasError());
        EXPECT_EQ(failing->downloadedFileCount(), 4);
        EXPECT_EQ(atTheEnd, 1);
    }
    flushesOfDirectory = 0;
    auto canceled = download(raw);
    canceled->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    QObject::connect(canceled.get(), &BaseTask::progress, canceled.get(), [&canceled] {
        if (canceled->downloadedFileCount() > 0)
            canceled->cancel();
    });
    flushesHere = 0;
    int atTheEnd = -1;
    QObject::connect(canceled.get(), &BaseTask::finished, [&atTheEnd] { atTheEnd = flushesOfDirectory; });
    EXPECT_TRUE(run(*canceled).isCanceled());
    EXPECT_EQ(atTheEnd, 1);
    canceled.reset();
    EXPECT_EQ(flushesOfDirectory, 1);
    EXPECT_EQ(flushesHere, 0) << "a worker waits for the disk";
}

// More of them than wait for their flushes at a time.
TEST_P(LargeTree, ADirectoryThatCannotBeFlushedIsAFailureThatHidesNoOther) {
    constexpr int directories = 80;
    const int raw = makeFolder(text("raw"));
    for (int i = 0; i < directories; ++i)
        makeFile(text("run"), "content", makeFolder(text("day %1").arg(i), raw));
    watchTree(at(QString()), 1);
    const auto task = download(raw);
    size_t flushedAtTheEnd = 0;
    QObject::connect(task.get(), &BaseTask::finished, [&flushedAtTheEnd] {
        const std::lock_guard lock(directoryMutex);
        flushedAtTheEnd = flushedInTree.size();
    });
    const Error error = run(*task);
    const QString failed = QString::fromStdString(failedInTree);
    watchTree(QString(), 0);
    ASSERT_FALSE(failed.isEmpty());
    EXPECT_EQ(task->downloadedFileCount(), directories);
    EXPECT_EQ(flushedAtTheEnd, size_t(directories - 1)) << "all others";
    ASSERT_EQ(task->failures().size(), 1);
    EXPECT_EQ(task->failures().first().path, QFileInfo(failed).fileName());
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EIO));
    EXPECT_TRUE(error.errorMessage().contains(QFileInfo(failed).fileName()))
        << qPrintable(error.errorMessage());
}

TEST_P(LargeTree, AFileByItselfIsDurableWhenItEnds) {
    const int file = makeFile(text("a"), "content");
    watch(at(QString()));
    ASSERT_FALSE(run(*downloadFile(file, 1, text("a"))).hasError());
    EXPECT_EQ(flushesOfDirectory, 1);
}

TEST_P(LargeTree, AReplacedEntryIsFlushedWithItsDirectoryAndItsRecord) {
    const int file = makeFile(text("a"), "content");
    ASSERT_FALSE(run(*downloadFile(file, 1, text("a"))).hasError());
    const auto handler =
        ResourceManager::getHandler(*HalvaneFileResourceReference::create(file, 1, text("a")));
    ASSERT_TRUE(handler);
    (*handler)->overrideRetrieveMode(ResourceHandler::RetrieveMode::Refresh);
    auto task = (*handler)->retrieveAsync(ResourceHandler::AsyncProcessingType::RunByCaller, nullptr);
    ASSERT_TRUE(task);
    flushes = 0;
    ASSERT_FALSE(run(**task).hasError());
    EXPECT_GE(flushes, 3);
}

TEST_P(LargeTree, PinningFlushesTheRecordAndAllDirectoriesOnTheWay) {
    const int file = makeFile(text("a"), "content");
    ASSERT_FALSE(run(*downloadFile(file, 1, text("a"))).hasError());
    const auto entries = cache().entries();
    ASSERT_TRUE(entries);
    ASSERT_EQ(entries->size(), 1);
    flushes = 0;
    ASSERT_FALSE(cache().setCleanupPolicy(entries->first().subPath, ResourceCleanupPolicy::Keep).hasError());
    EXPECT_GE(flushes, 1 + entries->first().subPath.count(u'/') + 1);
}

} // namespace
} // namespace orx::testing
