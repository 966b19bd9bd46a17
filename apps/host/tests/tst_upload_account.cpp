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

class Account : public ::testing::Test {
protected:
    QString at(const char* below) const { return QStringLiteral("/data/") + QString::fromLatin1(below); }
    //! /data/t with a, sub/b and sub/c.
    QList<LocalTree> trees() const {
        return {{at("t"),
                 {entry(at("t"), Kind::Directory), entry(at("t/a"), Kind::File),
                  entry(at("t/sub"), Kind::Directory), entry(at("t/sub/b"), Kind::RawData),
                  entry(at("t/sub/c"), Kind::Packed)}}};
    }
    UploadAccount account;
};

TEST_F(Account, EveryFileHasOneWord) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/b"), Outcome::Unchanged);
    account.setFailed(at("t/sub/c"), failure);
    const UploadReport report = account.report(trees(), false);
    ASSERT_EQ(report.trees.size(), 1);
    const UploadedTree& tree = report.trees.first();
    EXPECT_EQ(tree.files, 3);
    EXPECT_EQ(tree.uploaded, 1);
    EXPECT_EQ(tree.unchanged, 1);
    EXPECT_EQ(tree.failed, 1);
    EXPECT_EQ(report.done, 2);
    EXPECT_EQ(report.unexplained, 0);
    ASSERT_EQ(report.failures.size(), 1);
    EXPECT_EQ(report.failures.first().path, at("t/sub/c"));
    EXPECT_EQ(account.unfinishedPaths(), QStringList{at("t/sub/c")});
}

TEST_F(Account, WhatNobodyKnowsOfIsUnexplainedUnlessTheRunWasStopped) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    const UploadReport report = account.report(trees(), false);
    EXPECT_EQ(report.unexplained, 2);
    EXPECT_EQ(report.leftOut.first().reason, QStringLiteral("unexplained"));
    const UploadReport stopped = account.report(trees(), true);
    EXPECT_EQ(stopped.unexplained, 0);
    EXPECT_EQ(stopped.trees.first().notTried, 2);
}

TEST_F(Account, AFolderThatFailedByItselfIsOneFailureAndExplainsItsContent) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    const UploadReport report = account.report(trees(), false);
    ASSERT_EQ(report.failures.size(), 1);
    EXPECT_EQ(report.failures.first().path, at("t/sub"));
    EXPECT_EQ(report.trees.first().notTried, 2);
    EXPECT_EQ(report.unexplained, 0);
}

TEST_F(Account, AFolderThatFailedForAFileInItIsNoFailureOfItsOwn) {
    account.setDone(at("t/a"), Outcome::Uploaded);
    account.setDone(at("t/sub/b"), Outcome::Uploaded);
    account.setFailed(at("t/sub/c"), failure);
    account.setFolderFailed(at("t/sub"), failure);
    account.setFolderFailed(at("t"), failure);
    EXPECT_EQ(account.report(trees(), false).failures.size(), 1);
}

TEST_F(Account, RulesExplainAndUnwantedRefusalsFail) {
    QList<LocalTree> some{
        {at("t"),
         {entry(at("t"), Kind::Directory), entry(at("t/.a"), Kind::None, UploadRefusal::Hidden),
          entry(at("t/l"), Kind::None, UploadRefusal::DirectoryLink),
          entry(at("t/p"), Kind::None, UploadRefusal::Special),
          entry(at("t/x.tmp"), Kind::None, UploadRefusal::Name),
          entry(at("t/run.ibd"), Kind::None, UploadRefusal::Companion),
          entry(at("t/run.d"), Kind::RawData, UploadRefusal::StillWritten)}}};
    const UploadReport report = account.report(some, false);
    QStringList reasons;
    for (const LeftOutPath& path : report.leftOut)
        reasons.append(path.reason);
    EXPECT_EQ(reasons.join(u' '), QStringLiteral("hidden link special filter companion"));
    ASSERT_EQ(report.failures.size(), 1);
    EXPECT_EQ(report.failures.first().path, at("t/run.d"));
    EXPECT_EQ(report.trees.first().leftOut, 5);
}

} // namespace
} // namespace halvane::host
