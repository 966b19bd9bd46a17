#include <FilePlace.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

using namespace orx;

namespace {

using Take = int (*)(int, const QByteArray&, const QByteArray&);

//! Where the file system renames without replacing, and as if it did not.
class FilePlaceTest : public ::testing::TestWithParam<Take> {
protected:
    FilePlaceTest()
        : m_directory(
              ::open(QFile::encodeName(m_dir.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        EXPECT_GE(m_directory, 0);
    }
    ~FilePlaceTest() override { ::close(m_directory); }

    int directory() const { return m_directory; }
    int take(const QByteArray& temporary, const QByteArray& target) const {
        return GetParam()(m_directory, temporary, target);
    }
    void put(const QByteArray& name, const QByteArray& content) const {
        QFile file(m_dir.filePath(QFile::decodeName(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    void makeDirectory(const QString& name) const { ASSERT_TRUE(QDir(m_dir.path()).mkpath(name)); }
    void link(const char* to, const char* name) const { ASSERT_EQ(::symlinkat(to, m_directory, name), 0); }
    QByteArray get(const QByteArray& name) const {
        QFile file(m_dir.filePath(QFile::decodeName(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    QStringList entries() const {
        return QDir(m_dir.path())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }

private:
    QTemporaryDir m_dir;
    const int m_directory;
};

TEST_P(FilePlaceTest, AFileTakesAFreeName) {
    put("new", "content");
    EXPECT_EQ(take("new", "run"), 0);
    EXPECT_EQ(entries(), QStringList{QStringLiteral("run")});
    EXPECT_EQ(get("run"), "content");
}

TEST_P(FilePlaceTest, AFileTakesNoNameThatIsTaken) {
    put("new", "content");
    put("file", "old");
    makeDirectory(QStringLiteral("directory"));
    link("nowhere", "link");
    for (const char* taken : {"file", "directory", "link"})
        EXPECT_EQ(take("new", taken), EEXIST) << taken;
    EXPECT_EQ(get("file"), "old");
    EXPECT_EQ(get("new"), "content");
    EXPECT_EQ(entries().size(), 4);
}

TEST_P(FilePlaceTest, ADirectoryTakesAFreeNameWithWhatItHolds) {
    makeDirectory(QStringLiteral("new/below"));
    EXPECT_EQ(take("new", "run"), 0);
    EXPECT_EQ(entries(), QStringList{QStringLiteral("run")});
    EXPECT_EQ(::faccessat(directory(), "run/below", F_OK, 0), 0);
}

TEST_P(FilePlaceTest, ADirectoryReplacesNothingThatHoldsAnything) {
    makeDirectory(QStringLiteral("new"));
    put("file", "old");
    makeDirectory(QStringLiteral("full/below"));
    EXPECT_NE(take("new", "file"), 0);
    const int reason = take("new", "full");
    EXPECT_TRUE(reason == EEXIST || reason == ENOTEMPTY) << reason;
    EXPECT_EQ(get("file"), "old");
    EXPECT_EQ(::faccessat(directory(), "full/below", F_OK, 0), 0);
    EXPECT_EQ(entries().size(), 3);
}

TEST_P(FilePlaceTest, WhatIsNotThereIsAnError) {
    EXPECT_EQ(take("new", "run"), ENOENT);
    EXPECT_TRUE(entries().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ways, FilePlaceTest, ::testing::Values(&FilePlace::takeIn, &FilePlace::takeByLink),
                         [](const auto& testCase) {
                             return std::string(testCase.index == 0 ? "AsTheFileSystemCan" : "ByLink");
                         });

} // namespace
