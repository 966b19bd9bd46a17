// Resources that lie elsewhere and are kept in a cache: when they are fetched, and what keeps them there.
#include "ResourceProbes.h"

#include "RemoteResourceHandler.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <atomic>

using namespace orx;
using namespace orx::probes;

namespace {

using Mode = ResourceHandler::RetrieveMode;
using Processing = ResourceHandler::AsyncProcessingType;
using Policy = ResourceCleanupPolicy;

const QString kSubPath = QStringLiteral("server/file/12/3/run1.mzML");

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
}

void write(const QString& path, const QByteArray& content) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(path);
    ASSERT_EQ(file.write(content), content.size());
}

//! What lies on the server.
struct Elsewhere {
    QByteArray content = "the first content";
    Error error;
    int fetched = 0;
    bool hangs = false;
    //! The resource is a directory, with the content in the file "spectra".
    bool isDirectory = false;
    std::function<void()> whileFetched = [] {};
};

class Hanging final : public Task {
public:
    Hanging() : Task(QStringLiteral("hanging")) {}

protected:
    void start() override {}
    void doCancel() override { finish(Error()); }
};

class SampleRemoteHandler final : public RemoteResourceHandler {
public:
    SampleRemoteHandler(ResourceCache* cache, Elsewhere* elsewhere, const QString& subPath = kSubPath,
                        const ResourceReferenceSPtr& reference = sampleReference())
        : RemoteResourceHandler(reference, cache), m_elsewhere(elsewhere), m_subPath(subPath) {}
    using RemoteResourceHandler::retrieveTask;

protected:
    std::unique_ptr<Task> existsTask() const override { return taskWith(true); }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return taskWith(QVariant()); }
    std::unique_ptr<Task> retrieveTask(const DirPath& targetDir) override {
        ++m_elsewhere->fetched;
        if (m_elsewhere->hangs)
            return std::make_unique<Hanging>();
        const QString name = m_subPath.section(u'/', -1);
        return std::make_unique<BodyTask>([=, elsewhere = m_elsewhere](BodyTask* self) {
            Q_EMIT self->progressInitiated(7);
            Q_EMIT self->progress(3, 7);
            elsewhere->whileFetched();
            if (elsewhere->isDirectory && !QDir(targetDir.toString()).mkpath(name))
                return Error(ErrorCode::FileNotWritable, name);
            if (!elsewhere->error.hasError())
                write(targetDir.child(elsewhere->isDirectory ? name + QStringLiteral("/spectra") : name),
                      elsewhere->content);
            return elsewhere->error;
        });
    }
    QString subCachePath() const override { return m_subPath; }

private:
    Elsewhere* m_elsewhere;
    QString m_subPath;
};

class RemoteResourceHandlerTest : public ::testing::Test {
protected:
    using HandlerSPtr = QSharedPointer<SampleRemoteHandler>;
    HandlerSPtr handlerOf(const QString& subPath = kSubPath) {
        return HandlerSPtr::create(&cache, &elsewhere, subPath);
    }
    QString source(const QString& name, const QByteArray& content) const {
        const QString path = dir.filePath(name);
        write(path, content);
        return path;
    }
    void fillEntry() {
        ASSERT_TRUE(handlerOf()->retrieve());
        elsewhere.fetched = 0;
    }
    //! Another size, as a program that writes into the cache would leave it.
    void damageEntry() {
        const QString path = handlerOf()->expectedPath()->toString();
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner);
        write(path, "damaged");
    }
    //! How many entries stayed although everything was to go, because somebody uses them. What a task that
    //! ended had in use goes when control returns to the event loop.
    int inUseWhenPruned() {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const auto report = cache.prune({.maxBytes = 0, .maxAge = std::nullopt});
        EXPECT_TRUE(report) << qPrintable(report.errorMessage());
        return report ? report->inUse : -1;
    }

    QTemporaryDir dir;
    ResourceCache cache{dir.filePath(QStringLiteral("cache"))};
    Elsewhere elsewhere;
};

} // namespace

TEST_F(RemoteResourceHandlerTest, WithoutACacheNothingIsKept) {
    const auto handler = HandlerSPtr::create(nullptr, &elsewhere);
    const QString text = QStringLiteral("There is no cache that \"run1.mzML (file:12@3)\" could be kept in.");
    EXPECT_FALSE(handler->isAvailableLocally());
    expectError(handler->expectedPath(), ErrorCode::NotFound, text);
    expectError(handler->cleanupPolicy(), ErrorCode::NotFound, text);
    expectError(handler->setCleanupPolicy(Policy::Keep), ErrorCode::NotFound, text);
    expectError(handler->retrieve(), ErrorCode::NotFound, text);
    expectError(handler->addToCache(Path(source(QStringLiteral("a"), "a"), PathType::File)),
                ErrorCode::NotFound, text);
    bool written = false;
    expectError(handler->addToCache([&] {
        written = true;
        return Error();
    }),
                ErrorCode::NotFound, text);
    EXPECT_FALSE(written);
    auto task = handler->retrieveTask();
    ASSERT_TRUE(task && *task);
    (*task)->exec();
    expectError((*task)->waitForFinished(), ErrorCode::NotFound, text);
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, ThePlaceIsThatOfTheSubPath) {
    const auto path = handlerOf()->expectedPath();
    ASSERT_TRUE(path) << qPrintable(path.errorMessage());
    EXPECT_EQ(path->toString(), cache.expectedPath(kSubPath)->toString());
    EXPECT_TRUE(path->toString().endsWith(u'/' + kSubPath));
}

TEST_F(RemoteResourceHandlerTest, APlaceOutsideTheCacheIsRefusedEverywhere) {
    const auto handler = handlerOf(QStringLiteral("server/../../run1.mzML"));
    EXPECT_FALSE(handler->isAvailableLocally());
    EXPECT_TRUE(handler->expectedPath().error().is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(handler->retrieve().error().is(ErrorCode::InvalidArgument));
    const Path path(source(QStringLiteral("a"), "a"), PathType::File);
    EXPECT_TRUE(handler->addToCache(path).is(ErrorCode::InvalidArgument));
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, TheModeAndTheEntryDecideWhatIsFetched) {
    enum Entry { Valid, Absent, Damaged };
    const struct {
        Mode mode;
        Entry entry;
        int fetched;
        QByteArray content; //!< empty: an error
    } rows[] = {
        {Mode::Refresh, Valid, 1, "new content"},
        {Mode::Refresh, Absent, 1, "new content"},
        {Mode::Refresh, Damaged, 1, "new content"},
        {Mode::CacheFirst, Valid, 0, "the first content"},
        {Mode::CacheFirst, Absent, 1, "new content"},
        {Mode::CacheFirst, Damaged, 1, "new content"},
        {Mode::CacheOnly, Valid, 0, "the first content"},
        {Mode::CacheOnly, Absent, 0, ""},
        {Mode::CacheOnly, Damaged, 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << "mode " << int(row.mode) << ", entry " << row.entry);
        EXPECT_EQ(inUseWhenPruned(), 0);
        elsewhere = Elsewhere();
        if (row.entry != Absent)
            fillEntry();
        if (row.entry == Damaged)
            damageEntry();
        elsewhere.content = "new content";
        const auto handler = handlerOf();
        EXPECT_EQ(handler->isAvailableLocally(), row.entry == Valid);
        handler->overrideRetrieveMode(row.mode);
        const auto path = handler->retrieve();
        EXPECT_EQ(elsewhere.fetched, row.fetched);
        if (row.content.isEmpty()) {
            EXPECT_TRUE(path.error().is(ErrorCode::NotFound));
            continue;
        }
        ASSERT_TRUE(path) << qPrintable(path.errorMessage());
        EXPECT_EQ(contentOf(path->toString()), row.content);
        EXPECT_TRUE(handler->isAvailableLocally());
    }
}

TEST_F(RemoteResourceHandlerTest, WhatIsKnownToBeAnotherContentIsNotThere) {
    fillEntry();
    elsewhere.content = "of another server";
    const QString path = handlerOf()->expectedPath()->toString();
    cache.setChecksumSource([](const ResourceReference& reference) {
        EXPECT_EQ(reference.displayText(), sampleReference()->displayText());
        return QString::fromLatin1(
            QCryptographicHash::hash("of another server", QCryptographicHash::Sha256).toHex().toUpper());
    });
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
    const auto offline = handlerOf();
    offline->overrideRetrieveMode(Mode::CacheOnly);
    EXPECT_TRUE(offline->retrieve().error().is(ErrorCode::NotFound));
    EXPECT_EQ(contentOf(path), "the first content");
    EXPECT_EQ(elsewhere.fetched, 0);
    ASSERT_TRUE(handlerOf()->retrieve());
    EXPECT_EQ(elsewhere.fetched, 1);
    EXPECT_EQ(contentOf(path), "of another server");
    EXPECT_TRUE(offline->retrieve());
    EXPECT_EQ(elsewhere.fetched, 1);
}

TEST_F(RemoteResourceHandlerTest, AContentThatBecameKnownWhileATaskWaitedIsLookedFor) {
    fillEntry();
    elsewhere.content = "of another server";
    write(QFileInfo(handlerOf()->expectedPath()->toString()).path() + QStringLiteral("/planted"), "x");
    // For what lies beside the entry.
    const auto task = handlerOf()->retrieveAsync(Processing::RunByCaller, nullptr);
    ASSERT_TRUE(task && *task);
    cache.setChecksumSource([](const ResourceReference&) {
        return QString::fromLatin1(
            QCryptographicHash::hash("of another server", QCryptographicHash::Sha256).toHex());
    });
    (*task)->exec();
    EXPECT_FALSE((*task)->waitForFinished().hasError());
    EXPECT_EQ(contentOf(handlerOf()->expectedPath()->toString()), "of another server");
}

TEST_F(RemoteResourceHandlerTest, WhatIsNotThereAnyMoreIsNotFetchedWhenOnlyTheCacheMayBeAsked) {
    const auto handler = handlerOf();
    handler->overrideRetrieveMode(Mode::CacheOnly);
    auto task = handler->retrieveTask(); // asked directly, as after a check that has become untrue
    ASSERT_TRUE(task && *task);
    (*task)->exec();
    expectError(
        (*task)->waitForFinished(), ErrorCode::NotFound,
        QStringLiteral("\"run1.mzML (file:12@3)\" is not in the cache, or what is there is damaged."));
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, WhatSomebodyElseFetchedMeanwhileIsNotFetchedAgain) {
    const auto task = handlerOf()->retrieveAsync(Processing::RunByCaller, nullptr);
    ASSERT_TRUE(task && *task);
    fillEntry();
    (*task)->exec();
    EXPECT_FALSE((*task)->waitForFinished().hasError());
    EXPECT_EQ(elsewhere.fetched, 0);
    EXPECT_EQ(inUseWhenPruned(), 1);
}

TEST_F(RemoteResourceHandlerTest, AFailedFetchIsTheErrorAndLeavesNoEntry) {
    elsewhere.error = Error(ErrorDomain::Server, 4, QStringLiteral("gone"));
    const auto path = handlerOf()->retrieve();
    EXPECT_TRUE(path.error().is(ErrorDomain::Server, 4));
    EXPECT_EQ(path.errorMessage(), QStringLiteral("gone"));
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
    EXPECT_FALSE(QFile::exists(handlerOf()->expectedPath()->toString()));
}

TEST_F(RemoteResourceHandlerTest, AFailedRefreshLeavesTheEntryThatWasThere) {
    fillEntry();
    elsewhere.error = Error(ErrorCode::General, QStringLiteral("no network"));
    const auto handler = handlerOf();
    handler->overrideRetrieveMode(Mode::Refresh);
    expectError(handler->retrieve(), ErrorCode::General, QStringLiteral("no network"));
    EXPECT_TRUE(handler->isAvailableLocally());
    EXPECT_EQ(contentOf(handler->expectedPath()->toString()), "the first content");
}

TEST_F(RemoteResourceHandlerTest, AHandlerMayRefreshWhatItHolds) {
    const auto handler = handlerOf();
    ASSERT_TRUE(handler->retrieve());
    elsewhere.content = "new content";
    handler->overrideRetrieveMode(Mode::Refresh);
    const auto path = handler->retrieve();
    ASSERT_TRUE(path) << qPrintable(path.errorMessage());
    EXPECT_EQ(contentOf(path->toString()), "new content");
    EXPECT_EQ(inUseWhenPruned(), 1);
}

//! Of resources whose content changes under one reference, as that of folders does.
class ChangingContentTest : public RemoteResourceHandlerTest {
protected:
    HandlerSPtr changing(Mode mode = Mode::CacheFirst) {
        const ResourceReferenceSPtr folder =
            *HalvaneFolderResourceReference::create(7, QStringLiteral("raw"));
        const auto handler = HandlerSPtr::create(&cache, &elsewhere, kSubPath, folder);
        handler->overrideRetrieveMode(mode);
        return handler;
    }
    Error retrieve(const HandlerSPtr& handler) {
        elsewhere.fetched = 0;
        auto task = handler->retrieveAsync(Processing::StartedHere, nullptr);
        if (task.hasError())
            return task.error();
        if (!*task)
            return Error();
        const Error waited = (*task)->waitForFinished();
        return waited.hasError() ? waited : (*task)->error();
    }

    const Error unreachable{ErrorDomain::Network, 1, QStringLiteral("nobody answers")};
};

TEST_F(ChangingContentTest, IsAskedForAgainThoughItIsInTheCache) {
    ASSERT_FALSE(retrieve(changing()).hasError());
    elsewhere.content = "the second content";
    const auto handler = changing();
    EXPECT_FALSE(retrieve(handler).hasError());
    EXPECT_EQ(elsewhere.fetched, 1);
    EXPECT_EQ(contentOf(handler->expectedPath()->toString()), elsewhere.content);
    EXPECT_EQ(inUseWhenPruned(), 1);
}

TEST_F(ChangingContentTest, IsTakenFromTheCacheWithAWarningWhenNobodyAnswers) {
    ASSERT_FALSE(retrieve(changing()).hasError());
    elsewhere.error = unreachable;
    const auto handler = changing();
    const Error error = retrieve(handler);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(error.warnings(),
              Warnings{QStringLiteral("What the cache holds was taken, since nobody could say "
                                      "whether it is still the same: nobody answers")});
    EXPECT_EQ(contentOf(handler->expectedPath()->toString()), elsewhere.content);
    EXPECT_EQ(inUseWhenPruned(), 1);
}

TEST_F(ChangingContentTest, IsNotTakenFromTheCacheForAnotherFailure) {
    ASSERT_FALSE(retrieve(changing()).hasError());
    elsewhere.error = Error(ErrorCode::NotFound, QStringLiteral("it is gone"));
    EXPECT_TRUE(retrieve(changing()).is(ErrorCode::NotFound));
    elsewhere.error = unreachable;
    EXPECT_TRUE(retrieve(changing(Mode::Refresh)).is(ErrorDomain::Network, 1));
}

TEST_F(ChangingContentTest, WithoutAValidEntryTheFailureIsTheError) {
    elsewhere.error = unreachable;
    EXPECT_TRUE(retrieve(changing()).is(ErrorDomain::Network, 1));
    elsewhere.error = Error();
    ASSERT_FALSE(retrieve(changing()).hasError());
    damageEntry();
    elsewhere.error = unreachable;
    EXPECT_TRUE(retrieve(changing()).is(ErrorDomain::Network, 1));
}

TEST_F(ChangingContentTest, IsNotAskedForWhenOnlyTheCacheMayBeAsked) {
    ASSERT_FALSE(retrieve(changing()).hasError());
    EXPECT_FALSE(retrieve(changing(Mode::CacheOnly)).hasError());
    EXPECT_EQ(elsewhere.fetched, 0);
}

struct Refusal : ResourcePromptingInterface {
    bool mayFetch(const ResourceReference&) override {
        ++asked;
        return false;
    }
    int asked = 0;
};

//! Of directories only the top is looked at before a task runs.
class RemoteDirectoryTest : public RemoteResourceHandlerTest {
protected:
    RemoteDirectoryTest() {
        elsewhere.isDirectory = true;
        fillEntry();
    }
    QString spectra() { return handlerOf()->expectedPath()->child(QStringLiteral("spectra")); }
    HandlerSPtr offline() {
        const auto handler = handlerOf();
        handler->overrideRetrieveMode(Mode::CacheOnly);
        return handler;
    }
};

TEST_F(RemoteDirectoryTest, IsNotFetchedAgain) {
    Refusal refusal;
    for (const auto& handler : {handlerOf(), offline()}) {
        const auto path = handler->retrieve(&refusal);
        ASSERT_TRUE(path) << qPrintable(path.errorMessage());
        EXPECT_EQ(contentOf(path->child(QStringLiteral("spectra"))), elsewhere.content);
        EXPECT_EQ(inUseWhenPruned(), 1);
    }
    EXPECT_EQ(elsewhere.fetched, 0);
    EXPECT_EQ(refusal.asked, 0);
}

TEST_F(RemoteDirectoryTest, IsFetchedAgainWhenSomethingInItIsDamaged) {
    write(spectra(), "damaged");
    EXPECT_TRUE(handlerOf()->isAvailableLocally());
    const auto path = handlerOf()->retrieve();
    ASSERT_TRUE(path) << qPrintable(path.errorMessage());
    EXPECT_EQ(elsewhere.fetched, 1);
    EXPECT_EQ(contentOf(spectra()), elsewhere.content);
}

TEST_F(RemoteDirectoryTest, IsAskedForWhenSomethingInItTurnsOutToBeDamaged) {
    write(spectra(), "damaged");
    Refusal refusal;
    EXPECT_TRUE(handlerOf()->retrieve(&refusal).error().is(ErrorCode::Canceled));
    EXPECT_EQ(refusal.asked, 1);
    EXPECT_EQ(elsewhere.fetched, 0);
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
}

TEST_F(RemoteDirectoryTest, IsNotHandedOutDamagedWhenOnlyTheCacheMayBeAsked) {
    write(spectra(), "damaged");
    expectError(
        offline()->retrieve(), ErrorCode::NotFound,
        QStringLiteral("\"run1.mzML (file:12@3)\" is not in the cache, or what is there is damaged."));
    EXPECT_EQ(elsewhere.fetched, 0);
    EXPECT_FALSE(offline()->isAvailableLocally());
    EXPECT_EQ(inUseWhenPruned(), 0);
}

TEST_F(RemoteResourceHandlerTest, WhatSomebodyPutBesideTheContentIsTakenAwayByARetrieval) {
    const QString beside = QFileInfo(handlerOf()->expectedPath()->toString()).path() + u'/';
    Refusal refusal;
    for (const bool isDirectory : {false, true}) {
        for (const auto mode : {Mode::CacheFirst, Mode::CacheOnly, Mode::Refresh}) {
            EXPECT_EQ(inUseWhenPruned(), 0);
            elsewhere = Elsewhere();
            elsewhere.isDirectory = isDirectory;
            fillEntry();
            write(beside + QStringLiteral("planted.mzML"), "not the content");
            ASSERT_TRUE(QFile::link(dir.path(), beside + QStringLiteral(".hidden")));
            ASSERT_TRUE(QDir().mkpath(beside + QStringLiteral("more/of/it")));
            const auto handler = handlerOf();
            handler->overrideRetrieveMode(mode);
            const auto path = handler->retrieve(mode == Mode::Refresh ? nullptr : &refusal);
            ASSERT_TRUE(path) << qPrintable(path.errorMessage());
            EXPECT_EQ(
                QDir(beside).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
                QStringList{QStringLiteral("run1.mzML")});
            EXPECT_EQ(elsewhere.fetched, mode == Mode::Refresh ? 1 : 0);
        }
    }
    EXPECT_EQ(refusal.asked, 0);
    EXPECT_TRUE(QFileInfo::exists(dir.path()));
}

TEST_F(RemoteResourceHandlerTest, WhatIsPutBesideTheContentWhileItIsFetchedIsTakenAwayToo) {
    const QString beside = QFileInfo(handlerOf()->expectedPath()->toString()).path() + u'/';
    elsewhere.whileFetched = [&] {
        ASSERT_TRUE(QDir().mkpath(beside));
        write(beside + QStringLiteral("planted.mzML"), "not the content");
    };
    ASSERT_TRUE(handlerOf()->retrieve());
    EXPECT_EQ(elsewhere.fetched, 1);
    EXPECT_EQ(QDir(beside).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{QStringLiteral("run1.mzML")});
}

TEST_F(RemoteResourceHandlerTest, OtherEntriesBesideTheContentStay) {
    const QString other = QFileInfo(kSubPath).path() + QStringLiteral("/run1-renamed.mzML");
    const auto first = handlerOf(other);
    ASSERT_TRUE(first->retrieve());
    ASSERT_TRUE(handlerOf()->retrieve());
    ASSERT_TRUE(handlerOf()->retrieve());
    EXPECT_TRUE(first->isAvailableLocally());
    EXPECT_TRUE(handlerOf()->isAvailableLocally());
    EXPECT_EQ(elsewhere.fetched, 2);
}

TEST_F(RemoteResourceHandlerTest, WhatLiesBesideTheContentDoesNotKeepARetrievalWaitingForWriters) {
    const QString other = QFileInfo(kSubPath).path() + QStringLiteral("/run1-renamed.mzML");
    const QString planted = QFileInfo(handlerOf()->expectedPath()->toString()).path() + u"/planted.mzML"_qs;
    ASSERT_TRUE(handlerOf(other)->retrieve());
    std::shared_ptr<ResourceCacheWork> work;
    const QString made = QStringLiteral("server/being made");
    QString target;
    const Error error = cache.add(nullptr, made, [&] {
        target = cache.expectedPath(made)->toString();
        work = cache.deferSeal(made);
        return Error();
    });
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    for (const bool isPlanted : {false, true}) {
        if (isPlanted)
            write(planted, "not the content");
        const auto handler = handlerOf();
        handler->overrideRetrieveMode(Mode::Refresh);
        const auto path = handler->retrieve();
        ASSERT_TRUE(path) << qPrintable(path.errorMessage());
        EXPECT_FALSE(QFileInfo::exists(planted));
    }
    EXPECT_TRUE(handlerOf(other)->isAvailableLocally());
    write(target, "made");
    work->finished(Error());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(made));
}

TEST_F(RemoteResourceHandlerTest, WhatAWriterMakesBesideTheContentStays) {
    const QString other = QFileInfo(kSubPath).path() + QStringLiteral("/run1-renamed.mzML");
    std::shared_ptr<ResourceCacheWork> work;
    const Error error = cache.add(nullptr, other, [&] {
        write(cache.expectedPath(other)->toString(), "made");
        work = cache.deferSeal(other);
        return Error();
    });
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    const auto path = handlerOf()->retrieve();
    EXPECT_TRUE(path) << qPrintable(path.errorMessage());
    work->finished(Error());
    EXPECT_TRUE(cache.waitForPending().isEmpty());
    EXPECT_TRUE(cache.contains(other));
}

TEST_F(RemoteResourceHandlerTest, NobodyIsAskedForWhatIsInTheCache) {
    Refusal refusal;
    EXPECT_TRUE(handlerOf()->retrieve(&refusal).error().is(ErrorCode::Canceled));
    EXPECT_EQ(refusal.asked, 1);
    EXPECT_EQ(elsewhere.fetched, 0);
    fillEntry();
    EXPECT_TRUE(handlerOf()->retrieve(&refusal));
    const auto offline = handlerOf();
    offline->overrideRetrieveMode(Mode::CacheOnly);
    EXPECT_TRUE(offline->retrieve(&refusal));
    EXPECT_EQ(refusal.asked, 1);
}

TEST_F(RemoteResourceHandlerTest, WhatWasFetchedStaysWhileItsHandlerLives) {
    auto handler = handlerOf();
    ASSERT_TRUE(handler->retrieve());
    EXPECT_EQ(inUseWhenPruned(), 1);
    EXPECT_TRUE(handler->isAvailableLocally());
    handler.reset();
    EXPECT_EQ(inUseWhenPruned(), 0);
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
}

TEST_F(RemoteResourceHandlerTest, WhatNeededNoFetchingStaysToo) {
    for (const Mode mode : {Mode::CacheFirst, Mode::CacheOnly}) {
        fillEntry();
        EXPECT_TRUE(handlerOf()->isAvailableLocally()); // looking holds nothing
        auto handler = handlerOf();
        handler->overrideRetrieveMode(mode);
        ASSERT_TRUE(handler->retrieve());
        EXPECT_EQ(elsewhere.fetched, 0);
        EXPECT_EQ(inUseWhenPruned(), 1);
        handler.reset();
        EXPECT_EQ(inUseWhenPruned(), 0);
        EXPECT_FALSE(handlerOf()->isAvailableLocally());
    }
}

TEST_F(RemoteResourceHandlerTest, ItIsHeldWhenTheTaskSaysThatItIsThere) {
    const auto handler = handlerOf();
    auto task = handler->retrieveAsync(Processing::StartedHere, nullptr);
    ASSERT_TRUE(task && *task);
    int inUse = -1;
    QObject::connect(task->get(), &BaseTask::finished, task->get(), [&] { inUse = inUseWhenPruned(); });
    EXPECT_FALSE((*task)->waitForFinished().hasError());
    if (inUse == -1) // it had ended within exec()
        inUse = inUseWhenPruned();
    EXPECT_EQ(inUse, 1);
}

TEST_F(RemoteResourceHandlerTest, ARetrievalKeepsItsHandler) {
    auto handler = handlerOf();
    auto task = handler->retrieveAsync(Processing::RunByCaller, nullptr);
    ASSERT_TRUE(task && *task);
    const QWeakPointer<SampleRemoteHandler> watched = handler;
    handler.reset();
    EXPECT_TRUE(watched);
    (*task)->exec();
    EXPECT_FALSE((*task)->waitForFinished().hasError());
    EXPECT_EQ(inUseWhenPruned(), 1);
    task->reset();
    EXPECT_EQ(inUseWhenPruned(), 0);
    EXPECT_FALSE(watched);
}

TEST_F(RemoteResourceHandlerTest, PassesTheProgressOfTheFetchOn) {
    auto task = handlerOf()->retrieveAsync(Processing::RunByCaller, nullptr);
    ASSERT_TRUE(task && *task);
    QStringList events;
    QObject::connect(task->get(), &BaseTask::progressInitiated, task->get(),
                     [&](int maximum) { events << QString::number(maximum); });
    QObject::connect(task->get(), &BaseTask::progress, task->get(), [&](int value, int maximum) {
        events << QStringLiteral("%1/%2").arg(value).arg(maximum);
    });
    (*task)->exec();
    EXPECT_FALSE((*task)->waitForFinished().hasError());
    EXPECT_EQ(events, QStringList({QStringLiteral("7"), QStringLiteral("3/7")}));
}

TEST_F(RemoteResourceHandlerTest, ACancelledRetrievalLeavesNoEntryAndTheNextOneWorks) {
    elsewhere.hangs = true;
    const auto handler = handlerOf();
    auto task = handler->retrieveAsync(Processing::StartedHere, nullptr);
    ASSERT_TRUE(task && *task);
    while (elsewhere.fetched == 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    (*task)->cancel();
    EXPECT_TRUE((*task)->waitForFinished().isCanceled());
    while (!(*task)->isIdle())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    EXPECT_FALSE(handler->isAvailableLocally());
    elsewhere.hangs = false;
    EXPECT_TRUE(handler->retrieve());
}

TEST_F(RemoteResourceHandlerTest, DestroyedWhileItRunsARetrievalLeavesNothingBehind) {
    elsewhere.hangs = true;
    auto task = handlerOf()->retrieveAsync(Processing::StartedHere, nullptr);
    ASSERT_TRUE(task && *task);
    while (elsewhere.fetched == 0)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    task->reset();
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
    elsewhere.hangs = false;
    EXPECT_TRUE(handlerOf()->retrieve());
}

TEST_F(RemoteResourceHandlerTest, AFileThatIsAddedNeedsNoFetching) {
    const QString path = source(QStringLiteral("local.mzML"), "from here");
    const auto handler = handlerOf();
    const Error error = handler->addToCache(Path(path, PathType::File));
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_TRUE(QFile::remove(path)); // it was opened before the call returned
    EXPECT_EQ(cache.waitForPending(), QStringList());
    EXPECT_TRUE(handler->isAvailableLocally());
    EXPECT_EQ(contentOf(handler->retrieve()->toString()), "from here");
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, ADirectoryThatIsAddedNeedsNoFetching) {
    ASSERT_TRUE(QDir(dir.path()).mkpath(QStringLiteral("packed/content")));
    source(QStringLiteral("packed/content/spectra"), "from here");
    const auto handler = handlerOf();
    const Error error = handler->addToCache(DirPath(dir.filePath(QStringLiteral("packed"))));
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(cache.waitForPending(), QStringList());
    const auto path = handler->retrieve();
    ASSERT_TRUE(path) << qPrintable(path.errorMessage());
    EXPECT_EQ(contentOf(path->child(QStringLiteral("content/spectra"))), "from here");
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, WhatIsAddedIsOfTheKindThatItsPathSays) {
    const QString file = source(QStringLiteral("local.mzML"), "from here");
    const struct {
        Path path;
        QString message;
    } rows[] = {
        {Path(dir.path(), PathType::File),
         QStringLiteral("\"%1\" is a directory, not a file.").arg(dir.path())},
        {Path(file, PathType::Dir), QStringLiteral("\"%1\" is a file, not a directory.").arg(file)},
    };
    for (const auto& row : rows)
        expectError(handlerOf()->addToCache(row.path), ErrorCode::InvalidArgument, row.message);
    EXPECT_FALSE(handlerOf()->addToCache(Path(file)).hasError()); // of unknown kind: what is there counts
    EXPECT_EQ(cache.waitForPending(), QStringList());
    EXPECT_TRUE(handlerOf()->isAvailableLocally());
}

TEST_F(RemoteResourceHandlerTest, WhatIsNotThereCannotBeAdded) {
    const QString path = dir.filePath(QStringLiteral("missing"));
    const Error error = handlerOf()->addToCache(Path(path, PathType::File));
    EXPECT_TRUE(error.hasError());
    EXPECT_TRUE(error.errorMessage().contains(path)) << qPrintable(error.errorMessage());
    EXPECT_FALSE(handlerOf()->isAvailableLocally());
}

TEST_F(RemoteResourceHandlerTest, AWriterMakesTheContentBeforeTheCallReturns) {
    const auto handler = handlerOf();
    bool written = false;
    const Error error = handler->addToCache([&] {
        const QString path = handler->expectedPath()->toString();
        EXPECT_TRUE(QDir().mkpath(QFileInfo(path).path()));
        write(path, "written");
        written = true;
        return Error();
    });
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_TRUE(written);
    EXPECT_EQ(cache.waitForPending(), QStringList());
    EXPECT_EQ(contentOf(handler->retrieve()->toString()), "written");
    EXPECT_EQ(elsewhere.fetched, 0);
}

TEST_F(RemoteResourceHandlerTest, TheErrorOfAWriterIsReturnedAndLeavesNoEntry) {
    const auto handler = handlerOf();
    expectError(
        handler->addToCache([] { return Error(ErrorCode::StorageFull, QStringLiteral("no room for it")); }),
        ErrorCode::StorageFull, QStringLiteral("no room for it"));
    EXPECT_EQ(cache.waitForPending(), QStringList(QStringLiteral("no room for it")));
    EXPECT_FALSE(handler->isAvailableLocally());
}

TEST_F(RemoteResourceHandlerTest, PoliciesAreThoseOfTheEntry) {
    const auto handler = handlerOf();
    EXPECT_EQ(*handler->cleanupPolicy(), Policy::Automatic);
    EXPECT_TRUE(handler->setCleanupPolicy(Policy::Keep).is(ErrorCode::NotFound));
    fillEntry();
    for (const Policy policy : {Policy::Keep, Policy::Discard, Policy::Automatic}) {
        EXPECT_FALSE(handler->setCleanupPolicy(policy).hasError());
        EXPECT_EQ(*handlerOf()->cleanupPolicy(), policy);
    }
}
