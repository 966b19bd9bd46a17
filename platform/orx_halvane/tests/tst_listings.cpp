#include "HalvaneConnectionUtils.h"
#include "HalvaneError.h"
#include "HalvaneItemTasks.h"
#include "HalvaneListingStore.h"
#include "HalvaneTaskFixture.h"

#include <FullPool.h>
#include <RealServer.h>
#include <WorkerPool.h>

#include <QCoreApplication>

#include <latch>

using namespace orx;
using namespace orx::testing;

namespace {

class ListingsTest : public HalvaneTaskFixture {
protected:
    void SetUp() override {
        HalvaneTaskFixture::SetUp();
        HalvaneListingStore::instance().clear();
    }

    static QStringList names(const QList<HalvaneFileItemSPtr>& files) {
        QStringList all;
        for (const auto& file : files)
            all.append(file->name());
        return all;
    }
    QStringList list(int folder) {
        HalvaneGetFilesTask task(folder);
        EXPECT_TRUE(succeeded(run(task)));
        return names(task.files());
    }
    int addFolder() { return m_server.service().addFolder(QStringLiteral("raw")); }
    int addFile(const char* name, int folder) {
        return m_server.service().addFile(QString::fromLatin1(name), "1", folder);
    }
    //! A listing that is held at the server.
    std::unique_ptr<HalvaneGetFilesTask> heldListing(int folder) {
        m_server.script(QStringLiteral("GET /folders/%1/files").arg(folder), ScriptedFault::hold());
        auto task = std::make_unique<HalvaneGetFilesTask>(folder);
        task->setMaxAttempts(1);
        task->exec();
        EXPECT_EQ(m_server.heldCount(), 1);
        return task;
    }
    int calls() const { return m_server.count(QStringLiteral("GET /folders/*")); }
};

using ListingPtr = std::shared_ptr<const HalvaneListing>;

ListingPtr listingOf(int items, const QByteArray& tag = "\"1\"") {
    auto listing = std::make_shared<HalvaneListing>();
    listing->tag = tag;
    for (int i = 0; i < items; ++i) {
        auto item = HalvaneFileItemSPtr::create();
        item->setId(i + 1);
        item->setName(QString::number(i));
        listing->files.append(item);
    }
    return listing;
}

} // namespace

TEST_F(ListingsTest, AnUnchangedFolderIsConfirmedAndNotSentAgain) {
    const int folder = addFolder();
    addFile("a", folder);
    HalvaneGetFilesTask first(folder);
    ASSERT_TRUE(succeeded(run(first)));
    HalvaneGetFilesTask second(folder);
    ASSERT_TRUE(succeeded(run(second)));
    EXPECT_EQ(names(second.files()), QStringList{QStringLiteral("a")});
    EXPECT_EQ(first.files().constData(), second.files().constData()) << "one list in memory";
    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 2) << "every run asks";
    EXPECT_TRUE(requests[0].header("If-None-Match").isEmpty());
    EXPECT_FALSE(requests[1].header("If-None-Match").isEmpty());
}

TEST_F(ListingsTest, AChangedFolderIsReadAfresh) {
    const int folder = addFolder();
    const int file = addFile("a", folder);
    EXPECT_EQ(list(folder).size(), 1);
    addFile("b", folder);
    EXPECT_EQ(list(folder).size(), 2);
    m_server.service().addVersion(file, "newer");
    HalvaneGetFilesTask task(folder);
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(task.files().front()->lastVersion(), 2);
}

TEST_F(ListingsTest, FoldersAreKeptLikeFilesAndNotInTheirPlace) {
    const int folder = addFolder();
    addFile("a", folder);
    m_server.service().addFolder(QStringLiteral("below"), folder);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(list(folder), QStringList{QStringLiteral("a")});
        HalvaneGetFoldersTask folders(folder);
        ASSERT_TRUE(succeeded(run(folders)));
        ASSERT_EQ(folders.foldersTree().size(), 1);
        EXPECT_EQ(folders.foldersTree().front()->name(), QStringLiteral("below"));
    }
    EXPECT_FALSE(m_server.requests().back().header("If-None-Match").isEmpty());
}

TEST_F(ListingsTest, WhatOneLoginWasShownIsNotShownToAnother) {
    const int folder = addFolder();
    addFile("a", folder);
    EXPECT_EQ(list(folder).size(), 1);
    HalvaneConnection::instance().setCredentials(QStringLiteral("ben"), "another token");
    HalvaneGetFilesTask task(folder);
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_TRUE(m_server.requests().back().header("If-None-Match").isEmpty());
    EXPECT_TRUE(task.files().isEmpty());
}

TEST_F(ListingsTest, AConfirmationOfNothingIsNoReply) {
    m_server.script(QStringLiteral("*"), ScriptedFault::raw(304, {}));
    HalvaneGetFilesTask task(1);
    EXPECT_TRUE(isNetworkError(run(task), NetworkErrorCode::HttpStatus));
}

TEST_F(ListingsTest, AFailedListingIsNotKept) {
    m_server.script(QStringLiteral("*"),
                    {ScriptedFault::Kind::Reply, {200, {{"ETag", "\"bad\""}}, "{\"status\": \"success\"}"}});
    HalvaneGetFilesTask task(1);
    EXPECT_TRUE(isNetworkError(run(task), NetworkErrorCode::InvalidReply));
    EXPECT_TRUE(list(1).isEmpty());
    EXPECT_TRUE(m_server.requests().back().header("If-None-Match").isEmpty());
}

TEST_F(ListingsTest, CallsOnTheirWayAreShared) {
    const int folder = addFolder();
    addFile("a", folder);
    const auto first = heldListing(folder);
    std::vector<std::unique_ptr<HalvaneGetFilesTask>> others;
    for (int i = 0; i < 10; ++i) {
        others.push_back(std::make_unique<HalvaneGetFilesTask>(folder));
        others.back()->exec();
    }
    HalvaneGetFoldersTask another(folder);
    EXPECT_TRUE(succeeded(run(another))) << "another call does not wait";
    EXPECT_EQ(calls(), 2);
    m_server.release();
    for (const auto& task : others) {
        ASSERT_TRUE(succeeded(task->waitForFinished()));
        EXPECT_EQ(names(task->files()), QStringList{QStringLiteral("a")});
    }
    EXPECT_TRUE(first->isFinished());
    EXPECT_EQ(calls(), 2);
}

TEST_F(ListingsTest, ACallIsNotSharedWhenSomethingMayHaveChangedSince) {
    const int folder = addFolder();
    EXPECT_TRUE(list(folder).isEmpty());
    const auto first = heldListing(folder);
    HalvaneCreateFolderTask::Input input;
    input.name = QStringLiteral("new");
    input.parentId = folder;
    HalvaneCreateFolderTask create(input);
    ASSERT_TRUE(succeeded(run(create)));
    addFile("a", folder);
    EXPECT_EQ(list(folder), QStringList{QStringLiteral("a")}) << "while the older call is still on its way";
    m_server.release();
    ASSERT_TRUE(succeeded(first->waitForFinished()));
    EXPECT_TRUE(first->files().isEmpty());
}

TEST_F(ListingsTest, ACallThatIsTooOldIsWaitedForWhenNothingIsKeptYet) {
    const int folder = addFolder();
    addFile("a", folder);
    const auto first = heldListing(folder);
    HalvaneCreateFolderTask create({QStringLiteral("new"), {}, folder});
    ASSERT_TRUE(succeeded(run(create)));
    addFile("b", folder);
    HalvaneGetFilesTask second(folder);
    HalvaneGetFilesTask third(folder);
    second.exec();
    third.exec();
    EXPECT_EQ(calls(), 1);
    m_server.release();
    ASSERT_TRUE(succeeded(second.waitForFinished()));
    ASSERT_TRUE(succeeded(third.waitForFinished()));
    EXPECT_TRUE(first->isFinished());
    EXPECT_EQ(names(second.files()), (QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    EXPECT_EQ(third.files().size(), 2);
    EXPECT_EQ(calls(), 2);
    EXPECT_FALSE(m_server.requests().back().header("If-None-Match").isEmpty()) << "for the changes only";
}

TEST_F(ListingsTest, ACallThatIsWaitedForAndFailsIsNoAnswerOfItsOwn) {
    const int folder = addFolder();
    const auto first = heldListing(folder);
    HalvaneCreateFolderTask create({QStringLiteral("new"), {}, folder});
    ASSERT_TRUE(succeeded(run(create)));
    HalvaneGetFilesTask second(folder);
    second.exec();
    first->cancel();
    EXPECT_TRUE(succeeded(second.waitForFinished()));
    EXPECT_EQ(calls(), 2);
}

// What changed only

TEST_F(ListingsTest, OnlyWhatChangedIsSentOfAFolderThatIsKnown) {
    const int folder = addFolder();
    const int a = addFile("a", folder);
    addFile("b", folder);
    EXPECT_EQ(list(folder).size(), 2);
    addFile("c", folder);
    m_server.service().addVersion(a, "newer");
    HalvaneGetFilesTask task(folder);
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(names(task.files()),
              (QStringList{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
    EXPECT_EQ(task.files().front()->lastVersion(), 2);
    EXPECT_EQ(m_server.requests().back().header("A-IM"), "changes");
    HalvaneGetFilesTask confirmed(folder);
    ASSERT_TRUE(succeeded(run(confirmed)));
    EXPECT_EQ(confirmed.files().constData(), task.files().constData()) << "kept with its own tag";
}

TEST_F(ListingsTest, ChangesOfAnotherListingAreNoReply) {
    const int folder = addFolder();
    addFile("a", folder);
    EXPECT_EQ(list(folder).size(), 1);
    const QByteArray nothing = R"({"status": "success", "data": {"files": []}})";
    for (const QByteArray base : {"", "\"another\""}) {
        m_server.script(QStringLiteral("*"), {ScriptedFault::Kind::Reply,
                                              {226, {{"ETag", "\"new\""}, {"Delta-Base", base}}, nothing}});
        HalvaneGetFilesTask task(folder);
        EXPECT_TRUE(isNetworkError(run(task), NetworkErrorCode::InvalidReply));
        EXPECT_TRUE(task.files().isEmpty());
    }
    EXPECT_EQ(list(folder), QStringList{QStringLiteral("a")}) << "what is kept is what it was";
}

TEST_F(ListingsTest, ARequestThatFailedMayHaveChangedSomethingToo) {
    const int folder = addFolder();
    EXPECT_TRUE(list(folder).isEmpty());
    const auto first = heldListing(folder);
    m_server.script(QStringLiteral("POST /folders"), ScriptedFault::replyLost());
    HalvaneCreateFolderTask::Input input;
    input.name = QStringLiteral("new");
    HalvaneCreateFolderTask create(input);
    EXPECT_TRUE(run(create).hasError());
    EXPECT_TRUE(list(folder).isEmpty());
    EXPECT_EQ(calls(), 3);
    m_server.release();
    EXPECT_TRUE(succeeded(first->waitForFinished()));
}

TEST_F(ListingsTest, WhoWaitsForACancelledOrDestroyedCallMakesItAfterAll) {
    const int folder = addFolder();
    addFile("a", folder);
    for (const bool destroy : {false, true}) {
        m_server.clearLog();
        auto first = heldListing(folder);
        HalvaneGetFilesTask second(folder);
        HalvaneGetFilesTask third(folder);
        second.exec();
        third.exec();
        if (destroy)
            first.reset();
        else
            first->cancel();
        ASSERT_TRUE(succeeded(second.waitForFinished()));
        ASSERT_TRUE(succeeded(third.waitForFinished()));
        EXPECT_EQ(third.files().size(), 1);
        EXPECT_EQ(calls(), 2) << "the third waits for the second";
    }
}

TEST_F(ListingsTest, TheFailureOfACallIsThatOfAllWhoWait) {
    const auto first = heldListing(999);
    HalvaneGetFilesTask second(999);
    second.exec();
    m_server.release();
    EXPECT_TRUE(isHalvaneError(second.waitForFinished(), HalvaneServerErrorCode::NotFound));
    EXPECT_TRUE(isHalvaneError(first->error(), HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(calls(), 1);
}

TEST_F(ListingsTest, WhoWaitsMayBeCancelledOrDestroyed) {
    const int folder = addFolder();
    const auto first = heldListing(folder);
    HalvaneGetFilesTask second(folder);
    auto third = std::make_unique<HalvaneGetFilesTask>(folder);
    second.exec();
    third->exec();
    second.cancel();
    EXPECT_TRUE(second.isFinished());
    third.reset();
    m_server.release();
    EXPECT_TRUE(succeeded(first->waitForFinished()));
    QCoreApplication::processEvents();
    EXPECT_TRUE(second.error().isCanceled());
}

namespace {

//! Until what was submitted so far has run, and its completions too: all workers meet, so none is still at an
//! earlier job.
void waitForJobs() {
    const int count = WorkerPool::instance().threadCount();
    const auto meeting = std::make_shared<std::latch>(count);
    int left = count;
    for (int i = 0; i < count; ++i)
        WorkerPool::instance().submit([meeting] { meeting->arrive_and_wait(); }, nullptr,
                                      [&left] { --left; });
    EXPECT_TRUE(waitUntil([&left] {
        QCoreApplication::processEvents();
        return left == 0;
    }));
}

} // namespace

class LargeListings : public ListingsTest {
protected:
    void SetUp() override {
        ListingsTest::SetUp();
        m_folder = addFolder();
        for (int i = 0; i < 600; ++i)
            m_names.append(QString::fromLatin1(addNumbered(i)));
    }
    QByteArray addNumbered(int i) {
        const QByteArray name = QByteArray(150, 'n') + QByteArray::number(i);
        addFile(name.constData(), m_folder);
        return name;
    }
    //! Executed, and its reply is there.
    std::unique_ptr<HalvaneGetFilesTask> replied() {
        auto task = std::make_unique<HalvaneGetFilesTask>(m_folder);
        task->exec();
        // Its request was sent before this one's, and the scripted server answers in that order.
        EXPECT_EQ(list(1), QStringList());
        return task;
    }

    int m_folder = 0;
    QStringList m_names;
};

TEST_F(LargeListings, AreReadOnAWorker) {
    probes::FullPool workers;
    const auto task = replied();
    EXPECT_TRUE(task->isRunning()) << "nobody has had time to read it";
    workers.release();
    ASSERT_TRUE(succeeded(task->waitForFinished()));
    EXPECT_EQ(names(task->files()), m_names);
    EXPECT_EQ(list(m_folder), m_names);
    EXPECT_FALSE(m_server.requests().back().header("If-None-Match").isEmpty()) << "it is kept";
}

TEST_F(LargeListings, AreSharedWhileTheyAreRead) {
    probes::FullPool workers;
    const auto first = replied();
    HalvaneGetFilesTask second(m_folder);
    second.exec();
    workers.release();
    ASSERT_TRUE(succeeded(second.waitForFinished()));
    EXPECT_EQ(names(second.files()), m_names);
    EXPECT_EQ(m_server.count(QStringLiteral("GET /folders/%1/files").arg(m_folder)), 1);
}

TEST_F(LargeListings, MayBeCancelledOrDestroyedWhileTheyAreRead) {
    for (const bool destroy : {false, true}) {
        probes::FullPool workers;
        auto task = replied();
        if (destroy)
            task.reset();
        else
            task->cancel();
        workers.release();
        waitForJobs();
        if (task) {
            EXPECT_TRUE(task->error().isCanceled());
            EXPECT_TRUE(task->files().isEmpty());
        }
    }
    EXPECT_EQ(list(m_folder), m_names);
}

TEST_F(LargeListings, ThatAreDamagedFailLikeSmallOnes) {
    const QByteArray filling(100'000, ' ');
    const QString call = QStringLiteral("GET /folders/%1/files").arg(m_folder);
    const auto errorOf = [&](const QByteArray& body) {
        m_server.script(call, {ScriptedFault::Kind::Reply, {200, {{"ETag", "\"bad\""}}, body}});
        HalvaneGetFilesTask task(m_folder);
        const Error error = run(task);
        EXPECT_TRUE(isNetworkError(error, NetworkErrorCode::InvalidReply));
        EXPECT_TRUE(task.files().isEmpty());
        return error.errorMessage();
    };
    for (const QByteArray body :
         {R"({"status": "success"})", R"({"status": "success", "data": {"files": [{"id": 0}]}})",
          R"({"status": "error", "error": {"code": 4, "message": "old"}})"}) {
        EXPECT_EQ(errorOf(body + filling), errorOf(body)) << body.constData();
    }
    EXPECT_TRUE(
        errorOf("<html>" + filling).contains(QStringLiteral("does not answer like a Halvane server")));
    EXPECT_EQ(list(m_folder), m_names) << "nothing of them is kept";
    EXPECT_TRUE(m_server.requests().back().header("If-None-Match").isEmpty());
}

TEST_F(ListingsTest, AFileIsFoundByItsNameInAKeptAndInAnyList) {
    const int folder = addFolder();
    addFile("a", folder);
    const int last = addFile("a", folder);
    const int upper = addFile("A", folder);
    HalvaneGetFilesTask task(folder);
    ASSERT_TRUE(succeeded(run(task)));
    QList<HalvaneFileItemSPtr> another = task.files();
    another.append(another.front());
    for (const auto& files : {task.files(), another}) {
        EXPECT_EQ(HalvaneConnectionUtils::findFileIdInFiles(QStringLiteral("a"), files), last);
        EXPECT_EQ(HalvaneConnectionUtils::findFileIdInFiles(QStringLiteral("A"), files), upper);
        EXPECT_EQ(HalvaneConnectionUtils::findFileIdInFiles(QStringLiteral("b"), files), -1);
    }
    EXPECT_TRUE(HalvaneListingStore::instance().holding(task.files()));
    EXPECT_FALSE(HalvaneListingStore::instance().holding(another));
    EXPECT_EQ(HalvaneConnectionUtils::findFileIdInFiles(QStringLiteral("a"), {}), -1);
}

TEST_F(LargeListings, OfWhichMuchChangedAreMergedOnAWorkerToo) {
    EXPECT_EQ(list(1), QStringList());
    EXPECT_EQ(list(m_folder), m_names);
    for (int i = 600; i < 1'200; ++i)
        m_names.append(QString::fromLatin1(addNumbered(i)));
    probes::FullPool workers;
    const auto task = replied();
    EXPECT_TRUE(task->isRunning());
    workers.release();
    ASSERT_TRUE(succeeded(task->waitForFinished()));
    EXPECT_EQ(names(task->files()), m_names);
}

// The store

TEST(ListingStore, MergesChangesByTheirIds) {
    const ListingPtr old = listingOf(3);
    HalvaneListing changes;
    changes.tag = "\"2\"";
    for (const int id : {2, 5}) {
        auto item = HalvaneFileItemSPtr::create();
        item->setId(id);
        item->setName(QStringLiteral("new"));
        changes.files.append(item);
    }
    const auto merged = old->with(changes);
    QList<int> ids;
    for (const auto& file : merged->files)
        ids.append(file->id());
    EXPECT_EQ(ids, (QList<int>{1, 2, 3, 5}));
    EXPECT_EQ(merged->files[1]->name(), QStringLiteral("new"));
    EXPECT_EQ(merged->tag, "\"2\"");
    EXPECT_EQ(old->size(), 3) << "who holds it keeps it";
    EXPECT_EQ(merged->findFileId(QStringLiteral("new")), 5);
}

namespace {

HalvaneFileItemSPtr fileItem(int id, const QString& name) {
    auto item = HalvaneFileItemSPtr::create();
    item->setId(id);
    item->setName(name);
    return item;
}

//! A listing with these in the place of the ones with their ids.
ListingPtr with(const HalvaneListing& listing, const QList<HalvaneFileItemSPtr>& files) {
    HalvaneListing changes;
    changes.tag = "\"2\"";
    changes.files = files;
    return listing.with(changes);
}

} // namespace

TEST(ListingStore, FindsNamesInWhatWasMergedAsInAListingOfItsOwn) {
    const ListingPtr old = listingOf(3); // "0", "1" and "2"
    EXPECT_EQ(old->findFileId(QStringLiteral("1")), 2);
    const auto check = [](const HalvaneListing& listing) {
        for (const auto& file : listing.files) {
            int largest = -1;
            for (const auto& other : listing.files)
                largest = other->name() == file->name() ? std::max(largest, other->id()) : largest;
            EXPECT_EQ(listing.findFileId(file->name()), largest);
        }
        EXPECT_EQ(listing.findFileId(QStringLiteral("none")), -1);
    };
    const auto added = with(*old, {fileItem(7, QStringLiteral("1")), fileItem(8, QStringLiteral("new"))});
    check(*added);
    EXPECT_EQ(added->findFileId(QStringLiteral("1")), 7);
    check(*old);
    EXPECT_EQ(old->findFileId(QStringLiteral("new")), -1);
    const auto changed = with(*added, {fileItem(2, QStringLiteral("1"))});
    check(*changed);
    const auto renamed = with(*added, {fileItem(7, QStringLiteral("7"))});
    check(*renamed);
    EXPECT_EQ(renamed->findFileId(QStringLiteral("1")), 2);
}

TEST(ListingStore, TheIndexOfNamesGrowsWithoutBeingMadeAnew) {
    constexpr int there = 5'000;
    ListingPtr listing = listingOf(there);
    EXPECT_EQ(listing->findFileId(QStringLiteral("10")), 11);
    const quint64 before = NameIndex::namesWritten();
    for (int id = there + 1; id <= there + 500; ++id) {
        listing = with(*listing, {fileItem(id, QString::number(id % 300))});
        EXPECT_EQ(listing->findFileId(QString::number(id % 300)), id);
    }
    EXPECT_EQ(listing->findFileId(QStringLiteral("4999")), 5'000);
    EXPECT_EQ(listing->findFileId(QString::number((there + 1) % 300)), there + 301);
    EXPECT_LT(NameIndex::namesWritten() - before, quint64(500 * 200)) << "not 500 times all that is there";
}

TEST(ListingStore, ForgetsWhatWasNotUsedForLongest) {
    HalvaneListingStore store(10, 3);
    store.keep("a", listingOf(1));
    store.keep("b", listingOf(1));
    store.keep("c", listingOf(1));
    EXPECT_TRUE(store.find("a"));
    store.keep("d", listingOf(1));
    EXPECT_FALSE(store.find("b"));
    EXPECT_TRUE(store.find("a"));
    store.keep("e", listingOf(9));
    EXPECT_TRUE(store.find("e"));
    EXPECT_TRUE(store.find("a"));
    EXPECT_FALSE(store.find("c"));
    EXPECT_FALSE(store.find("d"));
}

TEST(ListingStore, KeepsTheLastOfEachKeyAndNothingThatCannotBeConfirmed) {
    HalvaneListingStore store(10, 3);
    const ListingPtr old = listingOf(5);
    store.keep("a", old);
    store.keep("a", listingOf(6, "\"2\""));
    EXPECT_EQ(store.find("a")->tag, "\"2\"");
    EXPECT_FALSE(store.holding(old->files));
    EXPECT_TRUE(store.holding(store.find("a")->files));
    store.keep("b", listingOf(1, QByteArray()));
    EXPECT_FALSE(store.find("b"));
    store.keep("a", listingOf(11));
    EXPECT_FALSE(store.find("a")) << "too large, and what it replaces is out of date";
    store.keep("c", listingOf(0));
    EXPECT_TRUE(store.find("c"));
    store.clear();
    EXPECT_FALSE(store.find("c"));
}
