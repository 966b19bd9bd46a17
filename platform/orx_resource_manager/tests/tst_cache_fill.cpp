#include "CacheFixture.h"

#include <QDirIterator>
#include <QMap>

#include <atomic>
#include <csignal>
#include <sys/resource.h>

using namespace orx;

namespace {

const QString kEntry = QStringLiteral("server/run1.mzML");

//! Whether a fill has said that it waits for another one.
std::atomic<bool> isWaiting = false;

void noteWaiting(QtMsgType, const QMessageLogContext& context, const QString&) {
    if (QLatin1String(context.category) == QLatin1String("orx.cache.waiting"))
        isWaiting = true;
}

//! Lets isWaiting tell, while it lives.
class WaitingNoted {
public:
    WaitingNoted() {
        isWaiting = false;
        QLoggingCategory::setFilterRules(u"orx.cache.waiting.info=true"_qs);
        m_before = qInstallMessageHandler(noteWaiting);
    }
    ~WaitingNoted() {
        qInstallMessageHandler(m_before);
        QLoggingCategory::setFilterRules(QString());
    }

private:
    QtMessageHandler m_before;
};

class CacheFillTest : public orx::testing::CacheFixture {
protected:
    //! A fill whose fetch runs until the test finishes it; returns when it runs.
    struct OpenFill {
        std::unique_ptr<Task> task;
        QPointer<orx::testing::OpenFetch> fetch;
        QString directory;
    };
    void open(OpenFill& fill, const QString& subPath,
              ResourceCache::FillMode mode = ResourceCache::FillMode::Missing) {
        fill.task = cache.fillTask(
            nullptr, subPath,
            [&fill](const DirPath& directory) -> std::unique_ptr<Task> {
                auto fetch = std::make_unique<orx::testing::OpenFetch>();
                fill.fetch = fetch.get();
                fill.directory = directory.toString();
                return fetch;
            },
            mode);
        fill.task->exec();
        orx::testing::processUntil([&fill] { return fill.fetch && fill.fetch->isRunning(); });
    }
};

} // namespace

TEST_F(CacheFillTest, AValidEntryIsNotFetchedAgain) {
    ASSERT_FALSE(fill(kEntry, "content").hasError());
    const auto task =
        cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
}

TEST_F(CacheFillTest, ReplacingFetchesAnew) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    ASSERT_FALSE(fill(kEntry, "newer", true).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "newer");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(cache.entries()->first().sha256, orx::testing::sha256("newer"));
}

TEST_F(CacheFillTest, AFailedFetchLeavesWhatWasThere) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    const auto task = cache.fillTask(
        nullptr, kEntry,
        [](const DirPath&) { return probes::taskWith(QVariant(), Error(ErrorCode::Busy, u"no"_qs)); },
        ResourceCache::FillMode::Anew);
    task->exec();
    EXPECT_TRUE(task->waitForFinished().is(ErrorCode::Busy));
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
}

TEST_F(CacheFillTest, AFetchThatBringsNothingIsAnError) {
    const auto task = cache.fillTask(
        nullptr, kEntry, [](const DirPath&) { return probes::taskWith(QVariant()); },
        ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_TRUE(task->waitForFinished().is(ErrorCode::NotFound));
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, ALinkThatWasFetchedIsRefused) {
    const auto task = cache.fillTask(
        nullptr, kEntry,
        [](const DirPath& directory) {
            EXPECT_TRUE(QFile::link(QStringLiteral("/etc/passwd"), directory.child(u"run1.mzML"_qs)));
            return probes::taskWith(QVariant());
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    EXPECT_TRUE(task->waitForFinished().is(ErrorCode::InvalidArgument));
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, ContentThatTheServerDoesNotHaveIsNotKept) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    QString expected = orx::testing::sha256("the true one");
    cache.setChecksumSource([&](const ResourceReference& reference) {
        EXPECT_EQ(reference.name(), u"run1.mzML"_qs);
        return expected;
    });
    const auto fillKnown = [&](const QByteArray& content) {
        const auto task =
            cache.fillTask(probes::sampleReference(), kEntry, orx::testing::fetchOf(u"run1.mzML"_qs, content),
                           ResourceCache::FillMode::Anew);
        task->exec();
        return task->waitForFinished();
    };
    EXPECT_TRUE(fillKnown("another one").is(ErrorCode::ChecksumMismatch));
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_FALSE(fillKnown("the true one").hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "the true one");
}

TEST_F(CacheFillTest, WhoReplacesWhatIsPinnedByAnotherContentSaysSo) {
    ASSERT_FALSE(fill(kEntry, "pinned").hasError());
    ASSERT_FALSE(cache.setCleanupPolicy(kEntry, ResourceCleanupPolicy::Keep).hasError());
    const auto again = fillTask(kEntry, "pinned", true);
    again->exec();
    ASSERT_FALSE(again->waitForFinished().hasError());
    EXPECT_TRUE(again->error().warnings().isEmpty());

    const QString expected = orx::testing::sha256("of the server");
    cache.setChecksumSource([&](const ResourceReference&) { return expected; });
    const auto replacement = cache.fillTask(probes::sampleReference(), kEntry,
                                            orx::testing::fetchOf(u"run1.mzML"_qs, "of the server"),
                                            ResourceCache::FillMode::Missing);
    replacement->exec();
    ASSERT_FALSE(replacement->waitForFinished().hasError());
    ASSERT_EQ(replacement->error().warnings().size(), 1);
    const QString warning = replacement->error().warnings().first();
    for (const QString& told : {kEntry, orx::testing::sha256("pinned"), expected})
        EXPECT_TRUE(warning.contains(told)) << qPrintable(warning);
    EXPECT_EQ(cache.cleanupPolicy(kEntry).valueOr(ResourceCleanupPolicy::Discard),
              ResourceCleanupPolicy::Keep);

    // What nobody pinned goes without a word.
    ASSERT_FALSE(cache.setCleanupPolicy(kEntry, ResourceCleanupPolicy::Automatic).hasError());
    const auto unpinned = fillTask(kEntry, "another one", true);
    unpinned->exec();
    ASSERT_FALSE(unpinned->waitForFinished().hasError());
    EXPECT_TRUE(unpinned->error().warnings().isEmpty());
}

TEST_F(CacheFillTest, TheDigestThatTheFetchKnowsIsTaken) {
    const auto task = cache.fillTask(
        nullptr, kEntry,
        [](const DirPath& directory) {
            EXPECT_TRUE(orx::testing::writeFile(directory.child(u"run1.mzML"_qs), "content"));
            return probes::taskWith(QVariant::fromValue(ResourceCacheDigest{QByteArray(64, 'a')}));
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    ASSERT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(cache.entries()->first().sha256, QString(64, u'a'));
}

TEST_F(CacheFillTest, ProgressOfTheFetchIsPassedOn) {
    OpenFill open;
    this->open(open, kEntry);
    QStringList events;
    QObject::connect(open.task.get(), &BaseTask::progressInitiated, open.task.get(),
                     [&](int maximum) { events << QStringLiteral("up to %1").arg(maximum); });
    QObject::connect(open.task.get(), &BaseTask::progress, open.task.get(), [&](int value, int maximum) {
        events << QStringLiteral("%1 of %2").arg(value).arg(maximum);
    });
    Q_EMIT open.fetch->progressInitiated(100);
    Q_EMIT open.fetch->progress(40, 100);
    EXPECT_EQ(events, (QStringList{u"up to 100"_qs, u"40 of 100"_qs}));
    open.task->cancel();
    orx::testing::processUntil([&] { return open.task->isIdle(); });
}

TEST_F(CacheFillTest, OneFetchesAndTheOthersUseWhatItBrought) {
    OpenFill first;
    open(first, kEntry);
    const auto second =
        cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    ResourceCache beside(root());
    const auto third =
        beside.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    second->exec();
    third->exec();
    ASSERT_TRUE(orx::testing::writeFile(first.directory + u"/run1.mzML"_qs, "content"));
    EXPECT_TRUE(third->waitForFinished(0).is(ErrorCode::TimedOut));
    EXPECT_FALSE(second->isFinished());
    first.fetch->finish(Error());
    EXPECT_FALSE(BaseTask::waitForAllFinished({first.task.get(), second.get(), third.get()}).hasError());
    EXPECT_TRUE(beside.contains(kEntry));
}

TEST_F(CacheFillTest, WhenTheOneThatFetchesFailsAnotherFetches) {
    OpenFill first;
    open(first, kEntry);
    const auto second = fillTask(kEntry, "content");
    second->exec();
    first.fetch->finish(Error(ErrorCode::General, u"gone"_qs));
    EXPECT_FALSE(second->waitForFinished().hasError());
    EXPECT_TRUE(first.task->error().is(ErrorCode::General));
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, WhoNeedsNothingNewDoesNotWaitForWhoFetches) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    orx::testing::OtherLocks locks(root());
    locks.hold(orx::testing::OtherLocks::of(kEntry, orx::testing::OtherLocks::Fill));
    for (const auto mode : {ResourceCache::FillMode::LookOnly, ResourceCache::FillMode::Missing}) {
        const auto task = cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), mode);
        task->exec();
        EXPECT_FALSE(task->waitForFinished().hasError());
    }
    // Nor does who is to say why there is nothing.
    const auto absent = cache.fillTask(
        nullptr, kEntry + u".other"_qs,
        [](const DirPath&) -> std::unique_ptr<Task> {
            return std::make_unique<probes::BodyTask>(
                [](probes::BodyTask*) { return Error(ErrorCode::General, u"not there"_qs); });
        },
        ResourceCache::FillMode::LookOnly);
    locks.hold(orx::testing::OtherLocks::of(kEntry + u".other"_qs, orx::testing::OtherLocks::Fill));
    absent->exec();
    EXPECT_EQ(absent->waitForFinished().errorMessage(), u"not there"_qs);
}

TEST_F(CacheFillTest, WhatACancelledFillLeftIsThereForTheNext) {
    OpenFill first;
    open(first, kEntry);
    ASSERT_TRUE(orx::testing::writeFile(first.directory + u"/.part"_qs, "half"));
    ASSERT_TRUE(orx::testing::writeFile(first.directory + u"/run1.mzML"_qs, "not known to be whole"));
    first.task->cancel();
    orx::testing::processUntil([&] { return first.task->isIdle(); });
    EXPECT_TRUE(first.task->error().isCanceled());
    EXPECT_FALSE(cache.contains(kEntry));
    OpenFill second;
    open(second, kEntry);
    EXPECT_EQ(second.directory, first.directory);
    EXPECT_EQ(orx::testing::readFile(second.directory + u"/.part"_qs), "half");
    EXPECT_FALSE(QFileInfo::exists(second.directory + u"/run1.mzML"_qs));
    ASSERT_TRUE(orx::testing::writeFile(second.directory + u"/run1.mzML"_qs, "whole"));
    second.fetch->finish(Error());
    EXPECT_FALSE(second.task->waitForFinished().hasError());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_TRUE(staged().isEmpty());
}

//! Directories: what an interrupted fill left of one is of use to updates only.
class CacheDirectoryFillTest : public CacheFillTest {
protected:
    using Mode = ResourceCache::FillMode;
    using Files = QMap<QString, QByteArray>;

    //! \a fetch brings the content into the directory that the entry is to become.
    Error fillBy(Mode mode, const std::function<Error(const QString&)>& fetch) {
        const auto task = cache.fillTask(
            nullptr, kFolder,
            [fetch](const DirPath& directory) -> std::unique_ptr<Task> {
                return std::make_unique<probes::MirrorTask>(
                    [fetch, target = directory.child(u"raw"_qs)](probes::BodyTask* self) {
                        EXPECT_TRUE(static_cast<probes::MirrorTask*>(self)->isMirroring);
                        return fetch(target);
                    });
            },
            mode);
        task->exec();
        return task->waitForFinished();
    }
    Error fillWith(const Files& files) {
        return fillBy(Mode::Anew, [files](const QString& directory) {
            for (auto file = files.begin(); file != files.end(); ++file)
                EXPECT_TRUE(orx::testing::writeFile(directory + u'/' + file.key(), file.value()));
            return Error();
        });
    }
    static Files filesIn(const QString& directory) {
        Files files;
        QDirIterator it(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            files.insert(QDir(directory).relativeFilePath(path), orx::testing::readFile(path));
        }
        return files;
    }

    const QString kFolder = u"server/folder/7/raw"_qs;
    const Error broken{ErrorCode::General, u"broken"_qs};
};

TEST_F(CacheDirectoryFillTest, WhatAnInterruptedFillLeftIsNoPartOfTheNext) {
    for (const Mode mode : {Mode::Missing, Mode::Anew}) {
        EXPECT_TRUE(fillBy(mode, [this](const QString& directory) {
                        EXPECT_TRUE(orx::testing::writeFile(directory + u"/gone-since.raw"_qs, "x"));
                        return broken;
                    }).is(ErrorCode::General));
        EXPECT_FALSE(fillBy(mode, [](const QString& directory) {
                         EXPECT_FALSE(QFileInfo::exists(directory));
                         EXPECT_TRUE(orx::testing::writeFile(directory + u"/a.raw"_qs, "a"));
                         return Error();
                     }).hasError());
        EXPECT_EQ(filesIn(placeOf(kFolder)), (Files{{u"a.raw"_qs, "a"}}));
        EXPECT_TRUE(cache.contains(kFolder));
        ASSERT_FALSE(cache.remove(kFolder).hasError());
    }
}

TEST_F(CacheDirectoryFillTest, AnUpdateBeginsWithTheEntryAndLeavesItAloneUntilItIsWhole) {
    const Files old{{u"a.raw"_qs, "a"}, {u"sub/b.raw"_qs, "b"}};
    ASSERT_FALSE(fillWith(old).hasError());
    EXPECT_FALSE(fillBy(Mode::Update, [&](const QString& directory) {
                     EXPECT_EQ(filesIn(directory), old);
                     EXPECT_TRUE(QFile::remove(directory + u"/a.raw"_qs));
                     EXPECT_TRUE(orx::testing::writeFile(directory + u"/a.raw"_qs, "new a"));
                     EXPECT_TRUE(orx::testing::writeFile(directory + u"/c.raw"_qs, "c"));
                     EXPECT_EQ(filesIn(placeOf(kFolder)), old);
                     EXPECT_TRUE(cache.contains(kFolder));
                     return Error();
                 }).hasError());
    EXPECT_EQ(filesIn(placeOf(kFolder)),
              (Files{{u"a.raw"_qs, "new a"}, {u"c.raw"_qs, "c"}, {u"sub/b.raw"_qs, "b"}}));
    EXPECT_TRUE(cache.contains(kFolder));
    EXPECT_TRUE(cache.verify()->damaged.isEmpty());
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheDirectoryFillTest, AnUpdateAsksItselfThoughAnotherOneEndsMeanwhile) {
    ASSERT_FALSE(fillWith({{u"a.raw"_qs, "old"}}).hasError());
    // The other one has asked the server before this one was asked for.
    OpenFill first;
    open(first, kFolder, Mode::Anew);
    int fetched = 0;
    const auto second = cache.fillTask(
        nullptr, kFolder,
        [&fetched](const DirPath& directory) -> std::unique_ptr<Task> {
            return std::make_unique<probes::MirrorTask>(
                [&fetched, target = directory.child(u"raw/a.raw"_qs)](probes::BodyTask*) {
                    ++fetched;
                    EXPECT_EQ(orx::testing::readFile(target), "stale");
                    EXPECT_TRUE(QFile::remove(target));
                    EXPECT_TRUE(orx::testing::writeFile(target, "new"));
                    return Error();
                });
        },
        Mode::Update);
    second->exec();
    ASSERT_TRUE(orx::testing::writeFile(first.directory + u"/raw/a.raw"_qs, "stale"));
    EXPECT_TRUE(second->waitForFinished(0).is(ErrorCode::TimedOut));
    first.fetch->finish(Error());
    EXPECT_FALSE(BaseTask::waitForAllFinished({first.task.get(), second.get()}).hasError());
    EXPECT_EQ(fetched, 1);
    EXPECT_EQ(filesIn(placeOf(kFolder)), (Files{{u"a.raw"_qs, "new"}}));
}

TEST_F(CacheDirectoryFillTest, AnUpdateThatFailsLeavesTheEntryAndItsWorkForTheNext) {
    ASSERT_FALSE(fillWith({{u"a.raw"_qs, "a"}}).hasError());
    EXPECT_TRUE(fillBy(Mode::Update, [this](const QString& directory) {
                    EXPECT_TRUE(orx::testing::writeFile(directory + u"/b.raw"_qs, "b"));
                    return broken;
                }).is(ErrorCode::General));
    EXPECT_TRUE(cache.contains(kFolder));
    EXPECT_EQ(filesIn(placeOf(kFolder)), (Files{{u"a.raw"_qs, "a"}}));
    EXPECT_FALSE(fillBy(Mode::Update, [](const QString& directory) {
                     EXPECT_EQ(filesIn(directory), (Files{{u"a.raw"_qs, "a"}, {u"b.raw"_qs, "b"}}));
                     return Error();
                 }).hasError());
    EXPECT_EQ(filesIn(placeOf(kFolder)).size(), 2);
}

TEST_F(CacheDirectoryFillTest, AnUpdateThatFindsSomethingInItsWayIsMadeWithoutIt) {
    ASSERT_FALSE(fillWith({{u"a"_qs, "a file"}}).hasError());
    int fetched = 0;
    EXPECT_FALSE(fillBy(Mode::Update, [&fetched](const QString& directory) {
                     ++fetched;
                     if (QFileInfo::exists(directory + u"/a"_qs))
                         return Error(ErrorCode::AlreadyExists, u"in the way"_qs);
                     EXPECT_TRUE(orx::testing::writeFile(directory + u"/a/b.raw"_qs, "b"));
                     return Error();
                 }).hasError());
    EXPECT_EQ(fetched, 2);
    EXPECT_EQ(filesIn(placeOf(kFolder)), (Files{{u"a/b.raw"_qs, "b"}}));
    // Only that which was there can be thrown away: what is in the way still is the error.
    EXPECT_TRUE(fillBy(Mode::Update, [&fetched](const QString&) {
                    ++fetched;
                    return Error(ErrorCode::AlreadyExists, u"in the way"_qs);
                }).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(fetched, 4);
}

TEST_F(CacheDirectoryFillTest, AnUpdateByAFetchThatIsNoMirrorBeginsWithNothing) {
    ASSERT_FALSE(fillWith({{u"a.raw"_qs, "a"}}).hasError());
    int made = 0;
    const auto task = cache.fillTask(
        nullptr, kFolder,
        [&made](const DirPath& directory) -> std::unique_ptr<Task> {
            ++made;
            return std::make_unique<probes::BodyTask>(
                [target = directory.child(u"raw"_qs)](probes::BodyTask*) {
                    EXPECT_FALSE(QFileInfo::exists(target));
                    EXPECT_TRUE(orx::testing::writeFile(target + u"/b.raw"_qs, "b"));
                    return Error();
                });
        },
        Mode::Update);
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(made, 1);
    EXPECT_EQ(filesIn(placeOf(kFolder)), (Files{{u"b.raw"_qs, "b"}}));
}

TEST_F(CacheFillTest, ADestroyedFillLetsTheNextOneBegin) {
    {
        OpenFill first;
        open(first, kEntry);
    }
    EXPECT_FALSE(fill(kEntry, "content").hasError());
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, MayBeDestroyedAtAnyMoment) {
    // Right after the start, while it waits for another one, and while workers look.
    for (int rounds = 0; rounds < 20; ++rounds) {
        const auto early = fillTask(kEntry, QByteArray(100'000, 'x'), true);
        const auto late = fillTask(kEntry, QByteArray(100'000, 'x'), true);
        early->exec();
        late->exec();
        for (int turn = 0; turn < rounds; ++turn)
            QCoreApplication::processEvents();
    }
    EXPECT_FALSE(fill(kEntry, "content", true).hasError());
    // One of those before may have got as far as bringing its content while this one waited.
    const QByteArray content = orx::testing::readFile(placeOf(kEntry));
    EXPECT_TRUE(content == "content" || content == QByteArray(100'000, 'x'));
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, DestroyedAfterItsFetchItLetsABlockingFillBegin) {
    bool fetched = false;
    auto task = cache.fillTask(
        nullptr, kEntry,
        [&](const DirPath& directory) {
            auto fetch = orx::testing::fetchOf(u"run1.mzML"_qs, "x")(directory);
            QObject::connect(fetch.get(), &BaseTask::finished, [&] { fetched = true; });
            return fetch;
        },
        ResourceCache::FillMode::Missing);
    task->exec();
    while (!fetched)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    task.reset();
    EXPECT_FALSE(fill(kEntry, "content", true).hasError());
    // The worker may have sealed what the destroyed one brought, which is as good.
    const QByteArray content = orx::testing::readFile(placeOf(kEntry));
    EXPECT_TRUE(content == "content" || content == "x");
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, OutlivesItsCache) {
    auto other = std::make_unique<ResourceCache>(root());
    const auto task = other->fillTask(nullptr, kEntry, orx::testing::fetchOf(u"run1.mzML"_qs, "x"),
                                      ResourceCache::FillMode::Missing);
    other.reset();
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_TRUE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, TheEntryStaysAsLongAsItsTaskThoughItIsLargerThanTheCacheMayBe) {
    cache.setLimits({10, std::nullopt});
    auto task = fillTask(kEntry, QByteArray(100, 'x'));
    task->exec();
    ASSERT_FALSE(task->waitForFinished().hasError());
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_EQ(cache.prune()->inUse, 1);
    task.reset();
    EXPECT_EQ(cache.prune()->removed.size(), 1);
    EXPECT_FALSE(cache.contains(kEntry));
}

TEST_F(CacheFillTest, KeepsTheLimits) {
    cache.setLimits({250, std::nullopt});
    for (const char* name : {"a", "b", "c"})
        ASSERT_FALSE(fill(QString::fromLatin1(name), QByteArray(100, 'x')).hasError());
    EXPECT_EQ(subPaths(), (QStringList{u"b"_qs, u"c"_qs}));
}

//! While it lives nothing can be written: every file may have no byte.
class FullDisk {
public:
    FullDisk() {
        std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit none = m_before;
        none.rlim_cur = 0;
        ::setrlimit(RLIMIT_FSIZE, &none);
    }
    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &m_before); }

private:
    rlimit m_before{};
};

TEST_F(CacheFillTest, ARecordThatCannotBeWrittenLeavesTheOldEntry) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    {
        // An empty file can still be made; its record cannot.
        const FullDisk full;
        EXPECT_TRUE(fill(kEntry, "", true).hasError());
    }
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_FALSE(fill(kEntry, "new", true).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "new");
}

TEST_F(CacheFillTest, AnAdditionThatCannotBeWrittenLeavesTheOldEntry) {
    ASSERT_FALSE(fill(kEntry, "old").hasError());
    ASSERT_TRUE(orx::testing::writeFile(path(u"source"_qs), "newer"));
    {
        const FullDisk full;
        ASSERT_FALSE(cache.add(nullptr, kEntry, Path(path(u"source"_qs))).hasError());
        EXPECT_EQ(cache.waitForPending().size(), 1);
    }
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "old");
    EXPECT_TRUE(cache.contains(kEntry));
    EXPECT_TRUE(staged().isEmpty());
}

TEST_F(CacheFillTest, WhoWaitsTakesWhatComesWhileTheOtherOneGoesOn) {
    ASSERT_FALSE(fill(u"x"_qs, "x").hasError());
    ASSERT_TRUE(orx::testing::writeFile(path(u"source"_qs), "content"));
    orx::testing::OtherLocks other(root());
    other.hold(orx::testing::OtherLocks::of(kEntry, orx::testing::OtherLocks::Fill));
    const WaitingNoted noted;
    const auto task =
        cache.fillTask(nullptr, kEntry, orx::testing::noFetch(), ResourceCache::FillMode::Missing);
    task->exec();
    orx::testing::processUntil([] { return isWaiting.load(); });
    ASSERT_FALSE(cache.add(nullptr, kEntry, Path(path(u"source"_qs))).hasError());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_FALSE(task->waitForFinished(120'000).hasError());
    EXPECT_EQ(orx::testing::readFile(placeOf(kEntry)), "content");
}

TEST_F(CacheFillTest, WhatIsBroughtForWhoOnlyLooksIsNotTaken) {
    const auto task = cache.fillTask(nullptr, kEntry, orx::testing::fetchOf(u"run1.mzML"_qs, "content"),
                                     ResourceCache::FillMode::LookOnly);
    task->exec();
    EXPECT_TRUE(task->waitForFinished().is(ErrorCode::NotFound));
    EXPECT_FALSE(cache.contains(kEntry));
    EXPECT_FALSE(QFileInfo::exists(placeOf(kEntry)));
}
