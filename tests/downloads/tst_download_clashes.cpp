// What becomes of names that are taken in the target, with contents as servers send them: who is asked, what
// of the answer reaches the copy, and what is said of who took the name.
#include "CacheDownloads.h"

#include <PackInput.h>
#include <RemoteResourceHandler.h>
#include <ResourceManager.h>
#include <VonkPacker.h>

#include <QDateTime>
#include <QFile>

namespace orx::testing {
namespace {

using Policy = FileUtils::CopyFilesOptions::DuplicateFilesPolicy;

class DownloadClashes : public CacheDownloads {
protected:
    //! A packed acquisition of files, each with its name and \a what in it, or of a directory when a name has
    //! one in it.
    int makePacked(const QString& name, const QStringList& files, const QByteArray& what, int folder = Root) {
        const QTemporaryDir dir;
        vonk::PackInput input;
        for (const QString& file : files) {
            const QString path = dir.filePath(file);
            EXPECT_TRUE(QDir().mkpath(QFileInfo(path).path()));
            QFile source(path);
            EXPECT_TRUE(source.open(QIODevice::WriteOnly));
            source.write(file.toUtf8() + " of " + what);
            input.companions.append(dir.filePath(file.section(u'/', 0, 0)));
        }
        input.path = input.companions.takeFirst();
        const auto packed = vonk::VonkPacker::pack(input, dir.filePath(name));
        EXPECT_TRUE(packed) << qPrintable(packed.errorMessage());
        QFile file(dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return makeFile(name, file.readAll(), folder);
    }
    //! The entry of a file in the cache is \a source.
    void cacheAs(int file, const QString& name, const QString& source) {
        const auto handler =
            ResourceManager::getHandler(*HalvaneFileResourceReference::create(file, 1, name));
        ASSERT_TRUE(handler);
        const auto remote = handler->dynamicCast<RemoteResourceHandler>();
        ASSERT_TRUE(remote);
        const Error error = remote->addToCache(Path(source));
        ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_EQ(cache().waitForPending(), QStringList());
    }
    //! Remembers what is asked and answers with \a names; none: leaves them as they are.
    void answer(HalvaneDownloadFileCacheTask& task, const QStringList& names = {}) {
        QObject::connect(&task, &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, &task,
                         [this, names](const QStringList& duplicates, QStringList* fixedDuplicates) {
                             asked.append(duplicates);
                             if (!names.isEmpty())
                                 *fixedDuplicates = names;
                         });
    }
    void expectTheOwnMessage(BaseTask& task) {
        const Error error = run(task);
        EXPECT_TRUE(error.is(ErrorCode::General));
        EXPECT_EQ(error.errorMessage(), text("Copying a file to the target location failed."));
    }

    QList<QStringList> asked;
};
ORX_CONTRACT(DownloadClashes);

TEST_P(DownloadClashes, APolicyOtherThanToAskNeverAsks) {
    const int file = makeFile(text("run"), "new");
    const QDateTime past(QDate(2000, 1, 1), QTime(12, 0));
    struct Case {
        Policy policy;
        int years;
        QStringList tree;
    };
    const QList<Case> cases{{Policy::Overwrite, 100, {text("run=new")}},
                            {Policy::Skip, 0, {text("run=old")}},
                            {Policy::OverwriteOlder, 0, {text("run=new")}},
                            {Policy::OverwriteOlder, 100, {text("run=old")}},
                            {Policy::Rename, 0, {text("run (2)=new"), text("run=old")}}};
    for (const Case& one : cases) {
        put(text("run"), "old");
        QFile there(at(text("run")));
        ASSERT_TRUE(there.open(QIODevice::ReadWrite));
        ASSERT_TRUE(there.setFileTime(past.addYears(one.years), QFileDevice::FileModificationTime));
        there.close();
        const auto task = downloadFile(file, 1, text("run"));
        task->setDuplicateFilesPolicy(one.policy);
        answer(*task, {text("unused")});
        EXPECT_FALSE(run(*task).hasError());
        EXPECT_EQ(tree(), one.tree) << int(one.policy);
    }
    EXPECT_TRUE(asked.isEmpty());
}

TEST_P(DownloadClashes, OfAFileWithAnotherNameThatNameIsAskedAbout) {
    const int file = makeFile(text("run"), "new");
    put(text("other"), "old");
    put(text("run"), "not in the way");
    const auto task = downloadFile(file, 1, text("run"), text("other"));
    answer(*task, {text("third")});
    ASSERT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{{text("other")}});
    EXPECT_EQ(tree(), (QStringList{text("other=old"), text("run=not in the way"), text("third=new")}));
}

TEST_P(DownloadClashes, AnswersThatChangeNothingEndWithTheTasksOwnMessageAndTheOldFileStands) {
    const int file = makeFile(text("run"), "new");
    put(text("run"), "old");
    put(text("other"), "old, too");
    for (const QString& as : {QString(), text("other")}) {
        const auto task = downloadFile(file, 1, text("run"), as);
        answer(*task);
        expectTheOwnMessage(*task);
    }
    EXPECT_EQ(asked, (QList<QStringList>{{text("run")}, {text("other")}}));
    EXPECT_EQ(tree(), (QStringList{text("other=old, too"), text("run=old")}));
}

TEST_P(DownloadClashes, AnErrorPutOnTheTaskByWhoIsAskedCopiesNothing) {
    const int packed = makePacked(text("pair.vonk"), {text("a"), text("b")}, "new");
    put(text("b"), "old");
    const auto task = downloadFile(packed, 1, text("pair.vonk"));
    QObject::connect(task.get(), &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, task.get(),
                     [&task] { task->setError(Error(ErrorCode::Busy, QStringLiteral("not now"))); });
    EXPECT_TRUE(run(*task).is(ErrorCode::Busy));
    EXPECT_EQ(tree(), QStringList{text("b=old")});
    EXPECT_TRUE(task->filenames().isEmpty());
}

TEST_P(DownloadClashes, AnErrorPutOnAFileByWhoIsAskedFailsThatFileOnly) {
    const int raw = makeFolder(text("raw"));
    makeFile(text("a"), "first", raw);
    makeFile(text("b"), "second", raw);
    put(text("a"), "before");
    const auto task = download(raw);
    QObject::connect(task.get(), &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy,
                     task.get(),
                     [](auto&&, auto&&, HalvaneDownloadFileCacheTask* of, auto&&) { of->cancel(); });
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(tree(), (QStringList{text("a=before"), text("b=second")}));
    EXPECT_EQ(task->failures().size(), 1);
}

TEST_P(DownloadClashes, AFileThatIsInTheCacheEndsFromWithinTheStart) {
    const int file = makeFile(text("run"), "content");
    ASSERT_FALSE(run(*downloadFile(file, 1, text("run"))).hasError());
    forgetCalls();
    const auto task = downloadFile(file, 1, text("run"), text("copy"));
    task->exec();
    EXPECT_TRUE(task->isSuccessful());
    EXPECT_EQ(tree(), (QStringList{text("copy=content"), text("run=content")}));
    EXPECT_EQ(contentCalls() + versionCalls(), 0);
}

TEST_P(DownloadClashes, APackedFileTakesAnotherNameInTheCopyAndNotInItsPath) {
    const int packed = makePacked(text("run1.raw.vonk"), {text("run1.raw")}, "it");
    const auto task = downloadFile(packed, 1, text("run1.raw.vonk"), text("other.raw"));
    EXPECT_EQ(task->localFilePath(), at(text("run1.raw")));
    ASSERT_FALSE(run(*task).hasError());
    EXPECT_EQ(tree(), QStringList{text("other.raw=run1.raw of it")});
    EXPECT_TRUE(task->filenames().isEmpty());
}

TEST_P(DownloadClashes, WhatIsNoSingleFileComesAndIsAskedAboutByItsOwnNamesWhateverNameIsGiven) {
    const int directory = makePacked(text("run.d.vonk"), {text("run.d/acqu")}, "it");
    const int pair = makePacked(text("pair.vonk"), {text("a"), text("b")}, "it");
    put(text("other"), "in nobody's way");
    put(text("b"), "old");
    ASSERT_TRUE(QDir().mkpath(at(text("run.d"))));
    const auto ofDirectory = downloadFile(directory, 1, text("run.d.vonk"), text("other"));
    answer(*ofDirectory, {text("new.d")});
    ASSERT_FALSE(run(*ofDirectory).hasError());
    EXPECT_EQ(ofDirectory->filenames(), QStringList{text("new.d")});
    const auto ofPair = downloadFile(pair, 1, text("pair.vonk"), text("other"));
    answer(*ofPair, {text("c")});
    ASSERT_FALSE(run(*ofPair).hasError());
    EXPECT_EQ(ofPair->filenames(), (QStringList{text("a"), text("c")}));
    EXPECT_EQ(asked, (QList<QStringList>{{text("run.d")}, {text("b")}}));
    EXPECT_EQ(tree(), (QStringList{text("a=a of it"), text("b=old"), text("c=b of it"), text("new.d/"),
                                   text("new.d/acqu=run.d/acqu of it"), text("other=in nobody's way"),
                                   text("run.d/")}));
}

TEST_P(DownloadClashes, HiddenFilesAreNotAskedAboutAndTheCopyRefusesToReplaceThem) {
    const int packed = makePacked(text("run1.raw.vonk"), {text("run1.raw"), text(".index")}, "it");
    put(text(".index"), "old");
    const auto task = downloadFile(packed, 1, text("run1.raw.vonk"));
    answer(*task);
    expectTheOwnMessage(*task);
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(tree(), QStringList{text(".index=old")});
    ASSERT_TRUE(QFile::remove(at(text(".index"))));
    ASSERT_FALSE(run(*downloadFile(packed, 1, text("run1.raw.vonk"))).hasError());
    EXPECT_EQ(tree(), (QStringList{text(".index=.index of it"), text("run1.raw=run1.raw of it")}));
}

TEST_P(DownloadClashes, AnEmptyContentIsACopyOfNothing) {
    const int packed = makePacked(text("run1.raw.vonk"), {text("run1.raw")}, "it");
    const QTemporaryDir source;
    ASSERT_TRUE(QDir(source.path()).mkpath(text("run1.raw.vonk/content")));
    cacheAs(packed, text("run1.raw.vonk"), source.filePath(text("run1.raw.vonk")));
    put(text("run1.raw"), "old");
    put(text("other"), "old");
    for (const QString& as : {QString(), text("other")}) {
        const auto task = downloadFile(packed, 1, text("run1.raw.vonk"), as);
        answer(*task);
        EXPECT_FALSE(run(*task).hasError());
        EXPECT_TRUE(task->filenames().isEmpty());
    }
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(tree(), (QStringList{text("other=old"), text("run1.raw=old")}));
}

TEST_P(DownloadClashes, OfAFolderTheClashMapTellsFilesOfTheDownloadFromWhatWasThereBefore) {
    const int raw = makeFolder(text("raw"));
    const int one = makePacked(text("one.vonk"), {text("x"), text("z")}, "one", raw);
    const int two = makePacked(text("two.vonk"), {text("x"), text("z")}, "two", raw);
    put(text("z"), "before");
    const auto task = download(raw);
    QList<DuplicateDownloadFileInfo> questions;
    QObject::connect(task.get(), &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy,
                     task.get(),
                     [&](const QStringList& duplicates, const DuplicateDownloadFileInfo& info, auto*,
                         QStringList* fixedDuplicates) {
                         questions.append(info);
                         EXPECT_EQ(info.clashes.keys(), duplicates);
                         for (QString& name : *fixedDuplicates)
                             name += QString::number(info.fileReference->id());
                     });
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    // Either may be the first; its "x" is free.
    ASSERT_EQ(questions.size(), 2);
    const auto first = questions[0].clashes;
    const auto second = questions[1].clashes;
    EXPECT_EQ(first.keys(), QStringList{text("z")});
    EXPECT_TRUE(first.value(text("z")).isNull());
    EXPECT_EQ(second.keys(), (QStringList{text("x"), text("z")}));
    EXPECT_EQ(second.value(text("x")), questions[0].fileReference);
    EXPECT_TRUE(second.value(text("z")).isNull());
    const bool isOneFirst = questions[0].fileReference->id() == one;
    const QString winner = isOneFirst ? text("one") : text("two");
    const QString loser = isOneFirst ? text("two") : text("one");
    QStringList expected{text("x=x of ") + winner, text("x%1=x of ").arg(isOneFirst ? two : one) + loser,
                         text("z=before"), text("z%1=z of one").arg(one), text("z%1=z of two").arg(two)};
    expected.sort();
    EXPECT_EQ(tree(), expected);
}

TEST_P(DownloadClashes, WhatAnAcquisitionHoldsTakesNoNameOfAnotherItemOfTheFolder) {
    const int raw = makeFolder(text("raw"));
    const int packed = makePacked(text("run1.raw.vonk"), {text("run1.raw")}, "packed", raw);
    makeFile(text("run1.raw"), "plain", raw);
    const int other = makePacked(text("sub.vonk"), {text("sub")}, "packed", raw);
    makeFolder(text("sub"), raw);
    for (const auto policy : {DuplicateDownloadPolicy::Overwrite, DuplicateDownloadPolicy::Skip}) {
        SCOPED_TRACE(int(policy));
        const QString directory = text("with policy %1").arg(int(policy));
        const auto task = downloadInto(raw, directory);
        task->setDuplicatePolicy(policy);
        ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
        const QStringList all = tree();
        for (const QString& expected :
             {text("run1.raw=plain"), text("run1 (file %1).raw=run1.raw of packed").arg(packed),
              text("sub (file %1)=sub of packed").arg(other), text("sub/")})
            EXPECT_TRUE(all.contains(directory + u'/' + expected)) << qPrintable(all.join(u' '));
    }
}

TEST_P(DownloadClashes, AFolderBringsWhatAcquisitionsHoldUnderItsOwnNamesAndTwinsApart) {
    const int raw = makeFolder(text("raw"));
    makePacked(text("run1.raw.vonk"), {text("run1.raw")}, "first", raw);
    const int twin = makePacked(text("run1.raw.vonk"), {text("run1.raw")}, "twin", raw);
    makePacked(text("run.d.vonk"), {text("run.d/acqu")}, "it", raw);
    makeFile(text("only named.vonk"), "nothing packed", raw);
    const auto task = download(raw);
    ASSERT_FALSE(run(*task).hasError()) << qPrintable(task->error().traceText());
    QStringList expected{text("only named.vonk=nothing packed"), text("run.d/"),
                         text("run.d/acqu=run.d/acqu of it"), text("run1.raw=run1.raw of first"),
                         text("run1 (file %1).raw=run1.raw of twin").arg(twin)};
    expected.sort();
    EXPECT_EQ(tree(), expected);
}

} // namespace
} // namespace orx::testing
