// A directory that is replaced, and what is in it, stay with the people they belong to, or nothing is
// replaced. Only root may give files away and belongs to every group. A program of its own, since it makes
// system calls fail.
#include "MergeFiles.h"

#include <DirectoryMerge.h>

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

//! As on a file system without hard links, or for somebody who may not link a file of another one.
bool cannotLink = false;
//! As for anybody but root.
bool cannotChown = false;

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
extern "C" int link(const char* from, const char* to) noexcept {
    if (cannotLink) {
        errno = EPERM;
        return -1;
    }
    return int(::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0));
}

extern "C" int chown(const char* path, uid_t user, gid_t group) noexcept {
    if (cannotChown) {
        errno = EPERM;
        return -1;
    }
    return int(::syscall(SYS_fchownat, AT_FDCWD, path, user, group, 0));
}

namespace orx::testing {
namespace {

constexpr uid_t alice = 4242;
constexpr gid_t lab = 4243;

class MergeOwners : public ::testing::Test, protected MergeFiles {
protected:
    void SetUp() override {
        put("new/acqu", "new parameters");
        put("new/data/fid", "new points");
        put("new/data/more/peaks", "peaks");
    }
    void TearDown() override { cannotLink = cannotChown = false; }
    //! The target, in which \a path is of Alice.
    void putOld(const char* path, mode_t mode) const {
        ASSERT_TRUE(QDir(at("run")).removeRecursively());
        put("run/acqu", "old parameters");
        put("run/data/fid", "old");
        put("run/data/notes", "Alice's");
        ASSERT_EQ(::chown(bytes(path).constData(), alice, lab), 0);
        ASSERT_EQ(::chmod(bytes(path).constData(), mode), 0);
    }
    QByteArray bytes(const char* path) const { return QFile::encodeName(at(path)); }
    struct stat infoOf(const char* path) const {
        struct stat info = {};
        EXPECT_EQ(::lstat(bytes(path).constData(), &info), 0) << path;
        return info;
    }
    Error merge() const { return DirectoryMerge::run(at("new"), at("run"), {}); }
    void expectMerged() const {
        const Error error = merge();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_EQ(get("run/acqu"), "new parameters");
        EXPECT_EQ(get("run/data/fid"), "new points");
        EXPECT_EQ(get("run/data/notes"), "Alice's");
    }
    void expectRefused(const char* path) const {
        const Error error = merge();
        EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(at(path))) << qPrintable(error.errorMessage());
        EXPECT_EQ(get("run/acqu"), "old parameters");
        EXPECT_EQ(get("run/data/fid"), "old");
        EXPECT_EQ(infoOf(path).st_uid, alice);
        EXPECT_EQ(QDir(m_dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(),
                  2)
            << "nothing is left beside it";
    }

private:
};

TEST_F(MergeOwners, AFileOfSomebodyElseStaysTheirs) {
    for (const bool isCopied : {false, true}) {
        cannotLink = isCopied;
        putOld("run/data/notes", 0640);
        expectMerged();
        const struct stat notes = infoOf("run/data/notes");
        EXPECT_EQ(notes.st_uid, alice);
        EXPECT_EQ(notes.st_gid, lab);
        EXPECT_EQ(notes.st_mode & 07777, 0640u);
    }
}

TEST_F(MergeOwners, AFileThatCannotStayTheirsKeepsItsDirectoryFromBeingReplaced) {
    putOld("run/data/notes", 0640);
    cannotChown = true;
    cannotLink = true;
    expectRefused("run/data/notes");
    cannotLink = false;
    expectMerged();
    EXPECT_EQ(infoOf("run/data/notes").st_uid, alice) << "it is the file itself";
}

TEST_F(MergeOwners, ADirectoryOfAGroupThatOneDoesNotBelongToIsNotReplaced) {
    putOld("run/data", 0770);
    cannotChown = true;
    expectRefused("run/data");
}

TEST_F(MergeOwners, ADirectoryKeepsItsGroupAndHandsItDown) {
    putOld("run/data", 02770);
    expectMerged();
    for (const char* const path : {"run/data", "run/data/fid", "run/data/more", "run/data/more/peaks"})
        EXPECT_EQ(infoOf(path).st_gid, lab) << path;
    EXPECT_EQ(infoOf("run/data").st_uid, alice);
    EXPECT_EQ(infoOf("run/data").st_mode & 07777, 02770u);
}

} // namespace
} // namespace orx::testing
