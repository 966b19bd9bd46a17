// What goes wrong on the way to the cache: names, networks, servers that change meanwhile.
#include "CacheDownloads.h"

#include <FaultProxy.h>
#include <HalvaneConnection.h>

namespace orx::testing {
namespace {

//! Cases that only a server of words can make.
class ScriptedDownloads : public CacheDownloads {
protected:
    int folder(const QString& name, int parent) { return scripted()->service().addFolder(name, parent); }
    int file(const QString& name, const QByteArray& content, int parent) {
        return scripted()->service().addFile(name, content, parent);
    }
    void fail(int id, int times = ScriptedHalvaneServer::Always) {
        scripted()->script(
            text("GET /files/%1/*").arg(id),
            ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, text("Hands off.")), times);
    }
};
INSTANTIATE_TEST_SUITE_P(Scripted, ScriptedDownloads, ::testing::Values(Backend::Scripted), backendName);

TEST_P(ScriptedDownloads, NamesThatAreDangerousHereNeverLeaveTheTargetAndAreNamed) {
    const int raw = folder(text("raw"), Root);
    const QStringList names{text(".."),          text("."),        text("/etc/x"),     text("a/b"),
                            QString(u"n\0l"_qs), text("bell\a"),   QString(300, u'y'), text("..."),
                            text("trailing  "),  text("trailing.")};
    for (const QString& name : names) {
        file(name, "must not appear", raw);
        file(text("inside"), "must not appear", folder(name, raw));
    }
    file(text("good"), "content", raw);
    // One level down, so that what gets out of its folder by ".." is seen too.
    const auto task = downloadInto(raw, text("deep/target"));
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument)) << qPrintable(error.errorMessage());
    EXPECT_EQ(tree(), (QStringList{text("deep/"), text("deep/target/"), text("deep/target/good=content")}));
    EXPECT_FALSE(QFileInfo::exists(text("/etc/x")));
    EXPECT_EQ(task->failures().size(), 2 * names.size());
    QStringList told;
    for (const HalvaneDownloadFailure& failure : task->failures())
        told.append(failure.path);
    for (const char* shown :
         {"..", ".", "/etc/x", "a/b", "n\\x00l", "bell\\x07", "...", "trailing  ", "trailing."})
        EXPECT_EQ(told.count(text(shown)), 2) << shown;
    EXPECT_EQ(told.count(QString(300, u'y')), 2);
    EXPECT_EQ(cache().entries()->size(), 1);
}

TEST_P(ScriptedDownloads, OneFailedFileDoesNotHideTheOthers) {
    const int raw = folder(text("raw"), Root);
    file(text("a"), "first", raw);
    const int forbidden = file(text("b"), "second", raw);
    file(text("c"), "third", folder(text("below"), raw));
    fail(forbidden);
    const auto task = download(raw);
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorDomain::Server, int(HalvaneServerErrorCode::NoPrivilege)));
    EXPECT_TRUE(error.errorMessage().contains(u'b')) << qPrintable(error.errorMessage());
    EXPECT_EQ(tree(), (QStringList{text("a=first"), text("below/"), text("below/c=third")}));
    ASSERT_EQ(task->failures().size(), 1);
    EXPECT_EQ(task->failures().first().path, text("b"));
    EXPECT_EQ(task->downloadedFileCount(), 2);
}

TEST_P(ScriptedDownloads, AVersionThatComesHalfWayLeavesTheListedOneWhole) {
    const int raw = folder(text("raw"), Root);
    const int id = file(text("a"), "the version of the listing", raw);
    scripted()->script(text("GET /files/*/content"), ScriptedFault::truncatedBody(7));
    scripted()->onRequest = [this, id](const ScriptedRequest& request) {
        if (request.path.endsWith(text("/content")) && scripted()->service().files()[id].versions.size() == 1)
            scripted()->service().addVersion(id, "what came meanwhile");
    };
    ASSERT_FALSE(run(*download(raw)).hasError());
    EXPECT_EQ(tree(), QStringList{text("a=the version of the listing")});
    EXPECT_EQ(contentCalls(), 2);
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*again).hasError());
    EXPECT_EQ(tree(), QStringList{text("a=what came meanwhile")});
}

TEST_P(ScriptedDownloads, AFileThatIsRemovedAfterTheListingFailsAlone) {
    const int raw = folder(text("raw"), Root);
    const int removed = file(text("a"), "first", raw);
    const int empty = file(text("b"), "", raw);
    file(text("c"), "third", raw);
    for (const int id : {removed, empty})
        scripted()->script(
            text("GET /files/%1/*").arg(id),
            ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, text("It has gone.")),
            ScriptedHalvaneServer::Always);
    const auto task = download(raw);
    EXPECT_TRUE(run(*task).is(ErrorDomain::Server, int(HalvaneServerErrorCode::NotFound)));
    EXPECT_EQ(tree(), QStringList{text("c=third")});
    EXPECT_EQ(task->failures().size(), 2);
}

//! The real server behind a line that breaks.
class DownloadsOverABadLine : public CacheDownloads {
protected:
    DownloadsOverABadLine() : proxy("127.0.0.1", real()->port()) {
        raw = makeFolder(text("raw"));
        for (qsizetype i = 0; i < large.size(); ++i)
            large[i] = char('a' + (i * 7 + i / 1000) % 26);
        makeFile(text("small"), "small content", raw);
        largeFile = makeFile(text("large"), large, raw);
        forgetCalls();
        connectOver(QUrl(QString::fromStdString(proxy.url())));
    }
    FaultProxy::Match contentOfLarge(int skip = 0, int times = 1) const {
        return {"GET", ".*/files/" + std::to_string(largeFile) + "/versions/1/content", skip, times};
    }
    QStringList whole() const {
        return {text("large=") + QString::fromLatin1(large), text("small=small content")};
    }

    FaultProxy proxy;
    int raw = -1;
    int largeFile = -1;
    QByteArray large{4'000, Qt::Uninitialized};
};
INSTANTIATE_TEST_SUITE_P(Real, DownloadsOverABadLine, ::testing::Values(Backend::Real), backendName);

TEST_P(DownloadsOverABadLine, ACutConnectionCostsOnlyTheRest) {
    proxy.cutReplyBody(contentOfLarge(1), 1'500);
    proxy.cutReplyBody(contentOfLarge(), 1'000);
    const auto task = download(raw);
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), whole());
    EXPECT_EQ(proxy.traffic("GET", contentOfLarge().path).replyBytes, std::uint64_t(large.size()));
}

TEST_P(DownloadsOverABadLine, AByteThatChangesOnTheWayIsNoticedAndTheContentFetchedAfresh) {
    proxy.corruptReplyBody(contentOfLarge(), 1'234);
    const auto task = download(raw);
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), whole());
    EXPECT_EQ(contentCalls(), 3);
}

TEST_P(DownloadsOverABadLine, ALineThatAlwaysChangesBytesNeverGetsAFileIntoTheTargetOrTheCache) {
    put(text("large"), "before");
    proxy.corruptReplyBody(contentOfLarge(0, -1), 1'234);
    const auto task = download(raw);
    task->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    EXPECT_TRUE(run(*task).is(ErrorCode::ChecksumMismatch)) << qPrintable(task->error().errorMessage());
    EXPECT_EQ(tree(), (QStringList{text("large=before"), text("small=small content")}));
    EXPECT_EQ(cache().entries()->size(), 1);
    proxy.clearRules();
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*again).hasError()) << qPrintable(again->error().traceText());
    EXPECT_EQ(tree(), whole());
}

TEST_P(DownloadsOverABadLine, ANewVersionInTheMiddleOfTheBodyLeavesTheListedOneWhole) {
    const auto hold = proxy.holdReply(contentOfLarge(1));
    proxy.cutReplyBody(contentOfLarge(), 2'000);
    const auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return hold->isAnswered(); }));
    addVersion(largeFile, "the next version");
    hold->release();
    ASSERT_FALSE(task->waitForFinished().hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), whole());
}

TEST_P(DownloadsOverABadLine, WhatACancelledRunBroughtIsNotBroughtAgain) {
    const auto hold = proxy.holdReply(contentOfLarge(1));
    proxy.cutReplyBody(contentOfLarge(), 3'000);
    auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return hold->isAnswered(); }));
    task->cancel();
    ASSERT_TRUE(waitUntil([&] { return task->isFinished() && task->isIdle(); }));
    hold->drop();
    const auto before = proxy.traffic("GET", contentOfLarge().path).replyBytes;
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*again).hasError()) << qPrintable(again->error().traceText());
    EXPECT_EQ(tree(), whole());
    EXPECT_EQ(proxy.traffic("GET", contentOfLarge().path).replyBytes - before, std::uint64_t(1'000));
}

TEST_P(DownloadsOverABadLine, AServerThatIsKilledAndComesBackFinishesTheTree) {
    const auto hold = proxy.holdReply(contentOfLarge());
    const auto task = download(raw);
    task->exec();
    // The other file has come, so that nothing is tried again while there is no server.
    ASSERT_TRUE(waitUntil([&] { return hold->isAnswered() && task->downloadedFileCount() == 1; }));
    real()->kill();
    ASSERT_TRUE(real()->start());
    hold->drop();
    ASSERT_FALSE(task->waitForFinished().hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), whole());
}

} // namespace
} // namespace orx::testing
