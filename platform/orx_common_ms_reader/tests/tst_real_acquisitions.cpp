// Acquisitions of Debian's packages openms-doc 2.6.0 and r-cran-maldiquantforeign 0.13, and those of
// tests/data: recognised, summed up, packed, checked and unpacked. The figures were taken once with Python's
// own modules (xml.etree, base64, zlib, struct) from the files, not with this library;
// packaging/real-files.sha256 says which files they are of.
#include "PackingFixture.h"

#include <MsDataFileUtils.h>
#include <RunSummaries.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <ostream>

namespace orx::vonk {

namespace {

using namespace Qt::StringLiterals;

QString downloaded(const char* name) {
    return QStringLiteral(ORX_REAL_FILES_DIR "/") + QString::fromLatin1(name);
}

QString example(const char* name) {
    return downloaded("r-cran-maldiquantforeign/exampledata/") + QString::fromLatin1(name);
}

// ---- what they hold

RunSummary summaryOf(const QString& path) {
    const auto summary = summarise(path);
    EXPECT_FALSE(summary.hasError()) << qPrintable(path) << ": " << qPrintable(summary.errorMessage());
    return summary.valueOr(RunSummary());
}

void expectRange(const std::optional<ValueRange>& range, double lowest, double highest) {
    ASSERT_TRUE(range.has_value());
    EXPECT_DOUBLE_EQ(range->lowest, lowest);
    EXPECT_DOUBLE_EQ(range->highest, highest);
}

// Its arrays were picked later: what the spectra state, which is what the instrument saw, has other sums.
// "grep -c" finds 767 spectra in it too, 286 with the level 1 and 481 with the level 2.
TEST(DownloadedAcquisition, ofSevenHundredSpectraWithoutCompression) {
    const QString path = downloaded("openms-doc/BSA1_F1.mzML");
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    EXPECT_EQ(check, (MsDataCheck{.kind = MsDataKind::MzMl, .reason = {}, .companions = {}}));

    const RunSummary summary = summaryOf(path);
    EXPECT_EQ(summary.kind, MsDataKind::MzMl);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 286}, {2, 481}}));
    expectRange(summary.mz, 85.8143310546875, 2008.46259748196);
    expectRange(summary.retentionTime, 1501.41394042969, 1999.83911132812);
    EXPECT_EQ(summary.instrument, u"LTQ Orbitrap XL"_s);
    EXPECT_EQ(summary.startTime, u"2009-08-09T22:32:31"_s);
    EXPECT_TRUE(summary.notes.isEmpty()) << qPrintable(summary.notes.join(u' '));
    EXPECT_EQ(summary.trace.msLevel, 1);
    EXPECT_EQ(summary.trace.spectraPerPoint, 1);
    const auto& points = summary.trace.points;
    ASSERT_EQ(points.size(), 286);
    EXPECT_EQ(points.front(), (IonCurrentTrace::Point{1501.41394042969, 6937649.0, 928844.25}));
    EXPECT_EQ(points.back(), (IonCurrentTrace::Point{1998.99108886719, 11134661.0, 1216447.5}));
    const auto highest = std::max_element(points.begin(), points.end(), [](const auto& a, const auto& b) {
        return a.totalIonCurrent < b.totalIonCurrent;
    });
    EXPECT_EQ(*highest, (IonCurrentTrace::Point{1941.74328613281, 30558952.0, 11916098.0}));
    double totals = 0;
    double basePeaks = 0;
    for (const auto& point : points) {
        totals += point.totalIonCurrent;
        basePeaks += point.basePeak;
    }
    EXPECT_DOUBLE_EQ(totals, 2513576974.5);
    EXPECT_NEAR(basePeaks, 352788172.3125, 1e-3);
}

struct Example {
    const char* name;
    MsDataKind kind;
    const char* companion; //!< null: none
    qint64 spectra;
    double highestMz;
    const char* instrument;
};

void PrintTo(const Example& each, std::ostream* out) {
    *out << each.name;
}

class ExampleAcquisition : public ::testing::TestWithParam<Example> {};

// All spectra are of level 1, begin at m/z 1 and state no time.
TEST_P(ExampleAcquisition, IsRecognisedAndSummedUp) {
    const QString path = example(GetParam().name);
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    EXPECT_TRUE(MsDataFileUtils::isValidMsData(path));
    EXPECT_EQ(check.kind, GetParam().kind);
    EXPECT_EQ(check.reason, QString());
    EXPECT_EQ(check.companions,
              GetParam().companion ? QStringList{example(GetParam().companion)} : QStringList());

    const RunSummary summary = summaryOf(path);
    EXPECT_EQ(summary.kind, GetParam().kind);
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, GetParam().spectra}}));
    expectRange(summary.mz, 1, GetParam().highestMz);
    EXPECT_FALSE(summary.retentionTime.has_value());
    EXPECT_TRUE(summary.trace.points.isEmpty());
    EXPECT_EQ(summary.instrument, QString::fromLatin1(GetParam().instrument));
    EXPECT_EQ(summary.startTime, QString());
    EXPECT_EQ(summary.notes, QStringList{u"Spectra without a time, which are not in the trace: %1."_s.arg(
                                 GetParam().spectra)});
}

// The second spectrum of the processed image has an m/z axis of its own, from 6 to 10.
INSTANTIATE_TEST_SUITE_P(
    OfEveryFormat, ExampleAcquisition,
    ::testing::Values(
        Example{"tiny1.mzML1.1.mzML", MsDataKind::MzMl, nullptr, 2, 5, ""},
        Example{"tiny1-centroided.mzML1.1.mzML", MsDataKind::MzMl, nullptr, 2, 5, ""},
        Example{"tiny1-compressed.mzML1.1.mzML", MsDataKind::MzMl, nullptr, 2, 5, ""},
        Example{"tiny1.mzXML3.0.mzXML", MsDataKind::MzXml, nullptr, 1, 5, "FooBar Model1"},
        Example{"tiny1-centroided.mzXML3.0.mzXML", MsDataKind::MzXml, nullptr, 1, 5, "FooBar Model1"},
        Example{"tiny1-compressed.mzXML3.0.mzXML", MsDataKind::MzXml, nullptr, 1, 5, "FooBar Model1"},
        Example{"tiny_continuous.imzML", MsDataKind::ImzMl, "tiny_continuous.ibd", 2, 5, ""},
        Example{"tiny_processed.imzML", MsDataKind::ImzMl, "tiny_processed.ibd", 2, 10, ""}));

TEST(DownloadedAcquisition, ofADirectoryIsRecognisedWhereItIsAndNotAbove) {
    const QString path = example("brukerflex/0_A1/1/1SLin");
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    EXPECT_EQ(check, (MsDataCheck{.kind = MsDataKind::FidDirectory, .reason = {}, .companions = {}}));
    const auto summary = summarise(path);
    ASSERT_TRUE(summary.hasError());
    EXPECT_FALSE(summary.errorMessage().isEmpty());
    for (const char* const above : {"brukerflex/0_A1/1", "brukerflex/0_A1", "brukerflex", ""})
        EXPECT_FALSE(MsDataFileUtils::isValidMsData(example(above))) << above;
}

TEST(DownloadedAcquisition, ofOtherThingsIsNone) {
    for (const char* const name : {"ascii.txt", "csv1.csv", "tiny.cdf", "tiny1.msd", "ciphergen/tiny.xml",
                                   "compressed/csv.zip", "tiny_continuous.ibd"})
        EXPECT_FALSE(MsDataFileUtils::isValidMsData(example(name))) << name;
}

// ---- there and back

struct Source {
    const char* directory;
    const char* name;
};

void PrintTo(const Source& each, std::ostream* out) {
    *out << each.name;
}

constexpr const char* kOpenMs = ORX_REAL_FILES_DIR "/openms-doc";
constexpr const char* kExamples = ORX_REAL_FILES_DIR "/r-cran-maldiquantforeign/exampledata";
constexpr const char* kKept = ORX_TEST_DATA_DIR;

class RealAcquisitionPacked : public PackingFixture, public ::testing::WithParamInterface<Source> {
protected:
    //! Names, contents and times of files; below the directory when it is one, else of the file.
    static std::map<std::string, std::string> contentOf(const QString& path) {
        const QFileInfo info(path);
        if (info.isDir())
            return tree(path, Times::All);
        return {{info.fileName().toStdString(),
                 QString::number(info.lastModified().toMSecsSinceEpoch()).toStdString() + ' ' +
                     QCryptographicHash::hash(read(path), QCryptographicHash::Sha256).toHex().toStdString()}};
    }
};

TEST_P(RealAcquisitionPacked, ComesBackIdentical) {
    const QString name = QString::fromLatin1(GetParam().name);
    const QString source = QString::fromUtf8(GetParam().directory) + u'/' + name;
    const MsDataCheck check = MsDataFileUtils::checkMsData(source);
    ASSERT_TRUE(check.isValid()) << qPrintable(check.reason);

    const QString packed = in(u"run.vonk"_s);
    const auto written = VonkPacker::pack(PackInput::fromMs(source), packed);
    ASSERT_FALSE(written.hasError()) << qPrintable(written.errorMessage());
    Vonk vonk(packed);
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_EQ(vonk.metadata(), *written);
    EXPECT_EQ(vonk.metadata().name, QFileInfo(source).fileName());
    EXPECT_EQ(vonk.metadata().sourceKind, msDataKindId(check.kind));
    const auto summary = summarise(source);
    EXPECT_EQ(vonk.metadata().runSummary.has_value(), !summary.hasError());
    if (summary.hasError())
        EXPECT_FALSE(vonk.metadata().runSummaryAbsent.isEmpty());
    else
        EXPECT_EQ(*vonk.metadata().runSummary, summary->toJson());

    const Error quick = vonk.validate(Vonk::Check::Quick);
    EXPECT_FALSE(quick.hasError()) << qPrintable(quick.errorMessage());
    const Error full = vonk.validate(Vonk::Check::Full);
    EXPECT_FALSE(full.hasError()) << qPrintable(full.errorMessage());

    const Error unpacked = vonk.unpack(out(u"run"_s));
    ASSERT_FALSE(unpacked.hasError()) << qPrintable(unpacked.errorMessage());
    QStringList expected{QFileInfo(source).fileName()};
    for (const QString& path : QStringList{source} + check.companions) {
        const QString back = out(u"run/content/"_s + QFileInfo(path).fileName());
        EXPECT_EQ(contentOf(back), contentOf(path)) << qPrintable(path);
        expected.append(path == source ? QStringList() : QStringList{QFileInfo(path).fileName()});
    }
    expected.sort();
    EXPECT_EQ(names(out(u"run/content"_s)), expected);
}

INSTANTIATE_TEST_SUITE_P(
    OfEveryOrigin, RealAcquisitionPacked,
    ::testing::Values(
        Source{kOpenMs, "BSA1_F1.mzML"}, Source{kExamples, "tiny1.mzML1.1.mzML"},
        Source{kExamples, "tiny1-centroided.mzML1.1.mzML"},
        Source{kExamples, "tiny1-compressed.mzML1.1.mzML"}, Source{kExamples, "tiny1.mzXML3.0.mzXML"},
        Source{kExamples, "tiny1-centroided.mzXML3.0.mzXML"},
        Source{kExamples, "tiny1-compressed.mzXML3.0.mzXML"}, Source{kExamples, "tiny_continuous.imzML"},
        Source{kExamples, "tiny_processed.imzML"}, Source{kExamples, "brukerflex/0_A1/1/1SLin"},
        Source{kKept, "tiny.mzML"}, Source{kKept, "wrong-count.mzML"}, Source{kKept, "no-index.mzML"},
        Source{kKept, "chromatograms.mzML"}, Source{kKept, "one-chromatogram.mzML.gz"},
        Source{kKept, "two-scans.mzXML"}, Source{kKept, "small.mgf"}, Source{kKept, "sqlite-frames.d"}));

// The documents of images state the SHA-1 of their companion: what comes back still has it.
TEST_F(PackingFixture, TheCompanionOfAnImageComesBackWithTheSumThatItsDocumentStates) {
    for (const QString& name : {u"tiny_continuous"_s, u"tiny_processed"_s}) {
        const QString packed = in(name + u".vonk"_s);
        const auto written = VonkPacker::pack(PackInput::fromMs(example("") + name + u".imzML"_s), packed);
        ASSERT_FALSE(written.hasError()) << qPrintable(written.errorMessage());
        Vonk vonk(packed);
        ASSERT_FALSE(vonk.open().hasError());
        ASSERT_FALSE(vonk.unpack(out(name)).hasError());
        const QString back = out(name) + u"/content/"_s + name;
        static const QRegularExpression stated(u"name=\"ibd SHA-1\" value=\"([0-9a-f]{40})\""_s);
        const auto sum = stated.match(QString::fromLatin1(read(back + u".imzML"_s)));
        ASSERT_TRUE(sum.hasMatch());
        const QByteArray companion = read(back + u".ibd"_s);
        EXPECT_EQ(QCryptographicHash::hash(companion, QCryptographicHash::Sha1).toHex(),
                  sum.captured(1).toLatin1());
    }
}

} // namespace

} // namespace orx::vonk
