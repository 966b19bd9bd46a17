#include <DownloadNames.h>
#include <FolderDownloadPlan.h>
#include <FolderDownloadReport.h>
#include <HalvaneError.h>
#include <LocalNames.h>
#include <NetworkError.h>
#include <TargetDirectories.h>
#include <TreeProgress.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>

using namespace orx;

namespace {

using Folder = FolderDownloadPlan::Folder;
using File = FolderDownloadPlan::File;

HalvaneFolderTreeNodeSPtr folder(int id, const QString& name) {
    auto item = HalvaneFolderTreeNodeSPtr::create();
    item->setId(id);
    item->setName(name);
    return item;
}

HalvaneFileItemSPtr file(int id, const QString& name, qint64 size = 1, int version = 1) {
    auto item = HalvaneFileItemSPtr::create();
    item->setId(id);
    item->setName(name);
    item->setSize(size);
    item->setLastVersion(version);
    return item;
}

//! A plan whose root, folder 7, is being listed.
FolderDownloadPlan planAtRoot(const FolderDownloadPlan::Limits& limits = {}) {
    FolderDownloadPlan plan(limits);
    plan.begin({7, QStringLiteral("raw")});
    EXPECT_EQ(plan.takeFolder().value_or(Folder()).path, QStringLiteral("raw"));
    return plan;
}

QStringList takePaths(FolderDownloadPlan& plan) {
    QStringList paths;
    while (const auto next = plan.takeFile())
        paths.append(next->path());
    return paths;
}

Error networkError(NetworkErrorCode code) {
    return Error(ErrorDomain::Network, int(code), QStringLiteral("The network failed."));
}

} // namespace

// Names

TEST(LocalNames, AFurtherItemOfANameTellsItsId) {
    LocalNames names;
    EXPECT_TRUE(names.take(QStringLiteral("run.mzML")));
    EXPECT_FALSE(names.take(QStringLiteral("run.mzML")));
    EXPECT_TRUE(names.take(QStringLiteral("RUN.mzML"))) << "letter case counts";
    struct Row {
        const char* name;
        LocalNames::Kind kind;
        const char* free;
    };
    using Kind = LocalNames::Kind;
    for (const Row& row :
         {Row{"run.mzML", Kind::File, "run (file 12).mzML"},
          Row{"archive.tar.gz", Kind::File, "archive.tar (file 12).gz"},
          Row{".hidden", Kind::File, ".hidden (file 12)"}, Row{"plain", Kind::File, "plain (file 12)"},
          Row{"2026.05", Kind::Folder, "2026.05 (folder 12)"}})
        EXPECT_EQ(names.takeFree(QString::fromLatin1(row.name), row.kind, 12), QString::fromLatin1(row.free));
    EXPECT_EQ(names.takeFree(QStringLiteral("plain"), Kind::File, 12), QStringLiteral("plain (file 12, 2)"))
        << "when somebody has given the free name already";
}

TEST(LocalNames, AFreeNameIsNeverTooLong) {
    LocalNames names;
    const QString longest = QString(120, QChar(u'ä')) + QStringLiteral("x.mzML");
    const QString free = names.takeFree(longest, LocalNames::Kind::File, 2'147'483'647);
    EXPECT_LE(QFile::encodeName(free).size(), 255);
    EXPECT_TRUE(free.endsWith(QStringLiteral("ä (file 2147483647).mzML"))) << qPrintable(free);
}

TEST(ListedNames, DangerousAndImpossibleOnesAreRefusedAndNamed) {
    const QString lonelySurrogate = QStringLiteral("a") + QChar(0xd800);
    for (const QString& name :
         {QString(), QStringLiteral("."), QStringLiteral(".."), QStringLiteral("/etc/passwd"),
          QStringLiteral("a/b"), QStringLiteral("a") + QChar(0), QStringLiteral("a\nb"),
          QStringLiteral("a\x1b[2J"), QStringLiteral("a") + QChar(0x7f), QStringLiteral("a") + QChar(0x85),
          QStringLiteral("..."), QStringLiteral("trailing  "), QStringLiteral("trailing."),
          QStringLiteral(" "), lonelySurrogate, QString(300, QChar(u'x')), QString(128, QChar(u'ä'))}) {
        const Error error = DownloadNames::checkListed(name);
        EXPECT_TRUE(error.is(ErrorCode::InvalidArgument)) << qPrintable(name);
        EXPECT_TRUE(error.errorMessage().contains(DownloadNames::printable(name).left(20)));
    }
    for (const QString& name :
         {QStringLiteral("...and more"), QStringLiteral(" leading"), QStringLiteral(".hidden"),
          QStringLiteral("back\\slash"), QStringLiteral("\U0001F9EA"), QString(255, QChar(u'x'))})
        EXPECT_FALSE(DownloadNames::checkListed(name).hasError()) << qPrintable(name);
    EXPECT_EQ(DownloadNames::printable(QStringLiteral("a\x1b[2J\n")), QStringLiteral("a\\x1b[2J\\x0a"));
}

// Plan

TEST(FolderDownloadPlan, WalksTheTreeAndKnowsWhenItIsDone) {
    FolderDownloadPlan plan = planAtRoot();
    EXPECT_FALSE(plan.isWholeTreeKnown());
    EXPECT_TRUE(plan.listed({7, QStringLiteral("raw")}, {folder(8, QStringLiteral("2026"))},
                            {file(1, QStringLiteral("a"), 10, 3)})
                    .isEmpty());
    const auto first = plan.takeFile();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->path(), QStringLiteral("raw/a"));
    EXPECT_EQ(first->version, 3);
    const auto below = plan.takeFolder();
    ASSERT_TRUE(below);
    EXPECT_EQ(below->id, 8);
    EXPECT_EQ(below->path, QStringLiteral("raw/2026"));
    plan.listed(*below, {}, {file(2, QStringLiteral("b"), 5)});
    EXPECT_TRUE(plan.isWholeTreeKnown());
    EXPECT_EQ(plan.totalBytes(), 15);
    EXPECT_EQ(plan.totalFiles(), 2);
    EXPECT_EQ(plan.takeFile().value_or(File()).path(), QStringLiteral("raw/2026/b"));
    plan.fileEnded();
    EXPECT_FALSE(plan.isDone());
    plan.fileEnded();
    EXPECT_TRUE(plan.isDone());
}

TEST(FolderDownloadPlan, ContentWithoutTheFolderHasPathsOfItsOwn) {
    FolderDownloadPlan plan;
    plan.begin({1, QString()});
    const auto root = plan.takeFolder();
    ASSERT_TRUE(root);
    plan.listed(*root, {folder(8, QStringLiteral("2026"))}, {file(1, QStringLiteral("a"))});
    EXPECT_EQ(takePaths(plan), QStringList{QStringLiteral("a")});
    EXPECT_EQ(plan.takeFolder().value_or(Folder()).path, QStringLiteral("2026"));
}

TEST(FolderDownloadPlan, ListsAndFetchesABoundedNumberAtATime) {
    FolderDownloadPlan plan = planAtRoot({.listings = 2, .files = 3, .waitingFiles = 100});
    QList<HalvaneFolderTreeNodeSPtr> folders;
    QList<HalvaneFileItemSPtr> files;
    for (int i = 0; i < 5; ++i) {
        folders.append(folder(10 + i, QString::number(10 + i)));
        files.append(file(20 + i, QString::number(20 + i)));
    }
    plan.listed({7, QStringLiteral("raw")}, folders, files);
    EXPECT_TRUE(plan.takeFolder() && plan.takeFolder());
    EXPECT_FALSE(plan.takeFolder());
    EXPECT_EQ(takePaths(plan).size(), 3);
    plan.notListed();
    EXPECT_TRUE(plan.takeFolder());
    EXPECT_FALSE(plan.takeFolder());
    plan.fileEnded();
    EXPECT_EQ(takePaths(plan).size(), 1);
}

TEST(FolderDownloadPlan, ListingPausesWhileTooManyFilesWait) {
    FolderDownloadPlan plan = planAtRoot({.listings = 2, .files = 1, .waitingFiles = 2});
    plan.listed({7, QStringLiteral("raw")}, {folder(8, QStringLiteral("x"))},
                {file(1, QStringLiteral("a")), file(2, QStringLiteral("b"))});
    EXPECT_TRUE(plan.isListingPaused());
    EXPECT_FALSE(plan.takeFolder());
    EXPECT_TRUE(plan.takeFile());
    EXPECT_FALSE(plan.isListingPaused());
    EXPECT_TRUE(plan.takeFolder());
}

TEST(FolderDownloadPlan, ItemsOfOneNameGetNamesOfTheirOwnWhateverTheirOrder) {
    const QString name = QStringLiteral("same");
    for (const bool reversed : {false, true}) {
        FolderDownloadPlan plan = planAtRoot();
        QList<HalvaneFolderTreeNodeSPtr> folders{folder(8, name), folder(9, name)};
        QList<HalvaneFileItemSPtr> files{file(1, name), file(2, name),
                                         file(3, QStringLiteral("same (file 2)"))};
        if (reversed) {
            std::reverse(folders.begin(), folders.end());
            std::reverse(files.begin(), files.end());
        }
        EXPECT_TRUE(plan.listed({7, QStringLiteral("raw")}, folders, files).isEmpty());
        EXPECT_EQ(takePaths(plan),
                  (QStringList{QStringLiteral("raw/same (file 1)"), QStringLiteral("raw/same (file 2, 2)"),
                               QStringLiteral("raw/same (file 2)")}));
        QStringList directories;
        while (const auto next = plan.takeFolder())
            directories.prepend(next->path);
        EXPECT_EQ(directories,
                  (QStringList{QStringLiteral("raw/same"), QStringLiteral("raw/same (folder 9)")}));
    }
}

TEST(FolderDownloadPlan, WhatCannotComeDownIsToldAndTheRestGoesOn) {
    FolderDownloadPlan plan = planAtRoot();
    const auto refused = plan.listed({7, QStringLiteral("raw")},
                                     {folder(8, QStringLiteral("..")), folder(9, QStringLiteral("good"))},
                                     {file(1, QStringLiteral("a\nb")), file(2, QStringLiteral("good.raw"))});
    ASSERT_EQ(refused.size(), 2);
    EXPECT_EQ(refused[0].path, QStringLiteral("raw/.."));
    EXPECT_EQ(refused[1].path, QStringLiteral("raw/a\\x0ab"));
    EXPECT_EQ(takePaths(plan), QStringList{QStringLiteral("raw/good.raw")});
    EXPECT_EQ(plan.takeFolder().value_or(Folder()).id, 9);
    EXPECT_FALSE(plan.takeFolder());
    EXPECT_EQ(plan.totalFiles(), 1);
}

TEST(FolderDownloadPlan, ACycleEnds) {
    FolderDownloadPlan plan = planAtRoot();
    EXPECT_EQ(plan.listed({7, QStringLiteral("raw")}, {folder(7, QStringLiteral("raw"))}, {}).size(), 1);
    EXPECT_TRUE(plan.isDone());
}

TEST(FolderDownloadPlan, StoppedItTakesNothingMore) {
    FolderDownloadPlan plan = planAtRoot({.listings = 2, .files = 1, .waitingFiles = 100});
    plan.listed({7, QStringLiteral("raw")}, {folder(8, QStringLiteral("x")), folder(9, QStringLiteral("y"))},
                {file(1, QStringLiteral("a")), file(2, QStringLiteral("b")), file(3, QStringLiteral("c"))});
    ASSERT_TRUE(plan.takeFile());
    const auto under = plan.takeFolder();
    ASSERT_TRUE(under);
    plan.stop();
    plan.stop();
    EXPECT_EQ(plan.droppedFiles(), 2);
    plan.listed(*under, {folder(10, QStringLiteral("z"))}, {file(4, QStringLiteral("d"))});
    plan.fileEnded();
    EXPECT_FALSE(plan.takeFile());
    EXPECT_FALSE(plan.takeFolder());
    EXPECT_TRUE(plan.isDone());
}

// Report

TEST(FolderDownloadReport, OfSuccessIsNoErrorButHasTheWarnings) {
    FolderDownloadReport report;
    report.addSuccess();
    report.addWarnings({QStringLiteral("careful")});
    const Error outcome = report.outcome(0);
    EXPECT_FALSE(outcome.hasError());
    EXPECT_EQ(outcome.warnings(), Warnings{QStringLiteral("careful")});
}

TEST(FolderDownloadReport, EndsWithTheFirstFailureAndTellsTheOthers) {
    FolderDownloadReport report;
    report.addFailure(QStringLiteral("raw/a"),
                      halvaneError(HalvaneServerErrorCode::NotFound, QStringLiteral("Not there.")));
    EXPECT_EQ(report.outcome(0).errorMessage(),
              QStringLiteral("\"raw/a\" could not be downloaded: Not there."));
    report.addFailure(QStringLiteral("raw/b"),
                      Error(ErrorCode::AlreadyExists, QStringLiteral("In the way.")));
    const Error outcome = report.outcome(0);
    EXPECT_TRUE(isHalvaneError(outcome, HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(outcome.errorMessage(), QStringLiteral("\"raw/a\" could not be downloaded: Not there. That is "
                                                     "the first of 2 failures."));
    EXPECT_EQ(outcome.warnings(), Warnings{QStringLiteral("\"raw/b\" could not be downloaded: In the way.")});
    EXPECT_FALSE(report.isHopeless());
}

TEST(FolderDownloadReport, CountsWhatNobodyWouldRead) {
    FolderDownloadReport report;
    const int count = 2 * FolderDownloadReport::toldAsWarnings;
    for (int i = 0; i < count; ++i) {
        report.addFailure(QString::number(i), Error(ErrorCode::General, QStringLiteral("No.")));
        report.addWarnings({QStringLiteral("careful")});
    }
    EXPECT_EQ(report.failures().size(), count);
    const Warnings told = report.outcome(0).warnings();
    EXPECT_EQ(told.size(), 2 * FolderDownloadReport::toldAsWarnings + 2);
    EXPECT_TRUE(told.contains(QStringLiteral("99 more files or folders could not be downloaded.")));
    EXPECT_EQ(told.back(), QStringLiteral("There are 100 more warnings."));
}

TEST(FolderDownloadReport, GivesUpWhenNothingElseCanSucceed) {
    for (const Error& error :
         {Error(ErrorCode::NotAuthenticated, QStringLiteral("Log in.")),
          halvaneError(HalvaneServerErrorCode::NotAuthenticated, QStringLiteral("Log in.")),
          networkError(NetworkErrorCode::ConnectionFailed), networkError(NetworkErrorCode::TlsFailed)}) {
        FolderDownloadReport report;
        report.addFailure(QStringLiteral("a"), error);
        EXPECT_TRUE(report.isHopeless());
        EXPECT_TRUE(report.outcome(12).errorMessage().endsWith(
            QStringLiteral("The download was given up; 12 listed files were not tried.")));
    }
}

TEST(FolderDownloadReport, GivesUpAfterSeveralFailuresInARowThatAreNoFilesOwn) {
    for (const Error& error :
         {networkError(NetworkErrorCode::ConnectionLost), Error::fromErrno(ENOSPC, QStringLiteral("Full")),
          Error(ErrorCode::StorageFull, QStringLiteral("Full"))}) {
        FolderDownloadReport report;
        const auto fail = [&](int times) {
            for (int i = 0; i < times; ++i)
                report.addFailure(QStringLiteral("a"), error);
        };
        fail(FolderDownloadReport::hopelessInARow - 1);
        report.addSuccess();
        fail(FolderDownloadReport::hopelessInARow - 1);
        EXPECT_FALSE(report.isHopeless());
        fail(1);
        EXPECT_TRUE(report.isHopeless());
    }
    // A failure of a file's own says, too, that others can succeed.
    FolderDownloadReport mixed;
    const auto failMixed = [&mixed](int times) {
        for (int i = 0; i < times; ++i)
            mixed.addFailure(QStringLiteral("a"), networkError(NetworkErrorCode::ConnectionLost));
    };
    failMixed(FolderDownloadReport::hopelessInARow - 1);
    mixed.addFailure(QStringLiteral("b"), halvaneError(HalvaneServerErrorCode::NotFound, QString()));
    failMixed(FolderDownloadReport::hopelessInARow - 1);
    EXPECT_FALSE(mixed.isHopeless());
    failMixed(1);
    EXPECT_TRUE(mixed.isHopeless());
    FolderDownloadReport own;
    for (int i = 0; i < 100; ++i)
        own.addFailure(QStringLiteral("a"), halvaneError(HalvaneServerErrorCode::NotFound, QString()));
    EXPECT_FALSE(own.isHopeless());
}

// Progress

TEST(TreeProgress, CountsBytesNotFiles) {
    TreeProgress progress;
    EXPECT_FALSE(progress.take(1000));
    progress.settle(1, 100);
    EXPECT_EQ(progress.take(1000), 100);
    progress.setUnderWay(2, 900, 0.5);
    EXPECT_EQ(progress.take(1000), 550);
    progress.setUnderWay(2, 900, 0.5);
    EXPECT_FALSE(progress.take(1000));
    progress.settle(2, 900);
    EXPECT_EQ(progress.take(1000), 999) << "the end is said by the task's success";
}

TEST(TreeProgress, NeverFallsAndLeavesOutWhatFailed) {
    TreeProgress progress;
    progress.setUnderWay(1, 500, 1);
    EXPECT_EQ(progress.take(1000), 500);
    progress.drop(1);
    progress.settle(2, 400);
    EXPECT_FALSE(progress.take(1000));
    progress.settle(3, 200);
    EXPECT_EQ(progress.take(1000), 600);
    EXPECT_FALSE(progress.take(2000)) << "more was listed";
}

TEST(TreeProgress, HoldsSizesBeyondAThousandthOfTheLargestNumber) {
    TreeProgress progress;
    const qint64 huge = std::numeric_limits<qint64>::max() / 2;
    progress.settle(1, huge / 2);
    const int value = progress.take(huge).value_or(-1);
    EXPECT_GE(value, 499);
    EXPECT_LE(value, 500);
    EXPECT_FALSE(TreeProgress().take(0));
}

// Directories

TEST(TargetDirectories, AreMadeOnceAndUsedAgain) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("a/b/c"));
    EXPECT_FALSE(TargetDirectories::makeTarget(path).hasError());
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_FALSE(TargetDirectories::makeTarget(path).hasError());
    EXPECT_FALSE(TargetDirectories::makeInside(path).hasError());
    EXPECT_TRUE(TargetDirectories::makeInside(dir.filePath(QStringLiteral("x/y")))
                    .is(ErrorDomain::OperatingSystem, ENOENT));
}

TEST(TargetDirectories, AFileOrALinkInTheWayIsNamed) {
    const QTemporaryDir dir;
    const QTemporaryDir elsewhere;
    const QString link = dir.filePath(QStringLiteral("link"));
    const QString plain = dir.filePath(QStringLiteral("plain"));
    ASSERT_TRUE(QFile::link(elsewhere.path(), link));
    ASSERT_TRUE(QFile(plain).open(QIODevice::WriteOnly));
    for (const QString& path : {link, plain}) {
        const Error error = TargetDirectories::makeInside(path);
        EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
        EXPECT_TRUE(error.errorMessage().contains(path));
    }
    EXPECT_FALSE(TargetDirectories::makeTarget(link + QStringLiteral("/new")).hasError())
        << "a link that the user named is followed";
    EXPECT_TRUE(QFileInfo(elsewhere.filePath(QStringLiteral("new"))).isDir());
}
