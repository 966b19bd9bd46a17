#include <ContentPlacing.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace halvane::host {
namespace {

using orx::ErrorCode;

//! Whether the content is copied or moved.
class ContentPlacingTest : public ::testing::TestWithParam<bool> {
protected:
    QString at(const QString& path) const { return dir.filePath(path); }
    void write(const QString& path, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray read(const QString& path) const {
        QFile file(at(path));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QStringList names(const QString& path) const {
        return QDir(at(path)).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    void SetUp() override {
        write(QStringLiteral("content/run.d/a"), "a");
        write(QStringLiteral("content/run.d/sub/run.txt"), "inner");
        write(QStringLiteral("content/run.txt"), "text");
        ASSERT_TRUE(QDir().mkdir(at(QStringLiteral("out"))));
        placing.contentDir = at(QStringLiteral("content"));
        placing.targetDir = at(QStringLiteral("out"));
        placing.mayMove = GetParam();
        const QString run = QStringLiteral("run.d");
        const QString text = QStringLiteral("run.txt");
        placing.names = {{run, run}, {text, text}};
    }

    QTemporaryDir dir;
    ContentPlacing placing;
};

INSTANTIATE_TEST_SUITE_P(Way, ContentPlacingTest, ::testing::Bool(),
                         [](const auto& way) { return way.param ? "Moved" : "Copied"; });

TEST_P(ContentPlacingTest, TheEntriesThatAreNamedGetTheirNames) {
    placing.names = {{QStringLiteral("run.d"), QStringLiteral("new.d")}};
    const orx::Error error = placing.run();
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("new.d")});
    EXPECT_EQ(names(QStringLiteral("out/new.d")), (QStringList{QStringLiteral("a"), QStringLiteral("sub")}));
    EXPECT_EQ(read(QStringLiteral("out/new.d/sub/run.txt")), "inner");
}

TEST_P(ContentPlacingTest, WhatIsThereIsNotTouched) {
    for (const char* name : {"out/run.txt", "out/run.d/b"}) {
        write(QString::fromLatin1(name), "mine");
        EXPECT_TRUE(placing.run().is(ErrorCode::AlreadyExists)) << name;
        EXPECT_EQ(read(QString::fromLatin1(name)), "mine");
        ASSERT_TRUE(QDir(at(QStringLiteral("out"))).removeRecursively());
        ASSERT_TRUE(QDir().mkdir(at(QStringLiteral("out"))));
    }
}

TEST_P(ContentPlacingTest, OverwritingReplacesFilesAndKeepsTheOthersOfADirectory) {
    write(QStringLiteral("out/run.txt"), "old");
    write(QStringLiteral("out/run.d/a"), "old");
    write(QStringLiteral("out/run.d/b"), "mine");
    placing.overwrites = true;
    const orx::Error error = placing.run();
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(read(QStringLiteral("out/run.txt")), "text");
    EXPECT_EQ(read(QStringLiteral("out/run.d/a")), "a");
    EXPECT_EQ(read(QStringLiteral("out/run.d/b")), "mine");
    EXPECT_EQ(read(QStringLiteral("out/run.d/sub/run.txt")), "inner");
}

TEST_P(ContentPlacingTest, AFileThatMayNotBeReplacedAfterAllStays) {
    write(QStringLiteral("out/run.txt"), "old");
    placing.overwrites = true;
    QStringList asked;
    placing.mayReplace = [&asked](const QString& path) {
        asked.append(path);
        return false;
    };
    const orx::Error error = placing.run();
    EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("try again when")))
        << qPrintable(error.errorMessage());
    EXPECT_EQ(asked, QStringList{at(QStringLiteral("out/run.txt"))});
    EXPECT_EQ(read(QStringLiteral("out/run.txt")), "old");
    EXPECT_EQ(read(QStringLiteral("out/run.d/a")), "a") << "nothing was there";
    EXPECT_EQ(names(QStringLiteral("out")).size(), 2);
}

TEST_P(ContentPlacingTest, AMissingTargetIsAnErrorThatNamesIt) {
    placing.targetDir = at(QStringLiteral("out/run.txt/nowhere"));
    write(QStringLiteral("out/run.txt"), "a file");
    const orx::Error error = placing.run();
    ASSERT_TRUE(error.hasError());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("out/run.txt/nowhere")))
        << qPrintable(error.errorMessage());
}

} // namespace
} // namespace halvane::host
