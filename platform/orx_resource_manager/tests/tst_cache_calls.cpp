// What looks at a cache and adds to it on the thread of an event loop takes a few calls, however much there
// is to look at; and what is brought to its place on file systems that cannot exchange two names. The calls
// are counted, or fail as they do there, so that this is a program of its own.
#include "CacheFixture.h"

#include "RemoteResourceHandler.h"

#include <SQLiteCpp/Database.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <string_view>

namespace {

//! Of this thread.
thread_local int diskCalls = 0;
//! Whether renameat2() answers as on a file system that does not know its flags.
std::atomic<bool> isExchangeUnknown = false;
//! The renameat() that fails, counted down to 0; negative: none.
std::atomic<int> renamesLeft = -1;

//! Whether directories tell only the names of what they hold, as on some file systems.
std::atomic<bool> isKindUnknown = false;

//! What opening the file of this name ends with; 0: nothing.
std::atomic<int> openFailure = 0;
constexpr const char* kUnreadable = "unreadable";
//! How often the records can be opened by SQLite from then on; negative: as often as one likes.
std::atomic<int> opensLeft = -1;

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// All by which the cache looks at files; the last one is how SQLite reads.
extern "C" int fstatat(int directory, const char* name, struct stat* status, int flags) {
    static const auto call = next<int(int, const char*, struct stat*, int)>("fstatat");
    ++diskCalls;
    return call(directory, name, status, flags);
}

extern "C" int openat(int directory, const char* name, int flags, ...) {
    static const auto call = next<int(int, const char*, int, mode_t)>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    ++diskCalls;
    if (openFailure == 0 || std::strcmp(name, kUnreadable) != 0)
        return call(directory, name, flags, mode);
    errno = openFailure;
    return -1;
}

extern "C" int open64(const char* name, int flags, ...) {
    static const auto call = next<int(const char*, int, mode_t)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool isRecords = std::string_view(name).ends_with("/cache.sqlite");
    if (!isRecords || opensLeft < 0 || opensLeft-- > 0)
        return call(name, flags, mode);
    opensLeft = 0;
    errno = EMFILE;
    return -1;
}

extern "C" dirent* readdir(DIR* stream) {
    static const auto call = next<dirent*(DIR*)>("readdir");
    ++diskCalls;
    return call(stream);
}

extern "C" ssize_t getdents64(int directory, void* block, size_t size) {
    static const auto call = next<ssize_t(int, void*, size_t)>("getdents64");
    const ssize_t got = call(directory, block, size);
    auto* const first = static_cast<char*>(block);
    for (ssize_t at = 0; isKindUnknown && at < got;) {
        auto* const entry = reinterpret_cast<dirent64*>(first + at);
        entry->d_type = DT_UNKNOWN;
        at += entry->d_reclen;
    }
    return got;
}

extern "C" ssize_t pread64(int file, void* data, size_t size, off64_t at) {
    static const auto call = next<ssize_t(int, void*, size_t, off64_t)>("pread64");
    ++diskCalls;
    return call(file, data, size, at);
}

extern "C" int renameat2(int from, const char* name, int to, const char* there, unsigned flags) {
    static const auto call = next<int(int, const char*, int, const char*, unsigned)>("renameat2");
    if (!isExchangeUnknown)
        return call(from, name, to, there, flags);
    errno = EINVAL;
    return -1;
}

extern "C" int renameat(int from, const char* name, int to, const char* there) {
    static const auto call = next<int(int, const char*, int, const char*)>("renameat");
    if (renamesLeft < 0 || renamesLeft-- > 0)
        return call(from, name, to, there);
    errno = EIO;
    return -1;
}

// So many files take long to flush, and nothing here is to outlive the test.
extern "C" int fsync(int) {
    return 0;
}

extern "C" int fdatasync(int) {
    return 0;
}

using namespace orx;

namespace {

constexpr int kFiles = 300;
//! What takes the same however much there is stays below it, what looks at each file cannot.
constexpr int kFewCalls = 40;
const QString kFolder = QStringLiteral("server/file/12/3/raw");

//! Its resource is a directory that is in the cache already.
class CachedDirectoryHandler final : public RemoteResourceHandler {
public:
    explicit CachedDirectoryHandler(ResourceCache* cache)
        : RemoteResourceHandler(probes::sampleReference(), cache) {}

protected:
    using RemoteResourceHandler::retrieveTask;
    std::unique_ptr<Task> existsTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveTask(const DirPath&) override {
        ADD_FAILURE() << "fetched without need";
        return nullptr;
    }
    QString subCachePath() const override { return kFolder; }
};

class CacheCallsTest : public orx::testing::CacheFixture {
protected:
    QString makeDirectory() const {
        const QString top = path(QStringLiteral("raw"));
        for (int i = 0; i < kFiles; ++i)
            EXPECT_TRUE(orx::testing::writeFile(top + QStringLiteral("/part%1/%2").arg(i % 7).arg(i), "x"));
        return top;
    }
    void addDirectory() {
        ASSERT_FALSE(cache.add(nullptr, kFolder, Path(makeDirectory())).hasError());
        ASSERT_TRUE(cache.waitForPending().isEmpty());
        ASSERT_TRUE(cache.contains(kFolder)); // what is opened once is open after that
    }
    //! What \a work costs on this thread.
    static int callsOf(const std::function<void()>& work) {
        diskCalls = 0;
        work();
        return diskCalls;
    }
};

} // namespace

TEST_F(CacheCallsTest, ADirectoryIsFoundByItsTopAlone) {
    addDirectory();
    EXPECT_LT(callsOf([this] { EXPECT_TRUE(cache.contains(kFolder)); }), kFewCalls);
    EXPECT_LT(callsOf([this] {
                  const auto lease = cache.lease(kFolder);
                  ASSERT_TRUE(lease && lease->isHeld());
                  EXPECT_FALSE(lease->isWhole());
              }),
              kFewCalls);
    const auto handler = QSharedPointer<CachedDirectoryHandler>::create(&cache);
    EXPECT_LT(callsOf([&] { EXPECT_TRUE(handler->isAvailableLocally()); }), kFewCalls);
}

TEST_F(CacheCallsTest, ARetrievalLooksAtADirectoryOnAWorker) {
    addDirectory();
    for (const auto mode :
         {ResourceHandler::RetrieveMode::CacheFirst, ResourceHandler::RetrieveMode::CacheOnly}) {
        const auto handler = QSharedPointer<CachedDirectoryHandler>::create(&cache);
        handler->overrideRetrieveMode(mode);
        const int calls = callsOf([&] {
            const auto retrieved = handler->retrieve();
            EXPECT_TRUE(retrieved) << qPrintable(retrieved.errorMessage());
        });
        EXPECT_LT(calls, kFewCalls);
    }
}

TEST_F(CacheCallsTest, ADirectoryIsAddedWithoutLookingIntoIt) {
    ASSERT_FALSE(fill(u"opens what is opened once"_qs, "x").hasError());
    ASSERT_TRUE(cache.contains(u"opens what is opened once"_qs));
    const QString top = makeDirectory();
    EXPECT_LT(callsOf([&] { EXPECT_FALSE(cache.add(nullptr, kFolder, Path(top)).hasError()); }), kFewCalls);
    EXPECT_LT(callsOf([this] { EXPECT_TRUE(cache.waitForPending().isEmpty()); }), kFewCalls);
    EXPECT_EQ(cache.entries()->last().files, kFiles);
}

TEST_F(CacheCallsTest, WhatAWriterReplacesIsLeftToAWorker) {
    addDirectory();
    EXPECT_LT(callsOf([this] {
                  const Error error = cache.add(nullptr, kFolder, [this] {
                      EXPECT_TRUE(
                          orx::testing::writeFile(cache.expectedPath(kFolder)->toString(), "one file"));
                      return Error();
                  });
                  EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
              }),
              kFewCalls);
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(cache.entries()->first().files, 1);
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheCallsTest, TheCallsOfWhoLooksAtEverythingAreCounted) {
    addDirectory();
    EXPECT_GT(callsOf([this] { EXPECT_TRUE(cache.verify()->damaged.isEmpty()); }), 2 * kFiles);
}

namespace {

class CacheWithoutExchangeTest : public orx::testing::CacheFixture {
protected:
    CacheWithoutExchangeTest() { isExchangeUnknown = true; }
    ~CacheWithoutExchangeTest() override {
        isExchangeUnknown = false;
        renamesLeft = -1;
    }
    QStringList inContent() const {
        return QDir(placeOf(u"server"_qs)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    const QString kFile = QStringLiteral("server/run1.mzML");
};

class CacheWithoutKindsTest : public orx::testing::CacheFixture {
protected:
    CacheWithoutKindsTest() { isKindUnknown = true; }
    ~CacheWithoutKindsTest() override { isKindUnknown = false; }
};

} // namespace

TEST_F(CacheWithoutKindsTest, LeftoversAreFoundAndEntriesStay) {
    for (const QString& entry : {u"s/1/run"_qs, u"s/2/run"_qs, u"t"_qs})
        ASSERT_FALSE(fill(entry, "x").hasError());
    for (const QString& leftover : {u"s/1/left"_qs, u"s/3/over"_qs, u"u"_qs})
        ASSERT_TRUE(orx::testing::writeFile(placeOf(leftover), "x"));
    ASSERT_TRUE(QFile::link(path(u"elsewhere"_qs), placeOf(u"s/link"_qs)));
    const auto report = cache.prune();
    ASSERT_TRUE(report);
    EXPECT_TRUE(report->problems.isEmpty());
    const auto names = [this](const QString& directory) {
        return QDir(placeOf(directory)).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    };
    EXPECT_EQ(names(QString()), (QStringList{u"s"_qs, u"t"_qs}));
    EXPECT_EQ(names(u"s"_qs), (QStringList{u"1"_qs, u"2"_qs}));
    EXPECT_EQ(names(u"s/1"_qs), QStringList{u"run"_qs});
    EXPECT_TRUE(cache.contains(u"s/1/run"_qs) && cache.contains(u"s/2/run"_qs) && cache.contains(u"t"_qs));
}

TEST_F(CacheWithoutExchangeTest, ContentComesToAFreePlaceAndToOneThatIsTaken) {
    ASSERT_FALSE(fill(kFile, "old").hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kFile)), "old");
    ASSERT_FALSE(fill(kFile, "new", true).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kFile)), "new");
    EXPECT_TRUE(cache.contains(kFile));
    EXPECT_EQ(inContent(), QStringList{u"run1.mzML"_qs});
    EXPECT_TRUE(staged().isEmpty());
    // A directory takes the place of a leftover file.
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"server/raw"_qs), "left"));
    ASSERT_TRUE(orx::testing::writeFile(path(u"raw/a"_qs), "1"));
    ASSERT_FALSE(cache.add(nullptr, u"server/raw"_qs, Path(path(u"raw"_qs))).hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_EQ(orx::testing::readFile(placeOf(u"server/raw/a"_qs)), "1");
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheWithoutExchangeTest, WhereverItFailsTheOldEntryIsThereAsBefore) {
    ASSERT_FALSE(fill(kFile, "old").hasError());
    for (const int renames :
         {0, 1, 2}) { // the old one away, the new one to its place, the old one to staging
        renamesLeft = renames;
        EXPECT_TRUE(fill(kFile, "new", true).hasError());
        renamesLeft = -1;
        EXPECT_EQ(orx::testing::readFile(placeOf(kFile)), "old");
        EXPECT_TRUE(cache.contains(kFile));
        EXPECT_EQ(inContent(), QStringList{u"run1.mzML"_qs});
    }
    EXPECT_FALSE(fill(kFile, "new", true).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kFile)), "new");
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheWithoutExchangeTest, WithoutARecordTheOldEntryComesBack) {
    ASSERT_FALSE(fill(kFile, "old").hasError());
    SQLite::Database(database().toStdString(), SQLite::OPEN_READWRITE, 10'000)
        .exec(
            "CREATE TRIGGER refusal BEFORE UPDATE OF sha256 ON entries BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_TRUE(fill(kFile, "new", true).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kFile)), "old");
    EXPECT_TRUE(cache.contains(kFile));
    EXPECT_EQ(inContent(), QStringList{u"run1.mzML"_qs});
}

namespace {

class CacheWithoutAccessTest : public orx::testing::CacheFixture {
protected:
    ~CacheWithoutAccessTest() override {
        openFailure = 0;
        opensLeft = -1;
    }
    QStringList setAside() const {
        return QFileInfo(database()).dir().entryList({u"cache.sqlite.damaged-*"_qs});
    }
    const QString kFile = QString::fromLatin1(kUnreadable);
};

} // namespace

TEST_F(CacheWithoutAccessTest, VerificationTellsWhatItCouldNotReadAndLeavesIt) {
    ASSERT_FALSE(fill(kFile, "content").hasError());
    ASSERT_FALSE(cache.setCleanupPolicy(kFile, ResourceCleanupPolicy::Keep).hasError());
    for (const int failure : {EACCES, EIO}) {
        openFailure = failure;
        const auto report = cache.verify();
        openFailure = 0;
        ASSERT_TRUE(report) << qPrintable(report.errorMessage());
        EXPECT_TRUE(report->damaged.isEmpty());
        ASSERT_EQ(report->problems.size(), 1);
        EXPECT_TRUE(report->problems.first().contains(kFile));
        EXPECT_TRUE(cache.contains(kFile));
    }
    EXPECT_EQ(*cache.cleanupPolicy(kFile), ResourceCleanupPolicy::Keep);
    openFailure = ENOENT;
    EXPECT_EQ(cache.verify()->damaged.size(), 1);
}

TEST_F(CacheWithoutAccessTest, PruningTellsWhatItCouldNotLookIntoAndTakesTheRest) {
    ASSERT_FALSE(fill(kFile + u"/1"_qs, "content").hasError());
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"left"_qs), "x"));
    openFailure = EACCES;
    const auto report = cache.prune();
    openFailure = 0;
    ASSERT_TRUE(report) << qPrintable(report.errorMessage());
    ASSERT_EQ(report->problems.size(), 1);
    EXPECT_TRUE(report->problems.first().contains(placeOf(kFile)));
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"left"_qs)));
    EXPECT_TRUE(cache.contains(kFile + u"/1"_qs));
}

TEST_F(CacheWithoutAccessTest, RecordsThatNobodyCanJudgeAreNotSetAside) {
    ASSERT_TRUE(ResourceCache(root()).entries());
    ASSERT_TRUE(orx::testing::writeFile(database(), QByteArray(4096, '?')));
    ResourceCache other(root());
    opensLeft = 1; // meets the damage
    EXPECT_TRUE(other.entries().hasError());
    EXPECT_EQ(opensLeft, 0);
    EXPECT_TRUE(setAside().isEmpty());
    opensLeft = -1;
    EXPECT_TRUE(other.entries());
    EXPECT_EQ(setAside().size(), 1);
}
