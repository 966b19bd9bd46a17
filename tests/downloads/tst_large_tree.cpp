// A tree that is wide and deep comes down with few descriptors, and a small file with few flushes.
#include "CacheDownloads.h"

#include <ResourceManager.h>

#include <QDirIterator>

#include <atomic>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<int> flushes = 0;

} // namespace

// Every flush of this process comes by here, those of SQLite and of the libraries, too.
extern "C" int fsync(int descriptor) {
    ++flushes;
    return int(::syscall(SYS_fsync, descriptor));
}

extern "C" int fdatasync(int descriptor) {
    ++flushes;
    return int(::syscall(SYS_fdatasync, descriptor));
}

namespace orx::testing {
namespace {

int openDescriptors() {
    return int(QDir(QStringLiteral("/proc/self/fd"))
                   .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)
                   .size());
}

//! The limit of open files of this process, for the life of the object.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t count) {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit few{count, m_before.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    }
    ~FewDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit m_before{};
};

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
    ASSERT_FALSE(run(*download(raw)).hasError());
    EXPECT_LE(flushes, 3 * 20 + 4)
        << "the content in the cache, the copy and its directory; a few for the database";
    EXPECT_GE(flushes, 3 * 20);
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
