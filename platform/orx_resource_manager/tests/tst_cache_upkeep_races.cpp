#include "CacheUpkeepFixture.h"

#include "RemoteResourceHandler.h"

#include <QThread>

#include <poll.h>
#include <sys/inotify.h>
#include <thread>

using namespace orx;

namespace {

//! What others do to entries while they are removed or verified.
class CacheUpkeepRacesTest : public orx::testing::CacheUpkeepFixture {
protected:
    //! Runs \a statement when the first entry goes: after the list of those to go was made and before the
    //! others of it go.
    void whenTheFirstGoes(const std::string& statement) {
        execute("CREATE TRIGGER meanwhile AFTER DELETE ON entries WHEN old.sub_path = 'a' BEGIN " +
                statement + "; END");
    }
    //! Replaces the entry "b" by content of the same size and time.
    std::unique_ptr<Task> replaceKeepingTime(const QByteArray& content) {
        struct stat before {};
        EXPECT_EQ(::stat(QFile::encodeName(placeOf(u"b"_qs)).constData(), &before), 0);
        return cache.fillTask(
            nullptr, u"b"_qs,
            [before, content](const DirPath& directory) {
                const QString path = directory.child(u"b"_qs);
                EXPECT_TRUE(orx::testing::writeFile(path, content));
                const struct timespec times[2] = {before.st_atim, before.st_mtim};
                EXPECT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
                return probes::taskWith(QVariant());
            },
            ResourceCache::FillMode::Anew);
    }
    //! Verifies from beside \a fill, which has brought its content and waits to write the record, and lets it
    //! go on when that content was read.
    Result<ResourceCache::VerifyReport> verifyDuring(Task& fill, const QByteArray& content) {
        SQLite::Database writer(database().toStdString(), SQLite::OPEN_READWRITE, 10'000);
        writer.exec("BEGIN IMMEDIATE");
        fill.exec();
        while (orx::testing::readFile(placeOf(u"b"_qs)) != content) {
            QCoreApplication::processEvents();
            QThread::msleep(1);
        }
        bool isHeld = true;
        ResourceCache other(root());
        return other.verify([&](qint64 bytes) {
            if (bytes > 100 && std::exchange(isHeld, false))
                writer.exec("COMMIT");
            return true;
        });
    }
};

} // namespace

TEST_F(CacheUpkeepRacesTest, WhatIsPinnedWhileOthersGoStays) {
    whenTheFirstGoes("UPDATE entries SET policy = 1 WHERE sub_path = 'c'");
    const auto report = cache.prune({0, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), (QStringList{u"a"_qs, u"b"_qs}));
    EXPECT_EQ(report->bytesRemoved, 200);
    EXPECT_EQ(report->bytesLeft, 100);
    EXPECT_TRUE(cache.contains(u"c"_qs));
}

TEST_F(CacheUpkeepRacesTest, WhatIsUsedWhileOthersGoStaysAndAnotherGoesInItsStead) {
    execute("UPDATE entries SET used_ms = 1 WHERE sub_path IN ('a', 'b')");
    execute("UPDATE entries SET used_ms = 2 WHERE sub_path = 'c'");
    whenTheFirstGoes("UPDATE entries SET used_ms = 3 WHERE sub_path = 'b'");
    const auto report = cache.prune({150, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), (QStringList{u"a"_qs, u"c"_qs}));
    EXPECT_TRUE(cache.contains(u"b"_qs));
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"c"_qs)));
}

TEST_F(CacheUpkeepRacesTest, VerificationLeavesWhatIsJustBroughtToItsPlace) {
    const QByteArray content(100, 'y');
    const auto fill = replaceKeepingTime(content);
    const auto report = verifyDuring(*fill, content);
    ASSERT_TRUE(report) << report.errorMessage().toStdString();
    EXPECT_FALSE(fill->waitForFinished().hasError());
    EXPECT_TRUE(report->damaged.isEmpty());
    EXPECT_EQ(report->entries, 3);
    EXPECT_TRUE(cache.contains(u"b"_qs));
    EXPECT_EQ(orx::testing::readFile(placeOf(u"b"_qs)), content);
}

TEST_F(CacheUpkeepRacesTest, VerificationLeavesWhatComesBackWhenItsReplacementFails) {
    execute("CREATE TRIGGER refusal BEFORE UPDATE OF sha256 ON entries BEGIN SELECT RAISE(ABORT, 'no'); END");
    const QByteArray content(100, 'y');
    const auto fill = replaceKeepingTime(content);
    const auto report = verifyDuring(*fill, content);
    ASSERT_TRUE(report) << report.errorMessage().toStdString();
    EXPECT_TRUE(fill->waitForFinished().hasError());
    EXPECT_TRUE(report->damaged.isEmpty());
    EXPECT_EQ(report->entries, 3);
    EXPECT_TRUE(cache.contains(u"b"_qs));
    EXPECT_EQ(orx::testing::readFile(placeOf(u"b"_qs)), QByteArray(100, 'x'));
}

namespace {

//! Tells when somebody has read a directory.
class ReadingWatch {
public:
    explicit ReadingWatch(const QString& directory) : m_events(::inotify_init1(IN_CLOEXEC)) {
        EXPECT_GE(::inotify_add_watch(m_events, QFile::encodeName(directory).constData(), IN_CLOSE_NOWRITE),
                  0);
    }
    ~ReadingWatch() { ::close(m_events); }
    void wait() const {
        struct pollfd ready {
            m_events, POLLIN, 0
        };
        while (::poll(&ready, 1, -1) < 0) {
        }
    }

private:
    int m_events;
};

//! Of the file "s/f", which must not be fetched.
class FileHandler final : public RemoteResourceHandler {
public:
    explicit FileHandler(ResourceCache* cache) : RemoteResourceHandler(probes::sampleReference(), cache) {
        overrideRetrieveMode(RetrieveMode::CacheOnly);
    }

protected:
    using RemoteResourceHandler::retrieveTask;
    std::unique_ptr<Task> existsTask() const override { return probes::taskWith(true); }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return probes::taskWith(QVariant()); }
    std::unique_ptr<Task> retrieveTask(const DirPath&) override {
        ADD_FAILURE() << "fetched";
        return nullptr;
    }
    QString subCachePath() const override { return u"s/f"_qs; }
};

//! Readers of the directory "d" while another content takes its place.
class CacheLookRacesTest : public CacheUpkeepRacesTest {
protected:
    void SetUp() override {
        CacheUpkeepRacesTest::SetUp();
        ASSERT_FALSE(replace("old")->waitForFinished().hasError());
    }
    //! Running.
    std::unique_ptr<Task> replace(const QByteArray& content) {
        auto task = cache.fillTask(
            nullptr, u"d"_qs,
            [content](const DirPath& directory) {
                EXPECT_TRUE(orx::testing::writeFile(directory.child(u"d"_qs) + u"/sub/f"_qs, content));
                return probes::taskWith(QVariant());
            },
            ResourceCache::FillMode::Anew);
        task->exec();
        return task;
    }
    QByteArray content() const { return orx::testing::readFile(placeOf(u"d/sub/f"_qs)); }
    //! Makes \a look from beside a replacement that has brought its content and waits to write the record,
    //! and lets that go on when the content was read.
    Error lookDuringReplacement(const std::function<Error()>& look) {
        SQLite::Database writer(database().toStdString(), SQLite::OPEN_READWRITE, 10'000);
        writer.exec("BEGIN IMMEDIATE");
        const auto fill = replace("new content");
        while (content() != "new content") {
            QCoreApplication::processEvents();
            QThread::msleep(1);
        }
        const ReadingWatch watch(placeOf(u"d/sub"_qs));
        Error seen;
        std::thread reader([&] { seen = look(); });
        watch.wait();
        writer.exec("COMMIT");
        Error error = fill->waitForFinished();
        reader.join();
        EXPECT_FALSE(seen.hasError()) << seen.errorMessage().toStdString();
        return error;
    }
    void refuseRecords() {
        execute("CREATE TRIGGER refusal BEFORE UPDATE OF sha256 ON entries BEGIN SELECT RAISE(ABORT, 'no'); "
                "END");
    }
    Error lookFromBeside() const { return ResourceCache(root()).look(u"d"_qs); }
    //! As a retrieval that must not fetch.
    Error takeFromBeside() const {
        ResourceCache other(root());
        const auto task =
            other.fillTask(nullptr, u"d"_qs, orx::testing::noFetch(), ResourceCache::FillMode::LookOnly);
        task->exec();
        return task->waitForFinished();
    }
};

} // namespace

TEST_F(CacheLookRacesTest, ALookWaitsForTheRecordOfWhatIsJustBrought) {
    EXPECT_FALSE(lookDuringReplacement([this] { return lookFromBeside(); }).hasError());
    EXPECT_EQ(content(), "new content");
    EXPECT_TRUE(cache.contains(u"d"_qs));
}

TEST_F(CacheLookRacesTest, WhatComesBackWhenItsReplacementFailsIsNotDamaged) {
    refuseRecords();
    EXPECT_TRUE(lookDuringReplacement([this] { return lookFromBeside(); }).hasError());
    EXPECT_EQ(content(), "old");
    EXPECT_TRUE(cache.contains(u"d"_qs));
}

TEST_F(CacheLookRacesTest, WhoTakesOnlyWhatIsThereGetsWhatIsJustBrought) {
    EXPECT_FALSE(lookDuringReplacement([this] { return takeFromBeside(); }).hasError());
    EXPECT_EQ(content(), "new content");
}

TEST_F(CacheLookRacesTest, WhoTakesOnlyWhatIsThereGetsWhatComesBack) {
    refuseRecords();
    EXPECT_TRUE(lookDuringReplacement([this] { return takeFromBeside(); }).hasError());
    EXPECT_EQ(content(), "old");
    EXPECT_TRUE(cache.contains(u"d"_qs));
}

TEST_F(CacheLookRacesTest, WhoIsCancelledDoesNotWaitForAnExchange) {
    ASSERT_TRUE(orx::testing::writeFile(placeOf(u"d/sub/f"_qs), "another size"));
    const orx::testing::HeldPlace held(root(), u"d"_qs);
    const ReadingWatch watch(placeOf(u"d/sub"_qs));
    const auto task =
        cache.fillTask(nullptr, u"d"_qs, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    task->exec();
    watch.wait();
    task->cancel();
    // A fifth of what it would wait else; it takes milliseconds.
    EXPECT_TRUE(task->waitForFinished(12'000).isCanceled());
    EXPECT_TRUE(task->isFinished());
}

TEST_F(CacheLookRacesTest, WhoTakesOnlyTheFileThatIsThereGetsWhatIsJustBrought) {
    ASSERT_FALSE(fill(u"s/f"_qs, "old").hasError());
    SQLite::Database writer(database().toStdString(), SQLite::OPEN_READWRITE, 10'000);
    writer.exec("BEGIN IMMEDIATE");
    const auto replacement = fillTask(u"s/f"_qs, "new content", true);
    replacement->exec();
    while (orx::testing::readFile(placeOf(u"s/f"_qs)) != "new content") {
        QCoreApplication::processEvents();
        QThread::msleep(1);
    }
    ResourceCache other(root());
    const auto handler = QSharedPointer<FileHandler>::create(&other);
    EXPECT_FALSE(handler->isAvailableLocally()) << "a look at the top does not wait";
    const auto retrieval = handler->retrieveAsync(ResourceHandler::AsyncProcessingType::StartedHere, nullptr);
    writer.exec("COMMIT");
    EXPECT_FALSE(replacement->waitForFinished().hasError());
    ASSERT_TRUE(retrieval && *retrieval) << qPrintable(retrieval.errorMessage());
    const Error taken = (*retrieval)->waitForFinished();
    EXPECT_FALSE(taken.hasError()) << qPrintable(taken.errorMessage());
    EXPECT_TRUE(handler->isAvailableLocally());
}

namespace {

constexpr const char* kBadRecord =
    "INSERT INTO entries (sub_path, kind, bytes, files, modified_ns, sha256, added_ms, used_ms) "
    "VALUES ('../b', 2, 1000, 1, 1, '', 1, 1)";

} // namespace

TEST_F(CacheUpkeepRacesTest, ARecordThatNamesNoPlaceIsPrunedLikeOthers) {
    execute(kBadRecord);
    const auto report = cache.prune({300, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(namesOf(report->removed), QStringList{u"../b"_qs});
    EXPECT_EQ(report->inUse, 0);
    EXPECT_EQ(report->bytesLeft, 300);
}

TEST_F(CacheUpkeepRacesTest, ARecordThatNamesNoPlaceIsDamagedAndDoesNotKeepOthersFromBeingVerified) {
    execute(kBadRecord);
    damage(placeOf(u"c"_qs));
    const auto report = cache.verify();
    ASSERT_TRUE(report) << report.errorMessage().toStdString();
    EXPECT_EQ(report->entries, 4);
    ASSERT_EQ(report->damaged.size(), 2);
    EXPECT_EQ(report->damaged.first().first, u"../b"_qs);
    EXPECT_EQ(report->damaged.last().first, u"c"_qs);
    EXPECT_EQ(subPaths(), (QStringList{u"a"_qs, u"b"_qs}));
}
