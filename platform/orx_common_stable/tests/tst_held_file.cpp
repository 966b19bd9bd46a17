#include <HeldFile.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace orx;

namespace {

class HeldFileTest : public ::testing::Test {
protected:
    HeldFileTest() : directory(::open(QFile::encodeName(dir.path()).constData(), O_RDONLY | O_DIRECTORY)) {}
    ~HeldFileTest() override { ::close(directory); }
    bool isThere() const { return QFile::exists(dir.filePath(QStringLiteral("file"))); }

    QTemporaryDir dir;
    const int directory;
};

TEST_F(HeldFileTest, IsHeldByOneAtATime) {
    HeldFile first;
    ASSERT_EQ(first.open(directory, "file", HeldFile::Missing::Make), 0);
    EXPECT_TRUE(first.isLocked());
    for (const auto missing : {HeldFile::Missing::Make, HeldFile::Missing::Fail}) {
        HeldFile second;
        EXPECT_EQ(second.open(directory, "file", missing), EWOULDBLOCK);
        EXPECT_FALSE(second.isOpen());
    }
    first.close();
    HeldFile second;
    EXPECT_EQ(second.open(directory, "file", HeldFile::Missing::Fail), 0);
    EXPECT_EQ(::write(second.descriptor(), "x", 1), 1);
}

TEST_F(HeldFileTest, AnotherFileOfTheNameIsAnother) {
    HeldFile first;
    ASSERT_EQ(first.open(directory, "file", HeldFile::Missing::Make), 0);
    ASSERT_TRUE(QFile::remove(dir.filePath(QStringLiteral("file"))));
    HeldFile second;
    EXPECT_EQ(second.open(directory, "file", HeldFile::Missing::Make), 0);
    EXPECT_TRUE(isThere());
}

TEST_F(HeldFileTest, WhatIsMissingIsMadeOnlyWhereThatIsWanted) {
    HeldFile file;
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Fail), ENOENT);
    EXPECT_FALSE(isThere());
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Make), 0);
    EXPECT_TRUE(isThere());
}

TEST_F(HeldFileTest, LinksAreNotFollowed) {
    ASSERT_TRUE(QFile::link(dir.filePath(QStringLiteral("elsewhere")), dir.filePath(QStringLiteral("file"))));
    HeldFile file;
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Make), ELOOP);
    EXPECT_FALSE(QFile::exists(dir.filePath(QStringLiteral("elsewhere"))));
}

} // namespace
