// Files and folders come down through the cache, from the scripted server and from the real one.
#include "CacheDownloads.h"

#include <Vonk.h>

#include <QFile>

namespace orx::testing {
namespace {

class Downloads : public CacheDownloads {};
ORX_CONTRACT(Downloads);

TEST_P(Downloads, ATreeComesDownWithAllItsLevelsTwinsAndEmptyPlaces) {
    const int raw = makeFolder(text("raw"));
    const int first = makeFolder(text("same"), raw);
    const int second = makeFolder(text("same"), raw);
    const int deep = makeFolder(text("deep"), makeFolder(text("Ähre 1"), second));
    makeFolder(text("empty"), deep);
    const int versioned = makeFile(text("a"), "old", first);
    addVersion(versioned, "the newest content");
    const int plain = makeFile(text("same"), "a file", raw);
    makeFile(text("twin"), {}, raw);
    const int twin = makeFile(text("twin"), "not empty", raw);
    makeFile(text("b"), "at the bottom", deep);
    const auto task = download(raw, false);
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    const QString other = text("raw/same (folder %1)/").arg(second);
    QStringList expected{text("raw/"),
                         text("raw/same/"),
                         text("raw/same/a=the newest content"),
                         other,
                         other + text("Ähre 1/"),
                         other + text("Ähre 1/deep/"),
                         other + text("Ähre 1/deep/b=at the bottom"),
                         other + text("Ähre 1/deep/empty/"),
                         text("raw/same (file %1)=a file").arg(plain),
                         text("raw/twin="),
                         text("raw/twin (file %1)=not empty").arg(twin)};
    expected.sort();
    EXPECT_EQ(tree(), expected);
    EXPECT_EQ(task->downloadedFileCount(), 5);
    const auto entries = cache().entries();
    ASSERT_TRUE(entries);
    EXPECT_EQ(entries->size(), 5);
    EXPECT_EQ(contentCalls(), 4) << "the empty file has nothing to send";
    EXPECT_EQ(versionCalls(), 1) << "the listing told all but that the empty file may be had";
}

TEST_P(Downloads, WhatIsInTheCacheIsNotFetchedAgain) {
    const int raw = makeFolder(text("raw"));
    const int a = makeFile(text("a"), "first", raw);
    makeFile(text("b"), "second", raw);
    ASSERT_FALSE(run(*download(raw)).hasError());
    forgetCalls();
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*again).hasError());
    ASSERT_FALSE(run(*downloadFile(a, 1, text("a"), text("copy"))).hasError());
    EXPECT_EQ(tree(), (QStringList{text("a=first"), text("b=second"), text("copy=first")}));
    EXPECT_EQ(contentCalls(), 0);
    EXPECT_EQ(versionCalls(), 0);
    addVersion(a, "newer");
    const auto newer = download(raw);
    newer->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*newer).hasError());
    EXPECT_EQ(tree(), (QStringList{text("a=newer"), text("b=second"), text("copy=first")}));
    EXPECT_EQ(contentCalls(), 1);
}

QByteArray packedSample(int major) {
    QFile file(QStringLiteral(VONK_TEST_DATA "/version%1.vonk").arg(major));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

TEST_P(Downloads, APackedAcquisitionComesDownUnpackedAndLiesSoInTheCache) {
    for (const int major : {1, 2}) {
        const QString name = text("run%1.vonk").arg(major);
        const int file = makeFile(name, packedSample(major));
        ASSERT_FALSE(run(*downloadFile(file, 1, name)).hasError());
        const QString entry = cachedPath(file, 1, name);
        EXPECT_EQ(QDir(entry).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{text("content")});
        vonk::Vonk packed(QStringLiteral(VONK_TEST_DATA "/version%1.vonk").arg(major));
        ASSERT_FALSE(packed.open().hasError());
        const QTemporaryDir other;
        ASSERT_FALSE(packed.unpack(other.filePath(text("unpacked"))).hasError());
        for (const vonk::VonkEntry& item : packed.metadata().entries) {
            if (!item.isFile())
                continue;
            QFile expected(other.filePath(text("unpacked/") + item.path));
            QFile found(at(item.path.mid(text("content/").size())));
            ASSERT_TRUE(expected.open(QIODevice::ReadOnly));
            ASSERT_TRUE(found.open(QIODevice::ReadOnly)) << qPrintable(found.fileName());
            EXPECT_EQ(found.readAll(), expected.readAll());
        }
        forgetCalls();
        const auto again = downloadFile(file, 1, name);
        again->setDuplicateFilesPolicy(FileUtils::CopyFilesOptions::DuplicateFilesPolicy::Skip);
        ASSERT_FALSE(run(*again).hasError());
        EXPECT_EQ(contentCalls(), 0);
        ASSERT_TRUE(QDir(at(packed.metadata().name)).removeRecursively() ||
                    QFile::remove(at(packed.metadata().name)));
    }
}

TEST_P(Downloads, WhatOnlyBearsTheNameOfAPackedAcquisitionComesAsTheFileThatItIs) {
    const int file = makeFile(text("run.vonk"), "nothing packed");
    const auto task = downloadFile(file, 1, text("run.vonk"));
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), QStringList{text("run.vonk=nothing packed")});
    EXPECT_FALSE(task->error().warnings().isEmpty());
}

TEST_P(Downloads, AFileOfManyChunksComesByItselfAndIsAskedForOnce) {
    const QByteArray content("more than one chunk of eight bytes");
    const int file = makeFile(text("run.mzML"), content);
    const auto task = downloadFile(file, 1, text("run.mzML"));
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(task->localFilePath(), at(text("run.mzML")));
    EXPECT_EQ(tree(), QStringList{text("run.mzML=") + QString::fromLatin1(content)});
    EXPECT_EQ(contentCalls(), 1);
    EXPECT_TRUE(task->filenames().isEmpty()) << "one file tells no names";
}

TEST_P(Downloads, AVersionThatIsNotThereIsAnErrorAndLeavesNothing) {
    const int file = makeFile(text("run.mzML"), "content");
    for (const auto& [id, version] : {std::pair(file, 2), std::pair(9999, 1)}) {
        const auto task = downloadFile(id, version, text("run.mzML"));
        EXPECT_TRUE(run(*task).is(ErrorDomain::Server, int(HalvaneServerErrorCode::NotFound)))
            << qPrintable(task->error().errorMessage());
    }
    EXPECT_TRUE(tree().isEmpty());
    EXPECT_TRUE(cache().entries()->isEmpty());
}

TEST_P(Downloads, ANameThatAnAnswerTookIsAClashForTheFileOfThisDownloadThatBearsIt) {
    const int raw = makeFolder(text("raw"));
    const int a = makeFile(text("a"), "first", raw);
    const int b = makeFile(text("b"), "second", raw);
    put(text("a"), "before");
    const auto task = download(raw);
    QMap<int, DuplicateDownloadFileInfo> questions;
    QObject::connect(
        task.get(), &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy, task.get(),
        [&](const QStringList&, const DuplicateDownloadFileInfo& info, auto*, QStringList* fixedDuplicates) {
            questions.insert(info.fileReference->id(), info);
            *fixedDuplicates = {info.fileReference->id() == a ? text("b") : text("c")};
        });
    // The first file is in the cache, so that it takes its name before the second one has come.
    ASSERT_FALSE(run(*downloadFile(a, 1, text("a"), text("cached"))).hasError());
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(tree(),
              (QStringList{text("a=before"), text("b=first"), text("c=second"), text("cached=first")}));
    ASSERT_EQ(questions.keys(), (QList<int>{a, b}));
    EXPECT_TRUE(questions[a].clashes.value(text("a")).isNull());
    EXPECT_TRUE(questions[b].clashes.contains(text("b")));
}

TEST_P(Downloads, AnEntryThatWasTruncatedMeanwhileIsFetchedAgainAndNoOther) {
    const int raw = makeFolder(text("raw"));
    const int a = makeFile(text("a"), "first", raw);
    makeFile(text("b"), "second", raw);
    ASSERT_FALSE(run(*download(raw)).hasError());
    forgetCalls();
    QFile cached(cachedPath(a, 1, text("a")));
    ASSERT_TRUE(cached.resize(2)) << qPrintable(cached.fileName());
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    ASSERT_FALSE(run(*again).hasError());
    EXPECT_EQ(tree(), (QStringList{text("a=first"), text("b=second")}));
    EXPECT_EQ(contentCalls(), 1);
}

TEST_P(Downloads, ACancelledTreeKeepsWhatIsWholeAndTheNextRunFetchesTheRest) {
    const int raw = makeFolder(text("raw"));
    QStringList expected;
    for (int i = 0; i < 30; ++i) {
        makeFile(text("run %1").arg(i), "content " + QByteArray::number(i), raw);
        expected.append(text("run %1=content %1").arg(i));
    }
    expected.sort();
    const auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->downloadedFileCount() >= 3; }));
    task->cancel();
    ASSERT_TRUE(waitUntil([&] { return task->isFinished() && task->isIdle(); }));
    EXPECT_TRUE(task->isCanceled());
    for (const QString& entry : tree())
        EXPECT_TRUE(expected.contains(entry)) << qPrintable(entry);
    const auto cached = cache().entries();
    ASSERT_TRUE(cached);
    forgetCallsGivenUp();
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Skip);
    ASSERT_FALSE(run(*again).hasError());
    EXPECT_EQ(tree(), expected);
    EXPECT_LE(contentCalls(), 30 - cached->size());
}

TEST_P(Downloads, DestroyedInTheMiddleItLeavesWholeFilesAndNothingRunning) {
    const int raw = makeFolder(text("raw"));
    QStringList expected;
    for (int i = 0; i < 30; ++i) {
        makeFile(text("run %1").arg(i), "content " + QByteArray::number(i), raw);
        expected.append(text("run %1=content %1").arg(i));
    }
    expected.sort();
    auto task = download(raw);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->downloadedFileCount() >= 3; }));
    task.reset();
    for (const QString& entry : tree())
        EXPECT_TRUE(expected.contains(entry)) << qPrintable(entry);
    // Nothing that was left behind keeps the next run from its entries.
    const auto again = download(raw);
    again->setDuplicatePolicy(DuplicateDownloadPolicy::Skip);
    ASSERT_FALSE(run(*again).hasError()) << qPrintable(again->error().traceText());
    EXPECT_EQ(tree(), expected);
}

TEST_P(Downloads, TheLongestNameOfTheFileSystemComesDownWholeAndUnaltered) {
    const int raw = makeFolder(text("raw"));
    const QString longest(255, u'x');
    makeFile(longest, "content", raw);
    const auto task = download(raw);
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    EXPECT_EQ(tree(), QStringList{longest + text("=content")});
}

} // namespace
} // namespace orx::testing
