#include "NoLocks.h"

#include <StagingDirectory.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace halvane::host {
namespace {

using orx::Error;
using orx::ErrorCode;

class StagingDirectoryTest : public ::testing::Test {
protected:
    QString at(const QString& name = {}) const { return dir.filePath(QStringLiteral(".staging") + name); }
    void put(const QString& name) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(name)).path()));
        QFile file(at(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("x") == 1);
    }
    const QString lock = QStringLiteral(".lock");
    const QString arrived = QStringLiteral("/arrived");
    const QString unpacked = QStringLiteral("/unpacked/data/fid");
    QTemporaryDir dir;
};

TEST_F(StagingDirectoryTest, IsHeldByOneRunAtATime) {
    StagingDirectory first(at(), lock);
    EXPECT_FALSE(first.hold().hasError());
    EXPECT_FALSE(first.hold().hasError()) << "it is held";
    put(arrived);
    StagingDirectory second(at(), lock);
    const Error error = second.hold();
    EXPECT_TRUE(error.is(ErrorCode::Busy)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(at()));
    EXPECT_FALSE(second.isHeld());
    EXPECT_FALSE(second.removeLeft().hasError());
    EXPECT_TRUE(QFileInfo::exists(at(arrived))) << "of the first run";
}

TEST_F(StagingDirectoryTest, WhatIsInItIsLeftForTheNextRunAndNothingElseIs) {
    {
        StagingDirectory staging(at(), lock);
        ASSERT_FALSE(staging.hold().hasError());
        put(arrived);
    }
    EXPECT_EQ(QDir(at()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("arrived")});
    {
        StagingDirectory staging(at(), lock);
        ASSERT_FALSE(staging.hold().hasError());
        ASSERT_TRUE(QFile::remove(at(arrived)));
    }
    EXPECT_FALSE(QFileInfo::exists(at()));
}

TEST_F(StagingDirectoryTest, GoesWithEverythingInIt) {
    for (const bool isHeld : {true, false}) {
        StagingDirectory staging(at(), lock);
        put(arrived);
        put(unpacked);
        put(QStringLiteral("/.hidden"));
        ASSERT_TRUE(QFile::link(dir.filePath(QStringLiteral("nowhere")), at(QStringLiteral("/link"))));
        // As an acquisition may hold it.
        ASSERT_EQ(::chmod(QFile::encodeName(at(QStringLiteral("/unpacked/data"))).constData(), 0555), 0);
        const Error held = isHeld ? staging.hold() : Error();
        ASSERT_FALSE(held.hasError());
        const Error error = isHeld ? staging.remove() : staging.removeLeft();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_FALSE(QFileInfo::exists(at()));
        EXPECT_FALSE(staging.isHeld());
    }
}

TEST_F(StagingDirectoryTest, WhereThereAreNoLocksWhatIsLeftMayBeOfARunAndStays) {
    const NoLocks none;
    put(arrived);
    EXPECT_FALSE(StagingDirectory(at(), lock).removeLeft().hasError());
    EXPECT_TRUE(QFileInfo::exists(at(arrived)));
    // One's own goes.
    StagingDirectory staging(at(), lock);
    ASSERT_FALSE(staging.hold().hasError());
    EXPECT_FALSE(staging.remove().hasError());
    EXPECT_FALSE(QFileInfo::exists(at()));
}

TEST_F(StagingDirectoryTest, NothingIsMadeToBeRemoved) {
    EXPECT_FALSE(StagingDirectory(at(), lock).removeLeft().hasError());
    EXPECT_FALSE(QFileInfo::exists(at()));
}

TEST_F(StagingDirectoryTest, WhatIsNoDirectoryStays) {
    ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("elsewhere")));
    ASSERT_TRUE(QFile::link(dir.filePath(QStringLiteral("elsewhere")), at()));
    StagingDirectory staging(at(), lock);
    for (const Error& error : {staging.hold(), staging.removeLeft()}) {
        EXPECT_TRUE(error.is(ErrorCode::FileNotWritable));
        EXPECT_TRUE(error.errorMessage().contains(at()));
    }
    EXPECT_TRUE(QFileInfo(at()).isSymLink());
    EXPECT_TRUE(QDir(dir.filePath(QStringLiteral("elsewhere"))).isEmpty());
}

} // namespace
} // namespace halvane::host
