#include <UnpackedCheck.h>

#include <ContentHash.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>

namespace halvane::host {
namespace {

using orx::vonk::VonkEntry;

class UnpackedCheckTest : public ::testing::Test {
protected:
    QString at(const QString& path) const { return dir.filePath(path); }
    void write(const QString& path, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    static VonkEntry file(const QString& path, const QByteArray& content) {
        VonkEntry entry;
        entry.path = path;
        entry.size = content.size();
        orx::ContentHash hash;
        hash.add(content.constData(), content.size());
        entry.sha256 = hash.hexDigest();
        return entry;
    }
    static VonkEntry directory(const QString& path) {
        VonkEntry entry;
        entry.path = path;
        entry.type = VonkEntry::Type::Directory;
        return entry;
    }
    bool isSame(const QString& path = QStringLiteral("run.d")) const {
        return UnpackedCheck(at(path), entries).isSame(1'000'000).value();
    }
    void SetUp() override {
        write(QStringLiteral("run.d/a"), "content of a");
        write(QStringLiteral("run.d/data/b"), "content of b");
        ASSERT_TRUE(QDir().mkpath(at(QStringLiteral("run.d/empty"))));
    }

    QTemporaryDir dir;
    //! Without "run.d/data", as a format does that lists no directories.
    QList<VonkEntry> entries{directory(QStringLiteral("run.d")), directory(QStringLiteral("run.d/empty")),
                             file(QStringLiteral("run.d/a"), "content of a"),
                             file(QStringLiteral("run.d/data/b"), "content of b")};
};

TEST_F(UnpackedCheckTest, TheSameIsTheSameUnderAnyNameAndWhateverElseIsThere) {
    EXPECT_TRUE(isSame());
    write(QStringLiteral("run.d/data/more"), "more");
    EXPECT_TRUE(isSame());
    ASSERT_TRUE(QDir().rename(at(QStringLiteral("run.d")), at(QStringLiteral("other"))));
    EXPECT_FALSE(isSame());
    EXPECT_TRUE(isSame(QStringLiteral("other")));
}

TEST_F(UnpackedCheckTest, ASingleFileIsComparedToo) {
    entries = {file(QStringLiteral("run.raw"), "content")};
    EXPECT_FALSE(isSame(QStringLiteral("run.raw")));
    write(QStringLiteral("here.raw"), "content");
    EXPECT_TRUE(isSame(QStringLiteral("here.raw")));
    write(QStringLiteral("here.raw"), "CONTENT");
    EXPECT_FALSE(isSame(QStringLiteral("here.raw")));
    EXPECT_FALSE(isSame(QStringLiteral("run.d")));
}

TEST_F(UnpackedCheckTest, WhateverIsMissingOrDiffersMakesItAnotherContent) {
    write(QStringLiteral("run.d/data/b"), "content of B");
    EXPECT_FALSE(isSame());
    write(QStringLiteral("run.d/data/b"), "content of b and more");
    EXPECT_FALSE(isSame());
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("run.d/data/b"))));
    EXPECT_FALSE(isSame());
    write(QStringLiteral("run.d/data/b"), "content of b");
    EXPECT_TRUE(isSame());
    ASSERT_TRUE(QDir().rmdir(at(QStringLiteral("run.d/empty"))));
    EXPECT_FALSE(isSame());
    write(QStringLiteral("run.d/empty"), "");
    EXPECT_FALSE(isSame());
}

TEST_F(UnpackedCheckTest, LinksAreNotFollowed) {
    const auto replacedByLink = [this](const QString& path) {
        ASSERT_TRUE(QDir().rename(at(path), at(QStringLiteral("moved"))));
        ASSERT_TRUE(QFile::link(at(QStringLiteral("moved")), at(path)));
        EXPECT_FALSE(isSame()) << qPrintable(path);
        ASSERT_TRUE(QFile::remove(at(path)));
        ASSERT_TRUE(QDir().rename(at(QStringLiteral("moved")), at(path)));
        EXPECT_TRUE(isSame());
    };
    for (const char* path : {"run.d/a", "run.d/data", "run.d/empty", "run.d"})
        replacedByLink(QString::fromLatin1(path));
}

TEST_F(UnpackedCheckTest, ReadsNoMoreAtATimeThanItWasTold) {
    UnpackedCheck check(at(QStringLiteral("run.d")), entries);
    int steps = 1;
    for (; !check.isSame(5); ++steps) {
        ASSERT_LT(steps, 100);
    }
    EXPECT_GE(steps, 24 / 5);
    EXPECT_TRUE(isSame());
}

TEST_F(UnpackedCheckTest, APipeInThePlaceOfAFileIsNotWaitedFor) {
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("run.d/a"))));
    ASSERT_EQ(::mkfifo(QFile::encodeName(at(QStringLiteral("run.d/a"))).constData(), 0600), 0);
    EXPECT_FALSE(isSame());
}

TEST(RecordOfAnAcquisition, NamesItsFilesWithTheirContentAndNoOthers) {
    const auto file = [](const char* path, char digit) {
        VonkEntry entry;
        entry.path = QString::fromLatin1(path);
        entry.sha256 = QByteArray(64, digit);
        return entry;
    };
    VonkEntry directory;
    directory.path = QStringLiteral("content/run.d");
    directory.type = VonkEntry::Type::Directory;
    const QList<VonkEntry> entries{directory, file("content/run.d/a", '1'), file("content/run.d/b", '2')};
    const auto a = QStringLiteral("content/run.d/a"), b = QStringLiteral("content/run.d/b");
    const auto digest = [](char digit) { return QString(64, QLatin1Char(digit)); };
    const QHash<QString, QString> recorded{
        {a, digest('1')}, {b, digest('2')}, {QStringLiteral("manifest.json"), digest('3')}};
    EXPECT_TRUE(isRecordOf(recorded, entries));

    QHash<QString, QString> other = recorded;
    other[b] = digest('1');
    EXPECT_FALSE(isRecordOf(other, entries));
    other = recorded;
    other.remove(a);
    EXPECT_FALSE(isRecordOf(other, entries));
    other = recorded;
    other.insert(QStringLiteral("content/run.d/c"), digest('4'));
    EXPECT_FALSE(isRecordOf(other, entries));
    EXPECT_FALSE(isRecordOf({}, entries));
}

} // namespace
} // namespace halvane::host
