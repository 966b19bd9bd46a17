#include "AtomicFile.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <sys/stat.h>

using namespace orx;

TEST(AtomicFile, ReplacesTheWholeFileAndLeavesNoSibling) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("record"));
    ASSERT_FALSE(AtomicFile::write(path, "old and longer").hasError());
    ASSERT_FALSE(AtomicFile::write(path, "new").hasError());
    EXPECT_EQ(AtomicFile::read(path).value(), "new");
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 1);
}

TEST(AtomicFile, KeepsSecretsToTheOwner) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("token"));
    ASSERT_FALSE(AtomicFile::write(path, "secret", AtomicFile::Access::OwnerOnly).hasError());
    const auto others =
        QFileDevice::ReadGroup | QFileDevice::ReadOther | QFileDevice::WriteGroup | QFileDevice::WriteOther;
    EXPECT_EQ(QFileInfo(path).permissions() & others, QFileDevice::Permissions());
}

TEST(AtomicFile, HonoursTheUmaskAndLeavesItAlone) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("record"));
    const mode_t before = ::umask(0027);
    const Error error = AtomicFile::write(path, "content");
    EXPECT_EQ(::umask(before), mode_t(0027));
    ASSERT_FALSE(error.hasError());
    struct stat status = {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, mode_t(0640));
}

TEST(AtomicFile, LeavesTheTargetAloneWhenItCannotBeReplaced) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("folder"));
    ASSERT_TRUE(QDir().mkpath(path + QStringLiteral("/inside")));
    EXPECT_TRUE(AtomicFile::write(path, "content").hasError());
    EXPECT_TRUE(QFileInfo(path + QStringLiteral("/inside")).isDir());
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 1);
    EXPECT_TRUE(AtomicFile::write(dir.filePath(QStringLiteral("no/such/dir")), "content").hasError());
}

TEST(AtomicFile, TellsAMissingFileFromOneThatIsTooLarge) {
    const QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("file"));
    EXPECT_TRUE(AtomicFile::read(path).error().is(ErrorCode::NotFound));
    ASSERT_FALSE(AtomicFile::write(path, "12345").hasError());
    EXPECT_TRUE(AtomicFile::read(path, 4).error().is(ErrorCode::ParseError));
    EXPECT_EQ(AtomicFile::read(path, 5).value().size(), 5);
}
