#include <KnownContents.h>
#include <LocalStamp.h>
#include <UploadPolicy.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>

namespace halvane::host {
namespace {

using ByPath = KnownContents::ByPath;

class KnownContentsTest : public ::testing::Test {
protected:
    void SetUp() override { qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(at(QStringLiteral("config")))); }
    void TearDown() override { qunsetenv("HALVANE_CONFIG_DIR"); }

    QString at(const QString& path) const { return dir.filePath(path); }
    QString write(const QString& path, const QByteArray& content) const {
        EXPECT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        EXPECT_EQ(file.write(content), content.size());
        return at(path);
    }
    static void setModified(const QString& path, qint64 seconds) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
    }
    QTemporaryDir dir;
};

TEST_F(KnownContentsTest, WhatIsWrittenIsRead) {
    const ByPath contents{{QStringLiteral("/data/t/a"), {"stamp a", QStringLiteral("hash a")}},
                          {QStringLiteral("/data/t/sub/\u00e9"), {"stamp b", QStringLiteral("hash b")}}};
    const KnownContents known(QStringLiteral("/data/t"));
    EXPECT_EQ(known.read(), ByPath());
    ASSERT_FALSE(known.write(contents).hasError());
    EXPECT_EQ(known.read(), contents);
    EXPECT_EQ(KnownContents(QStringLiteral("/data/t2")).read(), ByPath());
    ASSERT_FALSE(known.write({}).hasError());
    EXPECT_EQ(known.read(), ByPath());
    EXPECT_EQ(QDir(at(QStringLiteral("config/uploads"))).entryList(QDir::Files), QStringList());
}

TEST_F(KnownContentsTest, TheSourceMayBeAFileAndTheRoot) {
    for (const QString& source : {QStringLiteral("/data/a"), QStringLiteral("/")}) {
        const QString path = source == u"/" ? QStringLiteral("/x/a") : source;
        const ByPath contents{{path, {"stamp", QStringLiteral("hash")}}};
        ASSERT_FALSE(KnownContents(source).write(contents).hasError());
        EXPECT_EQ(KnownContents(source).read(), contents);
    }
}

TEST_F(KnownContentsTest, WhatCannotBeReadIsNotKnown) {
    const KnownContents known(QStringLiteral("/data/t"));
    ASSERT_FALSE(known.write({{QStringLiteral("/data/t/a"), {"stamp", QStringLiteral("hash")}}}).hasError());
    const QDir records(at(QStringLiteral("config/uploads")));
    const QStringList names = records.entryList(QDir::Files);
    ASSERT_EQ(names.size(), 1);
    write(QStringLiteral("config/uploads/") + names.first(), "{\"contents\": {\"/a\": [");
    EXPECT_EQ(known.read(), ByPath());
}

TEST_F(KnownContentsTest, OnlyARetryReliesOnIt) {
    const ByPath known{{QStringLiteral("/data/t/a"), {"stamp", QStringLiteral("hash")}}};
    TreeUploadRequest request;
    EXPECT_FALSE(UploadPolicy::optionsOf(request, false, known).knownOf(QStringLiteral("/data/t/a")));
    request.onlyMissing = true;
    const auto options = UploadPolicy::optionsOf(request, false, known);
    EXPECT_EQ(options.knownOf(QStringLiteral("/data/t/a")), *known.begin());
    EXPECT_FALSE(options.knownOf(QStringLiteral("/data/t/b")));
}

// ---- stamps

using LocalStampTest = KnownContentsTest;

TEST_F(LocalStampTest, EveryChangeOfAFileGivesAnother) {
    const QString path = write(QStringLiteral("a"), "one");
    setModified(path, 1'700'000'000);
    const QByteArray first = LocalStamp::of(path, false).text;
    EXPECT_FALSE(first.isEmpty());
    EXPECT_EQ(LocalStamp::of(path, false).text, first);
    setModified(path, 1'700'000'001);
    const QByteArray touched = LocalStamp::of(path, false).text;
    EXPECT_NE(touched, first);
    // Another file of the same size and time in its place.
    const QString other = write(QStringLiteral("b"), "two");
    setModified(other, 1'700'000'001);
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_TRUE(QFile::rename(other, path));
    EXPECT_NE(LocalStamp::of(path, false).text, touched);
    EXPECT_TRUE(LocalStamp::of(at(QStringLiteral("nothing")), false).text.isEmpty());
}

TEST_F(LocalStampTest, EveryChangeInRawDataGivesAnother) {
    const QString data = at(QStringLiteral("frames.d"));
    ASSERT_TRUE(QDir().mkpath(data));
    const QString source = QStringLiteral(ORX_TEST_DATA_DIR "/sqlite-frames.d/");
    for (const QString& name : {QStringLiteral("/analysis.tdf"), QStringLiteral("/analysis.tdf_bin")})
        ASSERT_TRUE(QFile::copy(source + name, data + name));
    const QByteArray first = LocalStamp::of(data, true).text;
    EXPECT_FALSE(first.isEmpty());
    EXPECT_EQ(LocalStamp::of(data, true).text, first);
    setModified(data + QStringLiteral("/analysis.tdf_bin"), 1'700'000'000);
    const QByteArray touched = LocalStamp::of(data, true).text;
    EXPECT_NE(touched, first);
    write(QStringLiteral("frames.d/sub/more"), "more");
    EXPECT_NE(LocalStamp::of(data, true).text, touched);
}

// A change within the tick of a file system's clock leaves the times as they are.
TEST_F(LocalStampTest, IsReliableWhenNothingHadJustChanged) {
    const LocalStamp stamp = LocalStamp::of(write(QStringLiteral("a"), "one"), false);
    EXPECT_FALSE(stamp.isReliable(stamp.changedAt));
    EXPECT_FALSE(stamp.isReliable(stamp.changedAt + std::chrono::seconds(10)));
    EXPECT_TRUE(stamp.isReliable(stamp.changedAt + std::chrono::seconds(11)));
    // A clock that is ahead of this one.
    EXPECT_FALSE(stamp.isReliable(stamp.changedAt - std::chrono::hours(1)));
    EXPECT_FALSE(LocalStamp().isReliable(stamp.changedAt + std::chrono::hours(1)));
}

} // namespace
} // namespace halvane::host
