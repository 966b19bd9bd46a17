#include <UploadAccount.h>

#include <gtest/gtest.h>

namespace halvane::host {
namespace {

using orx::Error;
using orx::ErrorCode;
using orx::UploadRefusal;
using Kind = LocalEntry::Kind;
using Outcome = UploadedFile::Outcome;

LocalEntry entry(const QString& path, Kind kind, UploadRefusal refusal = UploadRefusal::None) {
    LocalEntry made;
    made.path = path;
    made.kind = kind;
    made.refusal = refusal;
    return made;
}

const Error failure(ErrorCode::General, QStringLiteral("no luck"));
const Error another(ErrorCode::General, QStringLiteral("out of luck"));

class Account : public ::testing::Test {
protected:
    QString at(const char* below) const { return QStringLiteral("/data/") + QString::fromLatin1(below); }
    //! /data/t with a, sub/b and sub/c.
    QList<LocalTree> trees() const {
        return {{at("t"),
                 {entry(at("t"), Kind::Directory), entry(at("t/a"), Kind::File),
                  entry(at("t/sub"), Kind::Directory), entry(at("t/sub/b"), Kind::RawData),
                  entry(at("t/sub/c"), Kind::Packed)},
                 {}}};
    }
    QList<LocalTree> treesWithout(const QStringList& gone) const {
        QList<LocalTree> left = trees();
        left.first().entries.removeIf(
            [&](const LocalEntry& candidate) { return gone.contains(candidate.path); });
        return left;
    }
    UploadReport report(bool wasStopped = false) const {
        return account.report(trees(), trees(), wasStopped);
    }
    //! "path reason" of each path that was left out.
    QStringList leftOut(const UploadReport& report) const {
        QStringList found;
        for (const LeftOutPath& path : report.leftOut)
            found.append(path.path.mid(6) + u' ' + path.reason);
        return found;
    }
    QStringList failed(const UploadReport& report) const {
        QStringList found;
        for (const UploadFailure& path : report.failures)
            found.append(path.path.mid(6));
        return found;
    }
    //! "path files" of each line.
    QStringList notTried(const UploadReport& report) const {
        QStringList found;
        for (const NotTriedPath& path : report.notTried)
            found.append(path.path.mid(6) + (path.isDirectory ? QStringLiteral("/ ") : QStringLiteral(" ")) +
                         QString::number(path.files));
        return found;
    }
    static QStringList list(const char* words) {
        return QString::fromLatin1(words).split(u',', Qt::SkipEmptyParts);
    }
    UploadAccount account;
};

TEST_F(Account, EveryFileHasOneWord) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/b"), Outcome::Unchanged);
    account.setFailed(at("t/sub/c"), failure);
    const UploadReport all = report();
    ASSERT_EQ(all.trees.size(), 1);
    const UploadedTree& tree = all.trees.first();
    EXPECT_EQ(tree.files, 3);
    EXPECT_EQ(tree.uploaded, 1);
    EXPECT_EQ(tree.unchanged, 1);
    EXPECT_EQ(tree.failed, 1);
    EXPECT_EQ(all.done, 2);
    EXPECT_EQ(all.unexplained, 0);
    EXPECT_EQ(failed(all), list("t/sub/c"));
}

TEST_F(Account, WhatNobodyKnowsOfIsUnexplainedUnlessTheRunWasStopped) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    EXPECT_EQ(report().unexplained, 2);
    EXPECT_EQ(leftOut(report()), list("t/sub/b unexplained,t/sub/c unexplained"));
    EXPECT_EQ(report(true).unexplained, 0);
    EXPECT_EQ(report(true).trees.first().notTried, 2);
}

TEST_F(Account, AFolderThatFailedByItselfIsOneFailureAndExplainsItsContent) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    EXPECT_EQ(failed(report()), list("t/sub"));
    EXPECT_EQ(report().trees.first().notTried, 2);
    EXPECT_EQ(report().unexplained, 0);
}

TEST_F(Account, AFolderThatFailedForAFileInItIsNoFailureOfItsOwn) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    account.setFailed(at("t/sub/c"), failure);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    EXPECT_EQ(failed(report()), list("t/sub/c"));
}

TEST_F(Account, AFolderThatFailedForAFileInItExplainsNothing) {
    account.setFailed(at("t/sub/c"), failure);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    EXPECT_EQ(leftOut(report()), list("t/a unexplained,t/sub/b unexplained"));
    EXPECT_EQ(report().unexplained, 2);
}

// Not all of a level could be made, and a file of it failed besides.
TEST_F(Account, AFolderWithAnErrorOfItsOwnExplainsItsContentBesideOtherFailures) {
    account.setFailed(at("t/sub/c"), failure);
    account.setFolderFailed(at("t/sub"), another);
    account.setFolderFailed(at("t"), another);
    EXPECT_EQ(failed(report()), list("t/sub,t/sub/c"));
    EXPECT_EQ(leftOut(report()), list("t/a unexplained,t/sub/b not_tried"));
    // A level that was given up for a file has an error that speaks of that file.
    EXPECT_EQ(failed(report(true)), list("t/sub/c"));
}

TEST_F(Account, ACanceledFolderExplainsItsContentAndIsNoFailure) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setFolderFailed(at("t/sub"), Error(ErrorCode::Canceled, QStringLiteral("canceled")));
    EXPECT_EQ(failed(report()), QStringList());
    EXPECT_EQ(leftOut(report()), list("t/sub/b not_tried,t/sub/c not_tried"));
}

TEST_F(Account, RulesExplainAndUnwantedRefusalsFail) {
    QList<LocalTree> some{
        {at("t"),
         {entry(at("t"), Kind::Directory), entry(at("t/.a"), Kind::None, UploadRefusal::Hidden),
          entry(at("t/l"), Kind::None, UploadRefusal::DirectoryLink),
          entry(at("t/p"), Kind::None, UploadRefusal::Special),
          entry(at("t/x.tmp"), Kind::None, UploadRefusal::Name),
          entry(at("t/run.ibd"), Kind::None, UploadRefusal::Companion),
          entry(at("t/gone"), Kind::None, UploadRefusal::Missing),
          entry(at("t/run.d"), Kind::RawData, UploadRefusal::StillWritten)},
         {}}};
    account.setFolder(at("t"), {});
    const UploadReport all = account.report(some, some, false);
    EXPECT_EQ(leftOut(all),
              list("t/.a hidden,t/l link,t/p special,t/x.tmp filter,t/run.ibd companion,t/gone vanished"));
    EXPECT_EQ(failed(all), list("t/run.d"));
    EXPECT_EQ(all.trees.first().leftOut, 6);
}

// ---- directories without files

//! /data/t with a, sub and, in that, empty with inner, and c.
class AccountOfEmptyDirectories : public Account {
protected:
    UploadReport report(bool wasStopped = false) const { return account.report(before, before, wasStopped); }
    const QList<LocalTree> before{
        {at("t"),
         {entry(at("t"), Kind::Directory), entry(at("t/a"), Kind::File), entry(at("t/sub"), Kind::Directory),
          entry(at("t/sub/c"), Kind::File), entry(at("t/sub/empty"), Kind::Directory),
          entry(at("t/sub/empty/inner"), Kind::Directory)},
         {}}};
};

TEST_F(AccountOfEmptyDirectories, ThoseThatAreThereNeedNoLine) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    account.setFolderMade(at("t/sub/empty"));
    account.setFolderMade(at("t/sub/empty/inner"));
    EXPECT_EQ(leftOut(report()), QStringList());
    EXPECT_EQ(report().unexplained, 0);
    EXPECT_EQ(report().trees.first().files, 2);
}

TEST_F(AccountOfEmptyDirectories, OfWhichNothingIsKnownAreUnexplainedUnlessTheRunWasStopped) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    EXPECT_EQ(leftOut(report()), list("t/sub/empty unexplained,t/sub/empty/inner unexplained"));
    EXPECT_EQ(report().unexplained, 2);
    EXPECT_EQ(leftOut(report(true)), list("t/sub/empty not_tried,t/sub/empty/inner not_tried"));
    EXPECT_EQ(notTried(report(true)), list("t/sub/empty/ 0"));
    EXPECT_EQ(report(true).trees.first().notTried, 2);
}

TEST_F(AccountOfEmptyDirectories, BelowAFolderThatCouldNotBeMadeAreNotTried) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    EXPECT_EQ(failed(report()), list("t/sub"));
    EXPECT_EQ(leftOut(report()), list("t/sub/c not_tried,t/sub/empty not_tried,t/sub/empty/inner not_tried"));
    EXPECT_EQ(notTried(report()), list("t/sub/ 1"));
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    EXPECT_EQ(notTried(report()), list("t/sub/empty/ 0"));
}

TEST_F(AccountOfEmptyDirectories, ThatFailedThemselvesAreFailuresAndThatWereGivenUpNotTried) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    account.setFolderMade(at("t/sub/empty"));
    account.setFolderFailed(at("t/sub/empty/inner"), failure);
    EXPECT_EQ(failed(report()), list("t/sub/empty/inner"));
    EXPECT_EQ(leftOut(report()), QStringList());
    account.setFolderFailed(at("t/sub/empty/inner"), Error(ErrorCode::Canceled, QStringLiteral("canceled")));
    EXPECT_EQ(failed(report()), QStringList());
    EXPECT_EQ(leftOut(report()), list("t/sub/empty/inner not_tried"));
}

TEST_F(AccountOfEmptyDirectories, ThatHaveVanishedBeforeTheyWereMadeAreFailures) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    account.setFolderMade(at("t/sub/empty"));
    QList<LocalTree> now = before;
    now.first().entries.resize(2);
    const UploadReport all = account.report(before, now, false);
    EXPECT_EQ(failed(all), list("t/sub/empty/inner"));
    EXPECT_TRUE(all.failures.first().error.is(ErrorCode::NotFound));
}

// ---- what is not there any more, and what came

TEST_F(Account, AFileThatHasVanishedKeepsItsWord) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setFailed(at("t/sub/b"), failure);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    const UploadReport all = account.report(
        trees(), treesWithout(list("/data/t/a,/data/t/sub,/data/t/sub/b,/data/t/sub/c")), false);
    EXPECT_EQ(all.trees.first().files, 3);
    EXPECT_EQ(all.trees.first().uploaded, 2);
    EXPECT_EQ(all.done, 2);
    EXPECT_EQ(failed(all), list("t/sub/b"));
    EXPECT_EQ(all.leftOut.size(), 0);
}

TEST_F(Account, AFileThatHasVanishedWithoutAWordIsAFailure) {
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    const UploadReport all = account.report(trees(), treesWithout(list("/data/t/a")), false);
    EXPECT_EQ(failed(all), list("t/a"));
    EXPECT_TRUE(all.failures.first().error.is(ErrorCode::NotFound));
    EXPECT_EQ(all.trees.first().failed, 1);
}

TEST_F(Account, ADirectoryThatHasVanishedIsOneFailureAndExplainsWhatWasInIt) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    const UploadReport all =
        account.report(trees(), treesWithout(list("/data/t/sub,/data/t/sub/b,/data/t/sub/c")), false);
    EXPECT_EQ(failed(all), list("t/sub"));
    EXPECT_EQ(leftOut(all), list("t/sub/c not_tried"));
    EXPECT_EQ(all.trees.first().uploaded, 2);
}

TEST_F(Account, ASourceThatHasVanishedIsStillAFolder) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    const QList<LocalTree> now{{at("t"), {entry(at("t"), Kind::None, UploadRefusal::Missing)}, {}}};
    const UploadReport all = account.report(trees(), now, false);
    EXPECT_TRUE(all.trees.first().isFolder);
    EXPECT_EQ(all.trees.first().uploaded, 1);
    EXPECT_EQ(failed(all), list("t"));
    EXPECT_EQ(leftOut(all), list("t/sub/b not_tried,t/sub/c not_tried"));
}

TEST_F(Account, WhatCameMeanwhileIsTold) {
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    account.setFailed(at("t/came and went"), failure);
    const UploadReport all = account.report(treesWithout(list("/data/t/a")), trees(), false);
    EXPECT_EQ(leftOut(all), list("t/a unexplained"));
    EXPECT_EQ(failed(all), list("t/came and went"));
    EXPECT_EQ(all.trees.first().files, 4);
}

TEST_F(Account, WordsBelongToTheSourceThatTheyAreIn) {
    account.setFailed(at("t2/x"), failure);
    account.setDone(at("t/a"), Outcome::Uploaded);
    EXPECT_EQ(failed(report()), QStringList());
    EXPECT_EQ(report().trees.first().files, 3);
}

// ---- what was not tried

TEST_F(Account, ADirectoryNothingOfWhichWasTriedIsOneLine) {
    EXPECT_EQ(notTried(report(true)), list("t/ 3"));
    account.setDone(at("t/a"), Outcome::Uploaded);
    EXPECT_EQ(notTried(report(true)), list("t/sub/ 2"));
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    EXPECT_EQ(notTried(report(true)), list("t/sub/c 1"));
    account.setDone(at("t/sub/c"), Outcome::Uploaded);
    EXPECT_EQ(notTried(report(true)), QStringList());
}

TEST_F(Account, EachReasonHasALineOfItsOwn) {
    account.setCanceled(at("t/sub/b"));
    EXPECT_EQ(notTried(report(true)), list("t/a 1,t/sub/b 1,t/sub/c 1"));
    EXPECT_EQ(leftOut(report(true)), list("t/a not_tried,t/sub/b not_tried,t/sub/c not_tried"));
}

// ---- what a later run may rely on

TEST_F(Account, OnlyWhatTheServerHasIsKnownByItsStamp) {
    LocalTree tree = trees().first();
    for (LocalEntry& candidate : tree.entries)
        candidate.stamp = "stamp of " + candidate.path.toUtf8();
    tree.entries.append(entry(at("t/young"), Kind::File));
    account.setDone(at("t/a"), Outcome::Uploaded, QStringLiteral("hash of a"));
    account.setDone(at("t/young"), Outcome::Uploaded, QStringLiteral("hash of young"));
    account.setDone(at("t/sub/b"), Outcome::Skipped, QStringLiteral("hash of another"));
    account.setFailed(at("t/sub/c"), failure);
    EXPECT_EQ(account.knownContents(tree, {}),
              (KnownContents::ByPath{{at("t/a"), {"stamp of /data/t/a", QStringLiteral("hash of a")}}}));
}

TEST_F(Account, WhatARunDidNotGetToStaysKnown) {
    LocalTree tree = trees().first();
    tree.entries[1].stamp = "new";
    account.setDone(at("t/a"), Outcome::Uploaded, QStringLiteral("hash of a"));
    const KnownContent old{"old", QStringLiteral("old hash")};
    EXPECT_EQ(
        account.knownContents(tree, {{at("t/a"), old}, {at("t/sub/b"), old}, {at("t/gone"), old}}),
        (KnownContents::ByPath{{at("t/a"), {"new", QStringLiteral("hash of a")}}, {at("t/sub/b"), old}}));
}

} // namespace
} // namespace halvane::host
