// How many uploads a directory makes, and when it is looked at again for that.
#include <FileStamp.h>
#include <UploadFileInputValidation.h>
#include <UploadSums.h>

#include <RealServer.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

namespace orx::testing {
namespace {

class Sums : public ::testing::Test {
protected:
    ~Sums() override { UploadFileInputValidation::setFilters(UploadFilters()); }

    QString path(const QString& name) const { return m_dir.filePath(name); }
    void write(const QString& name, const QByteArray& content = "content") const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(path(name)).path()));
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    int count(const QString& name = QStringLiteral("t")) { return sums.uploadsIn(path(name)); }
    int listingsOf(const QString& name) {
        const quint64 before = sums.listings();
        (void)count(name);
        return int(sums.listings() - before);
    }
    qint64 newest(const QString& name) const {
        const auto stamp = FileStamp::of(QFile::encodeName(path(name)));
        return stamp ? stamp->newest() : 0;
    }
    qint64 writeProbe() const {
        write(QStringLiteral("probe"));
        return newest(QStringLiteral("probe"));
    }
    //! What is there is old enough to be remembered, and what changes from now on gets another time.
    void settle() {
        const qint64 written = writeProbe();
        ASSERT_TRUE(waitUntil([this, written] { return writeProbe() > written; }));
        now = writeProbe() + minute;
    }

    static constexpr qint64 minute = 60'000'000'000;
    qint64 now = 0;
    UploadSums sums{[this] { return now; }};

private:
    QTemporaryDir m_dir;
};

TEST_F(Sums, CountsWhatGoesUpAndRawDataOnce) {
    for (const char* name : {"t/a", "t/b", "t/.hidden", "t/c.tmp", "t/sub/d", "t/sub/deep/e", "t/.sub/f"})
        write(QLatin1String(name));
    ASSERT_TRUE(QDir().mkpath(path(QStringLiteral("t/empty"))));
    EXPECT_EQ(count(), 4);
    write(QStringLiteral("t/run.d/AcqData/MSScan.bin"));
    write(QStringLiteral("t/run.d/AcqData/MSPeak.bin"));
    write(QStringLiteral("t/run.d/more"));
    EXPECT_EQ(count(), 5) << "raw data is one";
    EXPECT_EQ(count(QStringLiteral("t/a")), 0);
    EXPECT_EQ(count(QStringLiteral("nothing")), 0);
}

TEST_F(Sums, WhatHasNotChangedIsNotListedAgain) {
    for (const char* name : {"t/a", "t/sub/b", "t/sub/deep/c"})
        write(QLatin1String(name));
    settle();
    EXPECT_EQ(listingsOf(QStringLiteral("t")), 3);
    EXPECT_EQ(listingsOf(QStringLiteral("t")), 0);
    EXPECT_EQ(count(), 3);
    EXPECT_EQ(listingsOf(QStringLiteral("t/sub")), 0) << "its own part";
    write(QStringLiteral("t/sub/deep/d"));
    EXPECT_EQ(listingsOf(QStringLiteral("t")), 1);
    EXPECT_EQ(count(), 4);
    ASSERT_TRUE(QDir(path(QStringLiteral("t/sub"))).removeRecursively());
    EXPECT_EQ(count(), 1);
}

TEST_F(Sums, WhatIsYoungerThanTheClocksAreExactIsListedAgain) {
    write(QStringLiteral("t/a"));
    now = newest(QStringLiteral("t")) + 2'000'000'000;
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(listingsOf(QStringLiteral("t")), 1) << i;
    now += minute;
    EXPECT_EQ(listingsOf(QStringLiteral("t")), 1);
    EXPECT_EQ(listingsOf(QStringLiteral("t")), 0);
}

TEST_F(Sums, WhoNeedsTheSumNoMoreWaitsForNoMoreDirectories) {
    for (const char* name : {"t/a", "t/sub/b", "t/sub/deep/c"})
        write(QLatin1String(name));
    std::stop_source stop;
    stop.request_stop();
    (void)sums.uploadsIn(path(QStringLiteral("t")), stop.get_token());
    EXPECT_EQ(sums.listings(), 1u);
}

TEST_F(Sums, OtherRulesCountAtOnce) {
    write(QStringLiteral("t/a.raw"));
    write(QStringLiteral("t/b.txt"));
    settle();
    EXPECT_EQ(count(), 2);
    UploadFilters filters;
    filters.allowedExtensions = {QStringLiteral("raw")};
    UploadFileInputValidation::setFilters(filters);
    EXPECT_EQ(count(), 1);
}

TEST_F(Sums, WhatChangesElsewhereCountsAtOnce) {
    write(QStringLiteral("elsewhere"));
    write(QStringLiteral("t/a"));
    ASSERT_TRUE(QFile::link(path(QStringLiteral("elsewhere")), path(QStringLiteral("t/link"))));
    settle();
    EXPECT_EQ(count(), 2);
    ASSERT_TRUE(QFile::remove(path(QStringLiteral("elsewhere"))));
    EXPECT_EQ(count(), 1);
}

TEST_F(Sums, ACompanionCountsAsSoonAsWhatItBelongsToIsNoRawDataAnyMore) {
    const QByteArray document = R"(<?xml version="1.0"?><mzML version="1.1"><fileDescription><fileContent>)"
                                R"(<cvParam cvRef="IMS" accession="IMS:1000080" name="uuid" )"
                                R"(value="{12345678-1234-1234-1234-123456789abc}"/></fileContent>)"
                                R"(</fileDescription><run id="r"><spectrumList count="0"/></run></mzML>)";
    write(QStringLiteral("t/run.imzML"), document);
    write(QStringLiteral("t/run.ibd"), QByteArray::fromHex("12345678123412341234123456789abc"));
    settle();
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(count(), 1);
    write(QStringLiteral("t/run.imzML"), "notes");
    EXPECT_EQ(count(), 2);
}

} // namespace
} // namespace orx::testing
