#include "PackingFixture.h"
#include "SmallWriter.h"

#include <algorithm>
#include <atomic>

using namespace orx;
using namespace orx::vonk;

namespace {

constexpr qsizetype mib = qsizetype(1) << 20;

//! Files of which several fit into what one thread takes, some that are taken alone, and two that all threads
//! share, one of them the last.
class PayloadCheck : public PackingFixture, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        PackingFixture::SetUp();
        if (GetParam() != 1)
            m_writer.addDirectory(QStringLiteral("content/run1.d"));
        const QList<qsizetype> sizes{0,       700'000, 3 * mib, 12 * mib, 0,       9,
                                     5 * mib, 2 * mib, 3 * mib, 1,        12 * mib};
        for (qsizetype at = 0; at < sizes.size(); ++at)
            m_writer.addFile(QStringLiteral("content/run1.d/part%1").arg(at, 2, 10, QLatin1Char('0')),
                             QByteArray(sizes[at], char('a' + at)));
        m_writer.finish();
    }

    //! Checks the file whose manifest lies about the content of \a liars.
    Error checkedWithLies(const QList<qsizetype>& liars, const WorkWatch& watch = {}) {
        SmallWriter writer(GetParam());
        writer.chunks = m_writer.chunks;
        writer.entries = m_writer.entries;
        for (const qsizetype liar : liars)
            writer.entries[firstFile() + liar].sha256 = sha256Hex("other");
        writer.chunks.removeLast();
        writer.finish();
        const QString path = out(QStringLiteral("run1.d.vonk"));
        write(path, writer.bytes());
        Vonk vonk(path);
        EXPECT_FALSE(vonk.open().hasError());
        return vonk.validate(Vonk::Check::Full, watch);
    }

    qsizetype firstFile() const { return GetParam() == 1 ? 0 : 1; }
    qsizetype fileCount() const { return m_writer.entries.size() - firstFile(); }
    QString pathOf(qsizetype file) const { return m_writer.entries[firstFile() + file].path; }

    SmallWriter m_writer{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Version, PayloadCheck, ::testing::Values(1, 2));

TEST_P(PayloadCheck, FindsEachFileThatIsNotWhatWasPacked) {
    EXPECT_FALSE(checkedWithLies({}).hasError());
    for (qsizetype file = 0; file < fileCount(); ++file) {
        const Error error = checkedWithLies({file});
        EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch)) << file;
        EXPECT_TRUE(error.errorMessage().contains(pathOf(file))) << error.errorMessage().toStdString();
    }
}

TEST_P(PayloadCheck, OfSeveralDamagedFilesAlwaysNamesTheFirst) {
    const QList<qsizetype> of[] = {{2, 3, 7, 9}, {3, 7, 9}, {3, 10}, {9, 10}};
    for (const QList<qsizetype>& liars : of) {
        for (int round = 0; round < 3; ++round) {
            const Error error = checkedWithLies(liars);
            EXPECT_TRUE(error.errorMessage().contains(pathOf(liars.first())))
                << liars.first() << error.errorMessage().toStdString();
        }
    }
}

TEST_P(PayloadCheck, TellsHowFarItIsAndNeverGoesBack) {
    QList<qint64> reports;
    WorkWatch watch;
    watch.progress = [&](qint64 done, qint64 total) {
        EXPECT_EQ(total, 700'010 + 37 * mib);
        reports.append(done);
    };
    ASSERT_FALSE(checkedWithLies({}, watch).hasError());
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_EQ(reports.last(), 700'010 + 37 * mib);
}

TEST_P(PayloadCheck, EndsWhereverItIsCancelled) {
    std::atomic<int> asked = 0;
    WorkWatch watch;
    watch.isCanceled = [&] {
        ++asked;
        return false;
    };
    ASSERT_FALSE(checkedWithLies({}, watch).hasError());
    const int all = asked;
    EXPECT_GT(all, int(m_writer.chunks.size()));
    for (int last = 0; last < all; last += 7) {
        std::atomic<int> left = last;
        watch.isCanceled = [&] { return left-- <= 0; };
        EXPECT_TRUE(checkedWithLies({}, watch).isCanceled()) << last;
    }
}

} // namespace
