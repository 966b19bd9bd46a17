// Whoever holds a file holds the one that has the name. A program of its own, since it makes locks fail and
// changes what has the name just before one is taken.
#include <HeldFile.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

using namespace orx;

namespace {

//! What happens once, just before the next lock is taken.
std::function<void()> onLock;
//! The errno with which no file can be locked; 0: each can.
int lockFailure = 0;

} // namespace

// The program's own definition takes the place of the C library's for the library too.
extern "C" int flock(int descriptor, int operation) noexcept {
    if (const auto hook = std::exchange(onLock, {}))
        hook();
    if (lockFailure != 0) {
        errno = lockFailure;
        return -1;
    }
    return int(::syscall(SYS_flock, descriptor, operation));
}

namespace {

class HeldFileTest : public ::testing::Test {
protected:
    HeldFileTest() : directory(::open(QFile::encodeName(dir.path()).constData(), O_RDONLY | O_DIRECTORY)) {}
    ~HeldFileTest() override { ::close(directory); }
    void TearDown() override {
        onLock = {};
        lockFailure = 0;
    }
    bool isThere() const { return QFile::exists(dir.filePath(QStringLiteral("file"))); }
    void remove() const { ASSERT_EQ(::unlinkat(directory, "file", 0), 0); }
    bool hasName(const HeldFile& file) const {
        struct stat opened = {};
        struct stat named = {};
        return ::fstat(file.descriptor(), &opened) == 0 &&
               ::fstatat(directory, "file", &named, AT_SYMLINK_NOFOLLOW) == 0 &&
               opened.st_ino == named.st_ino;
    }

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

TEST_F(HeldFileTest, AFileThatHasLostItsNameBeforeTheLockIsNotTheOne) {
    {
        HeldFile made;
        ASSERT_EQ(made.open(directory, "file", HeldFile::Missing::Make), 0);
    }
    // Another one has its name: whoever put it there knows nothing of the lock of the old one.
    onLock = [this] {
        ASSERT_EQ(::mknodat(directory, "other", S_IFREG | 0600, 0), 0);
        ASSERT_EQ(::renameat(directory, "other", directory, "file"), 0);
    };
    HeldFile file;
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Fail), 0);
    EXPECT_TRUE(hasName(file));
    EXPECT_TRUE(file.isLocked());
    file.close();

    onLock = [this] { remove(); };
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Fail), ENOENT);
    EXPECT_FALSE(file.isOpen());

    HeldFile again;
    ASSERT_EQ(again.open(directory, "file", HeldFile::Missing::Make), 0);
    again.close();
    onLock = [this] { remove(); };
    EXPECT_EQ(file.open(directory, "file", HeldFile::Missing::Make), 0);
    EXPECT_TRUE(hasName(file)) << "it is made once more";
}

TEST_F(HeldFileTest, WhereThereAreNoLocksTheFileIsOpenAndSaysThatNothingHoldsIt) {
    for (const int reason : {ENOLCK, EOPNOTSUPP, ENOSYS}) {
        lockFailure = reason;
        HeldFile first;
        HeldFile second;
        for (HeldFile* const file : {&first, &second}) {
            EXPECT_EQ(file->open(directory, "file", HeldFile::Missing::Make), 0) << reason;
            EXPECT_TRUE(file->isOpen());
            EXPECT_FALSE(file->isLocked());
        }
        // Nor does an object that held one before say so.
        lockFailure = 0;
        EXPECT_EQ(first.open(directory, "file", HeldFile::Missing::Make), 0);
        EXPECT_TRUE(first.isLocked());
        lockFailure = reason;
        EXPECT_EQ(first.open(directory, "file", HeldFile::Missing::Make), 0);
        EXPECT_FALSE(first.isLocked());
    }
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
