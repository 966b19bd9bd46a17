// Figures of real files. Each was taken once with Python's own modules (xml.etree, base64, zlib, struct,
// sqlite3) from the files as they lie in tests/data, not with this library.
#include <RunSummaries.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <numeric>

using namespace orx;

namespace {

QString realFile(const char* name) {
    return QStringLiteral(ORX_TEST_DATA_DIR "/") + QString::fromLatin1(name);
}

RunSummary summaryOf(const char* name) {
    const auto summary = summarise(realFile(name));
    EXPECT_FALSE(summary.hasError()) << name << ": " << qPrintable(summary.errorMessage());
    return summary.valueOr(RunSummary());
}

//! What a pattern captures in a file: so that a name of an instrument is compared with the file, not copied.
QString captured(const char* name, const char* pattern) {
    QFile file(realFile(name));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    const auto match =
        QRegularExpression(QString::fromLatin1(pattern)).match(QString::fromLatin1(file.readAll()));
    EXPECT_TRUE(match.hasMatch()) << pattern;
    return match.captured(1);
}

double sumOfTotals(const RunSummary& summary) {
    return std::accumulate(summary.trace.points.begin(), summary.trace.points.end(), 0.0,
                           [](double sum, const auto& point) { return sum + point.totalIonCurrent; });
}

void expectPoint(const IonCurrentTrace::Point& point, double time, double total, double basePeak) {
    EXPECT_DOUBLE_EQ(point.retentionTime, time);
    EXPECT_DOUBLE_EQ(point.totalIonCurrent, total);
    EXPECT_DOUBLE_EQ(point.basePeak, basePeak);
}

void expectRange(const std::optional<ValueRange>& range, double lowest, double highest) {
    ASSERT_TRUE(range.has_value());
    EXPECT_DOUBLE_EQ(range->lowest, lowest);
    EXPECT_DOUBLE_EQ(range->highest, highest);
}

} // namespace

TEST(RealSummary, ofADocumentWithTimesInMinutesAndSecondsAndLevelsInGroups) {
    const RunSummary summary = summaryOf("tiny.mzML");
    EXPECT_EQ(summary.kind, MsDataKind::MzMl);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 3}, {2, 1}}));
    expectRange(summary.mz, 142.39, 1795.56);
    expectRange(summary.retentionTime, 42.05, 5.9905 * 60);
    EXPECT_EQ(summary.startTime, QStringLiteral("2007-06-27T15:23:45.00035"));
    EXPECT_EQ(summary.instrument, captured("tiny.mzML", "accession=\"MS:1000554\" name=\"([^\"]*)\""));
    // The third spectrum of level 1 has neither peaks nor a time.
    EXPECT_EQ(summary.trace.msLevel, 1);
    EXPECT_EQ(summary.trace.spectraPerPoint, 1);
    ASSERT_EQ(summary.trace.points.size(), 2);
    expectPoint(summary.trace.points[0], 42.05, 4200, 42);
    expectPoint(summary.trace.points[1], 5.8905 * 60, 16675500, 120053);
    EXPECT_EQ(summary.notes,
              (QStringList{QStringLiteral("Spectra without a time, which are not in the trace: 1.")}));
}

TEST(RealSummary, ofADocumentWhoseCountAndIndexAreWrong) {
    const RunSummary summary = summaryOf("wrong-count.mzML");
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 11}}));
    expectRange(summary.mz, 70.048690795898, 898.748962402344);
    expectRange(summary.retentionTime, 0.0014658998 * 60, 2.7627309600000003);
    ASSERT_EQ(summary.trace.points.size(), 11);
    expectPoint(summary.trace.points[0], 0.0014658998 * 60, 9.266164e07, 1.2183176e07);
    EXPECT_DOUBLE_EQ(sumOfTotals(summary), 1125941596.0);
    EXPECT_EQ(summary.startTime, QStringLiteral("2013-09-10T10:31:08Z"));
    EXPECT_EQ(summary.instrument, captured("wrong-count.mzML", "accession=\"MS:1001911\" name=\"([^\"]*)\""));
    EXPECT_EQ(summary.notes,
              (QStringList{QStringLiteral("The source declares 2918 spectra; 11 are there.")}));
}

// Every array is decoded here: nothing but the peaks tells the ion current.
TEST(RealSummary, ofADocumentWithoutIndexAndWithoutStatedIonCurrent) {
    const RunSummary summary = summaryOf("no-index.mzML");
    EXPECT_EQ(summary.kind, MsDataKind::MzMl);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{2, 139}}));
    expectRange(summary.mz, 99.20220947265625, 1762.959716796875);
    expectRange(summary.retentionTime, 5000.0916, 5049.7361);
    EXPECT_EQ(summary.trace.msLevel, 0);
    ASSERT_EQ(summary.trace.points.size(), 139);
    expectPoint(summary.trace.points.front(), 5000.0916, 8986.035438895226, 1094.31640625);
    expectPoint(summary.trace.points.back(), 5049.7361, 12454.219659805298, 606.0740356445312);
    EXPECT_NEAR(sumOfTotals(summary), 8278652.647275925, 1e-3);
    EXPECT_EQ(summary.startTime, QStringLiteral("2010-02-22T16:21:17"));
    EXPECT_TRUE(summary.notes.isEmpty());
}

TEST(RealSummary, ofDocumentsWithChromatogramsOnly) {
    for (const char* const name : {"chromatograms.mzML", "one-chromatogram.mzML.gz"}) {
        const RunSummary summary = summaryOf(name);
        EXPECT_EQ(summary.kind, MsDataKind::MzMl) << name;
        EXPECT_EQ(summary.spectrumCount(), 0) << name;
        EXPECT_FALSE(summary.mz.has_value()) << name;
        EXPECT_FALSE(summary.retentionTime.has_value()) << name;
        EXPECT_TRUE(summary.trace.points.isEmpty()) << name;
    }
    EXPECT_EQ(summaryOf("chromatograms.mzML").startTime, QStringLiteral("2012-08-08T11:18:49"));
}

TEST(RealSummary, ofScansInsideScansWhoseCountIsWrong) {
    const RunSummary summary = summaryOf("two-scans.mzXML");
    EXPECT_EQ(summary.kind, MsDataKind::MzXml);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 1}, {2, 1}}));
    expectRange(summary.mz, 110, 1800);
    expectRange(summary.retentionTime, 353.43, 356.68);
    ASSERT_EQ(summary.trace.points.size(), 1);
    expectPoint(summary.trace.points[0], 353.43, 16675500, 120053);
    EXPECT_EQ(summary.instrument, captured("two-scans.mzXML", "<msModel [^>]*value=\"([^\"]*)\""));
    EXPECT_EQ(summary.notes, (QStringList{QStringLiteral("The source declares 3113 spectra; 2 are there.")}));
}

TEST(RealSummary, ofPeakLists) {
    const RunSummary summary = summaryOf("small.mgf");
    EXPECT_EQ(summary.kind, MsDataKind::Mgf);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{2, 35}}));
    expectRange(summary.mz, 72.04439, 1743.361206);
    expectRange(summary.retentionTime, 0.6731, 51.2);
    EXPECT_EQ(summary.trace.msLevel, 0);
    ASSERT_EQ(summary.trace.points.size(), 35);
    expectPoint(summary.trace.points.front(), 0.6731, 586278.8533592226, 161140.859375);
    expectPoint(summary.trace.points.back(), 51.2, 2100, 600);
    EXPECT_TRUE(summary.notes.isEmpty());
}

TEST(RealSummary, ofACatalogueOfFrames) {
    const RunSummary summary = summaryOf("sqlite-frames.d");
    EXPECT_EQ(summary.kind, MsDataKind::FrameCatalogue);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 1}, {2, 4}}));
    expectRange(summary.mz, 99.998563, 1700.0);
    expectRange(summary.retentionTime, 3866.2913197535813, 3866.71217019797);
    ASSERT_EQ(summary.trace.points.size(), 1);
    expectPoint(summary.trace.points[0], 3866.2913197535813, 17889880, 18556);
    EXPECT_EQ(summary.startTime, QStringLiteral("2019-08-24T18:27:02.345+02:00"));
    EXPECT_FALSE(summary.instrument.isEmpty());
    EXPECT_EQ(QDir(realFile("sqlite-frames.d")).entryList(QDir::Files),
              (QStringList{QStringLiteral("analysis.tdf"), QStringLiteral("analysis.tdf_bin")}));
}
