#include "NoLocks.h"

#include <DownloadSteps.h>
#include <HeldFile.h>

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>

namespace halvane::host {
namespace {

using orx::HeldFile;

class PartialFiles : public ::testing::Test {
protected:
    void SetUp() override { put(partial(), "the first half"); }
    QString partial() const { return dir.filePath(QStringLiteral(".run.part")); }
    QString other() const { return dir.filePath(QStringLiteral(".run (2).part")); }
    static void put(const QString& path, const QByteArray& content) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    }
    static QByteArray get(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    //! As another process does that fetches into it.
    void hold(HeldFile& file) const {
        ASSERT_EQ(file.open(AT_FDCWD, QFile::encodeName(partial()), HeldFile::Missing::Fail), 0);
    }
    QTemporaryDir dir;
};

TEST_F(PartialFiles, OneThatNobodyWantsIsRemovedUnlessAnotherDownloadHasIt) {
    HeldFile another;
    hold(another);
    removePartial(partial());
    EXPECT_EQ(get(partial()), "the first half");
    another.close();
    removePartial(partial());
    EXPECT_FALSE(QFile::exists(partial()));
    removePartial(partial());
    EXPECT_FALSE(QFile::exists(partial())) << "nothing is made to be removed";
}

TEST_F(PartialFiles, WhereThereAreNoLocksItMayBeAnothersAndStays) {
    const NoLocks none;
    removePartial(partial());
    EXPECT_EQ(get(partial()), "the first half");
}

TEST_F(PartialFiles, WhatIsInOneGoesOnUnderTheNameOfAnother) {
    const auto error = renamePartial(partial(), other());
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(get(other()), "the first half");
    EXPECT_FALSE(QFile::exists(partial()));
    EXPECT_FALSE(renamePartial(partial(), other()).hasError()) << "nothing was left";
    EXPECT_EQ(get(other()), "the first half");
}

TEST_F(PartialFiles, OneThatHasThatNameIsNotReplacedAndTheOtherIsNotLeftBehind) {
    put(other(), "of an earlier run");
    EXPECT_FALSE(renamePartial(partial(), other()).hasError());
    EXPECT_EQ(get(other()), "of an earlier run");
    EXPECT_FALSE(QFile::exists(partial()));
}

TEST_F(PartialFiles, OneThatAnotherDownloadHasKeepsItsName) {
    HeldFile another;
    hold(another);
    EXPECT_FALSE(renamePartial(partial(), other()).hasError());
    EXPECT_EQ(get(partial()), "the first half");
    EXPECT_FALSE(QFile::exists(other()));
}

TEST_F(PartialFiles, ThatItCannotHaveTheNameIsAnErrorThatTellsWhereItIs) {
    const QString tooLong = dir.filePath(QString(256, u'x'));
    const auto error = renamePartial(partial(), tooLong);
    EXPECT_TRUE(error.is(orx::ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
    for (const QString& path : {partial(), tooLong})
        EXPECT_TRUE(error.errorMessage().contains(path)) << qPrintable(error.errorMessage());
    EXPECT_EQ(get(partial()), "the first half");
}

} // namespace
} // namespace halvane::host
