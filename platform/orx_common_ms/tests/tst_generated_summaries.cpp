// Small sources made by the tests, each with something in it that sources have.
#include "MsDataMaker.h"

#include <ByteStream.h>
#include <RunSummaries.h>
#include <SummaryReaders.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <bit>
#include <limits>

#include <zlib.h>

using namespace orx;
using orx::test::MsDataMaker;

namespace {

template <typename Number>
QByteArray bytesOf(std::initializer_list<Number> values, bool isBigEndian = false) {
    QByteArray bytes;
    for (Number value : values) {
        char raw[sizeof(Number)];
        std::copy_n(reinterpret_cast<const char*>(&value), sizeof(Number), raw);
        if (isBigEndian)
            std::reverse(std::begin(raw), std::end(raw));
        bytes.append(raw, sizeof(Number));
    }
    return bytes;
}

QByteArray deflated(const QByteArray& bytes) {
    // qCompress() puts four bytes with the size before the zlib stream.
    return qCompress(bytes).mid(4);
}

QByteArray cv(int term, const QByteArray& value = {}, const QByteArray& more = {}) {
    return "<cvParam cvRef=\"MS\" accession=\"MS:" + QByteArray::number(term) + "\" name=\"n\" value=\"" +
           value + "\" " + more + "/>";
}

const QByteArray kSeconds = "unitAccession=\"UO:0000010\"";
const QByteArray kMinutes = "unitAccession=\"UO:0000031\"";

QByteArray array(const QByteArray& parameters, const QByteArray& text) {
    return "<binaryDataArray>" + parameters + "<binary>" + text + "</binary></binaryDataArray>";
}

QByteArray spectrum(const QByteArray& parameters, const QByteArray& scans, const QByteArray& arrays = {}) {
    return "<spectrum>" + parameters + "<scanList><scan>" + scans +
           "</scan></scanList><binaryDataArrayList>" + arrays + "</binaryDataArrayList></spectrum>";
}

QByteArray document(const QByteArray& spectra, const QByteArray& before = {}) {
    return "<mzML>" + before + "<run startTimeStamp=\"2024-01-01T00:00:00Z\"><spectrumList>" + spectra +
           "</spectrumList></run></mzML>";
}

const QByteArray kFloat32 = cv(1000521);
const QByteArray kFloat64 = cv(1000523);
const QByteArray kPlain = cv(1000576);
const QByteArray kZlib = cv(1000574);
const QByteArray kMz = cv(1000514);
const QByteArray kIntensity = cv(1000515);

Result<RunSummary> read(const QByteArray& content) {
    MemoryStream stream(content);
    return summariseMzMl(stream, nullptr, {});
}

RunSummary readWhole(const QByteArray& content) {
    const auto summary = read(content);
    EXPECT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    return summary.valueOr(RunSummary());
}

RunSummary readMgf(const QByteArray& content) {
    MemoryStream stream(content);
    const auto summary = summariseMgf(stream, {});
    EXPECT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    return summary.valueOr(RunSummary());
}

RunSummary readMzXml(const QByteArray& scans) {
    const QByteArray content = "<mzXML><msRun>" + scans + "</msRun></mzXML>";
    MemoryStream stream(content);
    const auto summary = summariseMzXml(stream, {});
    EXPECT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    return summary.valueOr(RunSummary());
}

void expectOnlyPoint(const RunSummary& summary, const IonCurrentTrace::Point& expected) {
    ASSERT_EQ(summary.trace.points.size(), 1);
    EXPECT_DOUBLE_EQ(summary.trace.points[0].retentionTime, expected.retentionTime);
    EXPECT_DOUBLE_EQ(summary.trace.points[0].totalIonCurrent, expected.totalIonCurrent);
    EXPECT_DOUBLE_EQ(summary.trace.points[0].basePeak, expected.basePeak);
}

} // namespace

TEST(MzMlSummary, addsUpArraysOfEveryTypeWhereNoIonCurrentIsStated) {
    const QByteArray numbers32 = bytesOf<float>({1.5F, 2.5F, 4});
    const QByteArray numbers64 = bytesOf<double>({1.5, 2.5, 4});
    const QByteArray whole32 = bytesOf<qint32>({1, 3, 4});
    const QByteArray whole64 = bytesOf<qint64>({1, 3, 4});
    struct Row {
        const char* name;
        QByteArray type;
        QByteArray bytes;
    };
    for (const Row& row :
         {Row{"32-bit float", cv(1000521), numbers32}, Row{"64-bit float", cv(1000523), numbers64},
          Row{"32-bit integer", cv(1000519), whole32}, Row{"64-bit integer", cv(1000522), whole64}}) {
        for (const bool isPacked : {false, true}) {
            SCOPED_TRACE(row.name);
            const QByteArray text = (isPacked ? deflated(row.bytes) : row.bytes).toBase64();
            const QByteArray mz = bytesOf<double>({100.25, 300, 200}).toBase64();
            const RunSummary summary = readWhole(
                document(spectrum(cv(1000511, "1"), cv(1000016, "7", kSeconds),
                                  array(kFloat64 + kPlain + kMz, mz) +
                                      array(row.type + (isPacked ? kZlib : kPlain) + kIntensity, text))));
            expectOnlyPoint(summary, {7, 8, 4});
            EXPECT_EQ(summary.mz, (ValueRange{100.25, 300}));
            EXPECT_TRUE(summary.notes.isEmpty()) << qPrintable(summary.notes.join(QLatin1Char(' ')));
        }
    }
}

TEST(MzMlSummary, leavesArraysAloneWhereEverythingIsStated) {
    const RunSummary summary = readWhole(document(spectrum(
        cv(1000511, "1") + cv(1000285, "9e3") + cv(1000505, "5") + cv(1000528, "10") + cv(1000527, "20"),
        cv(1000016, "1", kSeconds),
        array(kFloat64 + kPlain + kMz, "no base64!") + array(kFloat64 + kPlain + kIntensity, "no base64!"))));
    expectOnlyPoint(summary, {1, 9000, 5});
    EXPECT_EQ(summary.mz, (ValueRange{10, 20}));
    EXPECT_TRUE(summary.notes.isEmpty());
}

TEST(MzMlSummary, keepsTheStatedTotalWhenOnlyTheBasePeakIsMissing) {
    const QByteArray text = bytesOf<float>({3, 2}).toBase64();
    const RunSummary summary =
        readWhole(document(spectrum(cv(1000511, "1") + cv(1000285, "100"), cv(1000016, "1", kSeconds),
                                    array(kFloat32 + kPlain + kIntensity, text))));
    expectOnlyPoint(summary, {1, 100, 3});
}

TEST(MzMlSummary, turnsEveryUnitOfTimeIntoSeconds) {
    struct Row {
        const char* name;
        QByteArray value;
        QByteArray unit;
        std::optional<double> seconds;
    };
    const Row rows[] = {
        {"seconds", "90", kSeconds, 90},
        {"minutes", "1.5", kMinutes, 90},
        {"hours", "0.5", "unitAccession=\"UO:0000032\"", 1800},
        {"milliseconds", "1500", "unitAccession=\"UO:0000028\"", 1.5},
        {"minutes of the older vocabulary", "2", "unitAccession=\"MS:1000038\"", 120},
        {"seconds of the older vocabulary", "2", "unitAccession=\"MS:1000039\"", 2},
        {"no unit", "2", "", std::nullopt},
        {"no unit of time", "2", "unitAccession=\"UO:0000266\"", std::nullopt},
        {"no number", "soon", kSeconds, std::nullopt},
        {"not finite", "inf", kSeconds, std::nullopt},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const RunSummary summary = readWhole(
            document(spectrum(cv(1000285, "1") + cv(1000505, "1"), cv(1000016, row.value, row.unit))));
        ASSERT_EQ(summary.retentionTime.has_value(), row.seconds.has_value());
        EXPECT_EQ(summary.notes.isEmpty(), row.seconds.has_value());
        if (row.seconds) {
            EXPECT_DOUBLE_EQ(summary.retentionTime->lowest, *row.seconds);
        }
    }
}

TEST(MzMlSummary, findsLevelsIonCurrentAndTypesInGroups) {
    const QByteArray groups =
        "<referenceableParamGroupList><referenceableParamGroup id=\"s\">" + cv(1000511, "2") +
        cv(1000285, "70") + "</referenceableParamGroup><referenceableParamGroup id=\"a\">" + kFloat32 +
        kPlain + kIntensity + "</referenceableParamGroup></referenceableParamGroupList>";
    const QByteArray text = bytesOf<float>({30, 40}).toBase64();
    const RunSummary summary =
        readWhole(document(spectrum("<referenceableParamGroupRef ref=\"s\"/>", cv(1000016, "1", kSeconds),
                                    array("<referenceableParamGroupRef ref=\"a\"/>", text)),
                           groups));
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{2, 1}}));
    expectOnlyPoint(summary, {1, 70, 40});
    EXPECT_EQ(summary.trace.msLevel, 0);
}

TEST(MzMlSummary, countsSpectraWithoutLevelAsLevelZero) {
    const RunSummary summary = readWhole(
        document(spectrum(cv(1000285, "1"), {}) + spectrum(cv(1000511, "-4"), {}) +
                 spectrum(cv(1000511, "many"), {}) + spectrum(cv(1000511, "99999999999999999999"), {}) +
                 spectrum(cv(1000579), {}) + spectrum(cv(1000511, "3") + cv(1000579), {})));
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{0, 4}, {1, 1}, {3, 1}}));
}

TEST(MzMlSummary, isTheSameInEveryEncoding) {
    const QByteArray content = document(
        spectrum(cv(1000511, "1") + cv(1000285, "5") + cv(1000505, "4"), cv(1000016, "2", kMinutes)));
    const RunSummary expected = readWhole(content);
    expectOnlyPoint(expected, {120, 5, 4});
    EXPECT_EQ(readWhole("\xef\xbb\xbf" + content), expected);
    EXPECT_EQ(readWhole(MsDataMaker::utf16(content, true)), expected);
    EXPECT_EQ(readWhole(MsDataMaker::utf16(content, false)), expected);
    EXPECT_EQ(readWhole("<?xml version=\"1.0\" encoding=\"windows-1252\"?>" + content), expected);
    const MsDataMaker maker;
    const auto unpacked = summarise(
        maker.file(QStringLiteral("a.mzML.gz"), MsDataMaker::gzipped(content) + MsDataMaker::gzipped("\n")));
    ASSERT_FALSE(unpacked.hasError()) << qPrintable(unpacked.errorMessage());
    EXPECT_EQ(*unpacked, expected);
}

TEST(MzMlSummary, saysWhichArraysItCouldNotRead) {
    const QByteArray good = bytesOf<double>({1, 2});
    struct Row {
        const char* name;
        QByteArray parameters;
        QByteArray text;
        const char* reason;
    };
    const Row rows[] = {
        {"characters that are no base64", kFloat64 + kPlain, "####", "base64"},
        {"text after its end", kFloat64 + kPlain, "AAAA=AAA", "base64"},
        {"half a number", kFloat64 + kPlain, good.left(11).toBase64(), "within a number"},
        {"one digit too many", kFloat64 + kPlain, "AAAAA", "base64"},
        {"no zlib data", kFloat64 + kZlib, good.toBase64(), "compressed data is damaged"},
        {"zlib data that ends early", kFloat64 + kZlib, deflated(good).chopped(4).toBase64(),
         "ends too early"},
        {"another compression", kFloat64 + cv(1002312), good.toBase64(), "compressed in a way"},
        {"no type", kPlain, good.toBase64(), "of a type that is not known"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const RunSummary summary = readWhole(document(spectrum(
            cv(1000511, "1"), cv(1000016, "1", kSeconds), array(row.parameters + kIntensity, row.text))));
        EXPECT_EQ(summary.spectrumCount(), 1);
        EXPECT_TRUE(summary.trace.points.isEmpty());
        ASSERT_EQ(summary.notes.size(), 1);
        EXPECT_TRUE(summary.notes[0].contains(QString::fromLatin1(row.reason)))
            << qPrintable(summary.notes[0]);
    }
}

TEST(MzMlSummary, passesOverValuesThatAreNotFinite) {
    const double infinite = std::numeric_limits<double>::infinity();
    const double none = std::numeric_limits<double>::quiet_NaN();
    const QByteArray text = bytesOf<double>({1, infinite, 2, none, -infinite}).toBase64();
    const RunSummary summary = readWhole(document(
        spectrum(cv(1000511, "1") + cv(1000285, "NaN"), cv(1000016, "1", kSeconds),
                 array(kFloat64 + kPlain + kMz, text) + array(kFloat64 + kPlain + kIntensity, text))));
    expectOnlyPoint(summary, {1, 3, 2});
    EXPECT_EQ(summary.mz, (ValueRange{1, 2}));
}

TEST(MzMlSummary, takesSpectraWithoutPeaksAsNoIonCurrent) {
    for (const QByteArray& compression : {kPlain, kZlib}) {
        const RunSummary summary = readWhole(document(spectrum(
            cv(1000511, "1"), cv(1000016, "1", kSeconds), array(kFloat64 + compression + kIntensity, ""))));
        expectOnlyPoint(summary, {1, 0, 0});
        EXPECT_FALSE(summary.mz.has_value());
        EXPECT_TRUE(summary.notes.isEmpty());
    }
}

TEST(MzMlSummary, usesScanWindowsWhereNoObservedRangeIsKnown) {
    const QByteArray windows = "<scanWindowList><scanWindow>" + cv(1000501, "100") + cv(1000500, "200") +
                               "</scanWindow><scanWindow>" + cv(1000501, "50") + cv(1000500, "60") +
                               "</scanWindow></scanWindowList>";
    const QByteArray stated = cv(1000511, "1") + cv(1000285, "9") + cv(1000505, "5");
    const RunSummary summary = readWhole(document(spectrum(stated, cv(1000016, "1", kSeconds) + windows)));
    EXPECT_EQ(summary.mz, (ValueRange{50, 200}));
    EXPECT_EQ(summary.notes, (QStringList{QStringLiteral("The m/z range is that of the scan windows.")}));

    const QByteArray mz = bytesOf<double>({70, 80}).toBase64();
    const RunSummary decoded =
        readWhole(document(spectrum(stated, cv(1000016, "1", kSeconds), array(kFloat64 + kPlain + kMz, mz))));
    EXPECT_EQ(decoded.mz, (ValueRange{70, 80}));
}

TEST(MzMlSummary, namesTheInstrumentOfTheRun) {
    const auto configuration = [](const QByteArray& id, const QByteArray& content) {
        return "<instrumentConfiguration id=\"" + id + "\">" + content +
               "<componentList><source><cvParam accession=\"MS:1000073\" name=\"a "
               "source\"/></source></componentList>"
               "</instrumentConfiguration>";
    };
    const QByteArray serial =
        "<cvParam accession=\"MS:1000529\" name=\"instrument serial number\" value=\"7\"/>";
    const QByteArray model = "<cvParam accession=\"MS:1009999\" name=\"A model &amp; more\" value=\"\"/>";
    const QByteArray named = "<cvParam accession=\"MS:1000031\" name=\"instrument model\" value=\"Named\"/>";
    const QByteArray group =
        "<referenceableParamGroup id=\"g\">" + serial + model + "</referenceableParamGroup>";
    const auto instrument = [&](const QByteArray& before, const QByteArray& wanted) {
        return readWhole("<mzML>" + before + "<run defaultInstrumentConfigurationRef=\"" + wanted +
                         "\"/></mzML>")
            .instrument;
    };
    const QString expected = QStringLiteral("A model & more");
    EXPECT_EQ(instrument(configuration("a", serial + model), "a"), expected);
    EXPECT_EQ(instrument(group + configuration("a", "<referenceableParamGroupRef ref=\"g\"/>"), "a"),
              expected);
    EXPECT_EQ(instrument(configuration("a", named) + configuration("b", model), "b"), expected);
    EXPECT_EQ(instrument(configuration("a", named) + configuration("b", model), "missing"),
              QStringLiteral("Named"));
    EXPECT_EQ(instrument(configuration("a", serial), "a"), QString());
    EXPECT_EQ(instrument({}, "a"), QString());
}

TEST(MzMlSummary, ignoresChromatogramsAndUserParameters) {
    const QByteArray text = bytesOf<double>({1, 2}).toBase64();
    const QByteArray user = "<userParam name=\"total ion current\" value=\"77\"/>";
    const QByteArray chromatograms = "<chromatogramList><chromatogram>" +
                                     array(kFloat64 + kPlain + kIntensity, bytesOf<double>({9}).toBase64()) +
                                     "</chromatogram></chromatogramList>";
    QByteArray content = document(spectrum(cv(1000511, "1") + user, cv(1000016, "1", kSeconds),
                                           array(kFloat64 + kPlain + kIntensity, text)));
    content.replace("</run>", chromatograms + "</run>");
    expectOnlyPoint(readWhole(content), {1, 3, 2});
}

TEST(MzMlSummary, countsWhatIsThereAndSaysWhatWasDeclared) {
    QByteArray content = document(spectrum(cv(1000511, "1"), {}));
    content.replace("<spectrumList>", "<spectrumList count=\"1\">");
    EXPECT_FALSE(readWhole(content).notes.join(QString()).contains(QStringLiteral("declares")));
    for (const char* count : {"0", "2", "-1", "9223372036854775807"}) {
        QByteArray lying = content;
        lying.replace("count=\"1\"", QByteArray("count=\"") + count + "\"");
        const RunSummary summary = readWhole(lying);
        EXPECT_EQ(summary.spectrumCount(), 1);
        EXPECT_TRUE(summary.notes.join(QString()).contains(
            QStringLiteral("declares %1 spectra; 1 are there").arg(QString::fromLatin1(count))));
    }
}

TEST(MzMlSummary, isAbsentWithTheReasonWhenTheDocumentIsDamaged) {
    const QByteArray content = document(spectrum(cv(1000511, "1"), {}));
    const auto cut = read(content.left(content.size() - 10));
    ASSERT_TRUE(cut.hasError());
    EXPECT_TRUE(cut.error().is(ErrorCode::ParseError));
    EXPECT_TRUE(cut.errorMessage().contains(QStringLiteral("damaged in line 1")))
        << qPrintable(cut.errorMessage());

    const auto entities =
        read("<!DOCTYPE mzML [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;&a;\">]><mzML>&b;</mzML>");
    ASSERT_TRUE(entities.hasError());
    EXPECT_TRUE(entities.errorMessage().contains(QStringLiteral("entities")));
}

TEST(MzMlSummary, boundsTheMemoryThatADocumentCanAskFor) {
    const QByteArray much(8 * 1024 * 1024, 'a');
    QByteArray deep;
    for (int i = 0; i < 500'000; ++i)
        deep += "<aaaaaaaa>";
    QByteArray group;
    for (int i = 0; i < 5000; ++i)
        group += "<cvParam accession=\"MS:1\" name=\"" + QByteArray(100, 'n') + "\"/>";
    const QByteArray hostile[] = {
        "<mzML a=\"" + much + "\"/>",
        "<mzML><!--" + much + "--></mzML>",
        "<" + much + "/>",
        "<mzML>" + deep,
        "<mzML><referenceableParamGroup id=\"g\">" + group + "</referenceableParamGroup></mzML>",
    };
    for (const QByteArray& content : hostile) {
        const auto summary = read(content);
        ASSERT_TRUE(summary.hasError()) << content.left(40).toStdString();
        EXPECT_TRUE(summary.errorMessage().contains(QStringLiteral("too large")))
            << qPrintable(summary.errorMessage());
    }
}

TEST(ImzMlSummary, readsTheArraysOfItsCompanion) {
    const MsDataMaker maker;
    const QByteArray mz = bytesOf<double>({100, 200, 300});
    const QByteArray first = bytesOf<float>({1, 2, 3});
    const QByteArray second = deflated(bytesOf<float>({10, 20, 30}));
    maker.file(QStringLiteral("a.ibd"), QByteArray(16, 'u') + mz + first + second);
    const auto external = [](int offset, qsizetype length) {
        const auto ims = [](int term, qint64 value) {
            return "<cvParam accession=\"IMS:" + QByteArray::number(term) + "\" value=\"" +
                   QByteArray::number(value) + "\"/>";
        };
        return ims(1000102, offset) + ims(1000104, length);
    };
    const auto pixel = [&](const QByteArray& intensities) {
        return spectrum(cv(1000511, "1"), cv(1000016, "1", kSeconds),
                        array(kFloat64 + kPlain + kMz + external(16, mz.size()), "") +
                            array(intensities, ""));
    };
    QByteArray content = document(pixel(kFloat32 + kPlain + kIntensity + external(40, first.size())) +
                                  pixel(kFloat32 + kZlib + kIntensity + external(52, second.size())) +
                                  pixel(kFloat32 + kPlain + kIntensity + external(52, 1000)) +
                                  pixel(kFloat32 + kPlain + kIntensity + external(-1, 4)));
    content.replace("<run ",
                    "<fileDescription><fileContent><cvParam accession=\"IMS:1000030\"/></fileContent>"
                    "</fileDescription><run ");
    const auto summary = summarise(maker.file(QStringLiteral("a.imzML"), content));
    ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    EXPECT_EQ(summary->kind, MsDataKind::ImzMl);
    EXPECT_EQ(summary->spectrumCount(), 4);
    EXPECT_EQ(summary->mz, (ValueRange{100, 300}));
    ASSERT_EQ(summary->trace.points.size(), 2);
    EXPECT_EQ(summary->trace.points[0].totalIonCurrent, 6);
    EXPECT_EQ(summary->trace.points[1].totalIonCurrent, 60);
    EXPECT_EQ(summary->trace.points[1].basePeak, 30);
    ASSERT_EQ(summary->notes.size(), 1);
    EXPECT_TRUE(summary->notes[0].contains(
        QStringLiteral("Arrays that could not be read: 2; the first: it lies beyond")));
}

TEST(ImzMlSummary, doesNotReadTheSameBytesForEver) {
    const MsDataMaker maker;
    maker.file(QStringLiteral("a.ibd"), QByteArray(1024 * 1024, '\0'));
    QByteArray spectra;
    // Each array differs from the two before, so that no figure is used twice.
    for (int i = 0; i < 200; ++i)
        spectra += spectrum(
            cv(1000511, "1"), cv(1000016, "1", kSeconds),
            array(kFloat32 + kPlain + kIntensity + "<cvParam accession=\"IMS:1000102\" value=\"" +
                      QByteArray::number(4 * i) + "\"/><cvParam accession=\"IMS:1000103\" value=\"260000\"/>",
                  ""));
    QByteArray content = document(spectra);
    content.replace("<run ",
                    "<fileDescription><fileContent><cvParam accession=\"IMS:1000031\"/></fileContent>"
                    "</fileDescription><run ");
    const auto summary = summarise(maker.file(QStringLiteral("a.imzML"), content));
    ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    EXPECT_EQ(summary->spectrumCount(), 200);
    EXPECT_TRUE(summary->notes.join(QString()).contains(QStringLiteral("too many spectra share")));
}

TEST(MzXmlSummary, readsDurations) {
    struct Row {
        const char* text;
        std::optional<double> seconds;
    };
    const Row rows[] = {
        {"PT353.43S", 353.43},
        {"PT1H2M3.5S", 3723.5},
        {"P1DT1S", 86401},
        {"PT2M", 120},
        {"12.5", 12.5},
        {"PT1e2S", 100},
        {"P0Y0M0DT0H5M53.43S", 353.43},
        {"P1YT1S", {}},
        {"PT5", {}},
        {"PTxS", {}},
        {"soon", {}},
        {"", {}},
        {"PT1e999S", {}},
    };
    for (const Row& row : rows) {
        const RunSummary summary = readMzXml(
            QByteArray("<scan msLevel=\"1\" totIonCurrent=\"1\" basePeakIntensity=\"1\" retentionTime=\"") +
            row.text + "\"/>");
        ASSERT_EQ(summary.retentionTime.has_value(), row.seconds.has_value()) << row.text;
        if (row.seconds) {
            EXPECT_DOUBLE_EQ(summary.retentionTime->lowest, *row.seconds) << row.text;
        }
    }
}

TEST(MzXmlSummary, addsUpPeaksOfEveryFormWhereNoIonCurrentIsStated) {
    const QByteArray pairs32 = bytesOf<float>({100, 1, 300, 5, 200, 2}, true);
    const QByteArray pairs64 = bytesOf<double>({100, 1, 300, 5, 200, 2}, true);
    const QByteArray rows[] = {
        "<peaks>" + pairs32.toBase64() + "</peaks>",
        "<peaks precision=\"32\" pairOrder=\"m/z-int\">" + pairs32.toBase64() + "</peaks>",
        "<peaks precision=\"64\" contentType=\"m/z-int\" compressionType=\"none\">" + pairs64.toBase64() +
            "</peaks>",
        "<peaks precision=\"64\" compressionType=\"zlib\">" + deflated(pairs64).toBase64() + "</peaks>",
        "<peaks contentType=\"m/z\">" + bytesOf<float>({100, 300, 200}, true).toBase64() +
            "</peaks><peaks contentType=\"intensity\">" + bytesOf<float>({1, 5, 2}, true).toBase64() +
            "</peaks>",
    };
    for (const QByteArray& peaks : rows) {
        SCOPED_TRACE(peaks.left(60).toStdString());
        const RunSummary summary =
            readMzXml("<scan msLevel=\"1\" retentionTime=\"PT2S\">" + peaks + "</scan>");
        expectOnlyPoint(summary, {2, 8, 5});
        EXPECT_EQ(summary.mz, (ValueRange{100, 300}));
        EXPECT_TRUE(summary.notes.isEmpty());
    }
}

TEST(MzXmlSummary, countsScansInsideScansAndOneAfterAnother) {
    const RunSummary summary = readMzXml(
        "<scan msLevel=\"1\" retentionTime=\"PT1S\" totIonCurrent=\"10\" basePeakIntensity=\"1\">"
        "<scan msLevel=\"2\" retentionTime=\"PT2S\" totIonCurrent=\"99\" basePeakIntensity=\"1\">"
        "<scan msLevel=\"3\" retentionTime=\"PT3S\" totIonCurrent=\"99\" basePeakIntensity=\"1\"/></scan>"
        "<scan msLevel=\"2\" retentionTime=\"PT4S\" totIonCurrent=\"99\" basePeakIntensity=\"1\"/></scan>"
        "<scan msLevel=\"1\" retentionTime=\"PT5S\" totIonCurrent=\"20\" basePeakIntensity=\"2\"/>");
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 2}, {2, 2}, {3, 1}}));
    ASSERT_EQ(summary.trace.points.size(), 2);
    EXPECT_EQ(summary.trace.points[0].totalIonCurrent, 10);
    EXPECT_EQ(summary.trace.points[1].retentionTime, 5);
}

TEST(MgfSummary, readsListsWithEverythingThatTheyMayHold) {
    const RunSummary summary =
        readMgf("\xef\xbb\xbf# comment\r\nINSTRUMENT=A trap\r\nCOM=x\r\n\r\nBEGIN IONS\r\nTITLE=1 2 "
                "3\r\nRTINSECONDS=12.5-14\r\n"
                "PEPMASS=500.5 1000\r\n100.5 10 1+\r\n; comment\r\n 200.5\t30\r\n50.25\r\nEND IONS\r\n"
                "BEGIN IONS\nMSLEVEL=1\nRTINSECONDS=3,4\n5 7\nEND IONS\nBEGIN IONS\nEND IONS");
    EXPECT_EQ(summary.spectraByLevel, (QMap<int, qint64>{{1, 1}, {2, 2}}));
    EXPECT_EQ(summary.mz, (ValueRange{5, 200.5}));
    EXPECT_EQ(summary.retentionTime, (ValueRange{3, 12.5}));
    EXPECT_EQ(summary.instrument, QStringLiteral("A trap"));
    expectOnlyPoint(summary, {3, 7, 7});
    EXPECT_EQ(summary.notes,
              (QStringList{QStringLiteral("Spectra without a time, which are not in the trace: 1.")}));
}

TEST(MgfSummary, hasNoByteOrderMarksInItsTextsSoThatJsonGivesItBack) {
    const RunSummary summary = readMgf("INSTRUMENT=\xef\xbb\xbf\xef\xbb\xbf"
                                       "A trap\nBEGIN IONS\nPEPMASS=1\n1 2\nEND IONS\n");
    EXPECT_EQ(summary.instrument, QStringLiteral("A trap"));
    const QByteArray text = QJsonDocument(summary.toJson()).toJson();
    EXPECT_EQ(*RunSummary::fromJson(QJsonDocument::fromJson(text).object()), summary);
}

TEST(MgfSummary, isAbsentWithTheReasonWhenItIsDamaged) {
    const std::pair<QByteArray, const char*> rows[] = {
        {"BEGIN IONS\n1 2\n", "ends within a peak list"},
        {"BEGIN IONS\n1 2\nBEGIN IONS\n", "In line 3 a peak list begins within another"},
        {"BEGIN IONS\n1 two\nEND IONS\n", "Line 2 is not a peak"},
        {"BEGIN IONS\n1.2.3 2\nEND IONS\n", "Line 2 is not a peak"},
        {"BEGIN IONS\nTITLE=" + QByteArray(100'000, 'x') + "\nEND IONS\n", "a line of more than"},
    };
    for (const auto& [content, reason] : rows) {
        MemoryStream stream(content);
        const auto summary = summariseMgf(stream, {});
        ASSERT_TRUE(summary.hasError()) << reason;
        EXPECT_TRUE(summary.errorMessage().contains(QString::fromLatin1(reason)))
            << qPrintable(summary.errorMessage());
    }
}

TEST(FrameSummary, readsTheCatalogueAndLeavesItAlone) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a #1?.d"));
    const QStringList before = QDir(made).entryList(QDir::AllEntries | QDir::Hidden);
    const auto summary = summarise(made);
    ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    EXPECT_EQ(QDir(made).entryList(QDir::AllEntries | QDir::Hidden), before);
    EXPECT_EQ(summary->spectraByLevel, (QMap<int, qint64>{{1, 2}, {2, 1}}));
    EXPECT_EQ(summary->mz, (ValueRange{100.5, 1700.25}));
    EXPECT_EQ(summary->retentionTime, (ValueRange{1, 4}));
    EXPECT_EQ(summary->instrument, QStringLiteral("A frame maker"));
    EXPECT_EQ(summary->startTime, QStringLiteral("2024-02-29T12:00:00+01:00"));
    ASSERT_EQ(summary->trace.points.size(), 2);
    EXPECT_EQ(summary->trace.points[1], (IonCurrentTrace::Point{4, 300, 30}));
}

TEST(FrameSummary, takesWhatACatalogueLeavesOutAsNotStated) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a.d"));
    MsDataMaker::execute(made + QStringLiteral("/analysis.tdf"),
                         "DELETE FROM GlobalMetadata; INSERT INTO Frames (Id) VALUES (4);"
                         "INSERT INTO Frames VALUES (5, 'x', 'y', 'z', NULL)");
    const auto summary = summarise(made);
    ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    EXPECT_EQ(summary->spectrumCount(), 5);
    EXPECT_EQ(summary->spectraByLevel.value(0), 1);
    EXPECT_FALSE(summary->mz.has_value());
    EXPECT_TRUE(summary->instrument.isEmpty());
}

TEST(FrameSummary, isAbsentWhenThereAreNoFrames) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a.d"));
    MsDataMaker::execute(made + QStringLiteral("/analysis.tdf"), "DROP TABLE Frames");
    const auto summary = summarise(made);
    ASSERT_TRUE(summary.hasError());
    EXPECT_TRUE(summary.errorMessage().contains(QStringLiteral("no such table")))
        << qPrintable(summary.errorMessage());
}

TEST(FrameSummary, takesNoRowsThatAreWorkedOut) {
    const char* const views[] = {
        // Without end.
        "CREATE VIEW Frames AS WITH RECURSIVE n(Id) AS (SELECT 1 UNION ALL SELECT Id + 1 FROM n) SELECT Id, "
        "1.0 AS Time, 0 AS MsMsType, 1 AS SummedIntensities, 1 AS MaxIntensity FROM n",
        // Of a few rows, sorted.
        "CREATE VIEW frames AS SELECT 1 AS Id, Value AS Time, 0 AS MsMsType, 1 AS SummedIntensities, 1 AS "
        "MaxIntensity FROM GlobalMetadata ORDER BY Value",
        "CREATE VIRTUAL TABLE Frames USING fts5(Id, Time, MsMsType, SummedIntensities, MaxIntensity)"};
    for (const char* const view : views) {
        const MsDataMaker maker;
        const QString made = maker.catalogue(QStringLiteral("a.d"));
        MsDataMaker::execute(made + QStringLiteral("/analysis.tdf"), QByteArray("DROP TABLE Frames;") + view);
        const auto summary = summarise(made);
        ASSERT_TRUE(summary.hasError()) << view;
        EXPECT_TRUE(summary.errorMessage().contains(QStringLiteral("\"Frames\" is no table")))
            << qPrintable(summary.errorMessage());
    }
}

TEST(FrameSummary, takesNoColumnsThatAreWorkedOut) {
    const char* const columns[] = {
        "Time REAL AS (instr(hex(zeroblob(500000)), 'x'))",
        // None that it asks for.
        "Time REAL, Other AS (Time + 1) VIRTUAL",
    };
    for (const char* const column : columns) {
        const MsDataMaker maker;
        const QString made = maker.catalogue(QStringLiteral("a.d"));
        MsDataMaker::execute(
            made + QStringLiteral("/analysis.tdf"),
            QByteArray("DROP TABLE Frames; CREATE TABLE Frames (Id INTEGER PRIMARY KEY, ") + column +
                ", MsMsType, SummedIntensities, MaxIntensity); INSERT INTO Frames (Id) VALUES (1)");
        const auto summary = summarise(made);
        ASSERT_TRUE(summary.hasError()) << column;
        EXPECT_TRUE(summary.errorMessage().contains(
            QStringLiteral("columns of \"Frames\" are worked out when they are read")))
            << qPrintable(summary.errorMessage());
    }
}

TEST(FrameSummary, takesColumnsThatWereWorkedOutWhenTheyWereWritten) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a.d"));
    MsDataMaker::execute(
        made + QStringLiteral("/analysis.tdf"),
        "DROP TABLE Frames; CREATE TABLE Frames (Id INTEGER PRIMARY KEY, Time REAL AS (Id / 2.0) STORED, "
        "MsMsType, SummedIntensities, MaxIntensity); INSERT INTO Frames (Id) VALUES (1), (3)");
    const auto summary = summarise(made);
    ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
    EXPECT_EQ(summary->retentionTime, (ValueRange{0.5, 1.5}));
}

//! Lets every inner page of the tables but the last one refer to the next one only: a few pages that are any
//! number of rows.
void multiplyRows(const QString& database, qsizetype pageSize) {
    QFile file(database);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    QByteArray bytes = file.readAll();
    constexpr char innerPage = 5;
    QList<qsizetype> pages;
    for (qsizetype page = pageSize; page < bytes.size(); page += pageSize) {
        if (bytes[page] == innerPage)
            pages.append(page);
    }
    ASSERT_GE(pages.size(), 8);
    // The root is the lowest one.
    for (qsizetype i = 0; i + 1 < std::min<qsizetype>(pages.size(), 12); ++i) {
        char* const page = bytes.data() + pages[i];
        const auto next = quint32(pages[i + 1] / pageSize + 1);
        qToBigEndian(next, page + 8);
        const int cells = qFromBigEndian<quint16>(page + 3);
        for (int cell = 0; cell < cells; ++cell)
            qToBigEndian(next, page + qFromBigEndian<quint16>(page + 12 + 2 * cell));
    }
    file.seek(0);
    ASSERT_EQ(file.write(bytes), bytes.size());
}

TEST(FrameSummary, endsWhenAFewPagesAreRowsWithoutEnd) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a.d"));
    const QString database = made + QStringLiteral("/analysis.tdf");
    MsDataMaker::execute(database,
                         "PRAGMA page_size = 512; VACUUM; DROP TABLE Frames; "
                         "CREATE TABLE Frames (Id INTEGER PRIMARY KEY, Time, MsMsType, SummedIntensities, "
                         "MaxIntensity); WITH RECURSIVE n(Id) AS (SELECT 1 UNION ALL SELECT Id + 1 FROM n "
                         "WHERE Id < 50000) INSERT INTO Frames SELECT Id, Id, 0, 1, 1 FROM n");
    multiplyRows(database, 512);
    const auto summary = summarise(made);
    ASSERT_TRUE(summary.hasError()) << summary->spectrumCount();
    EXPECT_TRUE(summary.errorMessage().contains(QStringLiteral("interrupted")))
        << qPrintable(summary.errorMessage());
}

TEST(FrameSummary, takesNoMoreMemoryForMoreFramesWhateverTheirKey) {
    const char* const tables[] = {"Id INTEGER PRIMARY KEY", "Id INTEGER", "Id TEXT PRIMARY KEY"};
    for (const char* const id : tables) {
        const MsDataMaker maker;
        const QString made = maker.catalogue(QStringLiteral("a.d"));
        MsDataMaker::execute(
            made + QStringLiteral("/analysis.tdf"),
            QByteArray("DROP TABLE Frames; CREATE TABLE Frames (") + id +
                ", Time REAL, MsMsType, SummedIntensities, MaxIntensity);"
                "WITH RECURSIVE n(Id) AS (SELECT 1 UNION ALL SELECT Id + 1 FROM n WHERE Id < 200000) "
                "INSERT INTO Frames SELECT Id, Id / 2.0, 0, Id, 1 FROM n");
        const qint64 before = sqlite3_memory_used();
        sqlite3_memory_highwater(1);
        const auto summary = summarise(made);
        const qint64 most = sqlite3_memory_highwater(0);
        ASSERT_FALSE(summary.hasError()) << qPrintable(summary.errorMessage());
        EXPECT_EQ(summary->spectrumCount(), 200'000);
        EXPECT_EQ(summary->retentionTime, (ValueRange{0.5, 100'000}));
        ASSERT_GT(most, 0) << "SQLite counts what it takes";
        EXPECT_LT(most - before, 3 * 1024 * 1024) << id;
    }
}

TEST(Summarise, saysWhyThereIsNoSummary) {
    const MsDataMaker maker;
    const QString trace = maker.file(QStringLiteral("b.d/MSD1.MS"), "x");
    const std::pair<QString, const char*> rows[] = {
        {maker.path(QStringLiteral("missing")), "cannot be looked at"},
        {maker.file(QStringLiteral("a.txt"), "text"), "not raw data"},
        {maker.path(QStringLiteral("b.d")), "of this kind cannot be summed up"},
        {maker.file(QStringLiteral("cut.mzML.gz"), MsDataMaker::gzipped(MsDataMaker::mzMl()).chopped(6)),
         "gzip data ends too early"},
    };
    for (const auto& [path, reason] : rows) {
        const auto summary = summarise(path);
        ASSERT_TRUE(summary.hasError()) << qPrintable(path);
        EXPECT_FALSE(summary.error().isCanceled());
        EXPECT_TRUE(summary.errorMessage().contains(QString::fromLatin1(reason)))
            << qPrintable(summary.errorMessage());
    }
}

TEST(Summarise, endsWhenItIsCancelled) {
    std::stop_source stop;
    stop.request_stop();
    for (const char* name : {"tiny.mzML", "two-scans.mzXML", "small.mgf", "sqlite-frames.d"}) {
        const auto summary =
            summarise(QStringLiteral(ORX_TEST_DATA_DIR "/") + QString::fromLatin1(name), stop.get_token());
        ASSERT_TRUE(summary.hasError()) << name;
        EXPECT_TRUE(summary.error().isCanceled()) << name;
    }
}

namespace {

//! Asks to stop when it has handed out so many pieces, and would go on for ever.
class EndlessStream final : public ByteStream {
public:
    EndlessStream(QByteArray start, QByteArray more, std::stop_source stop)
        : m_next(std::move(start)), m_more(std::move(more)), m_stop(std::move(stop)) {}
    Result<qsizetype> read(char* to, qsizetype size) override {
        if (++m_reads == 20)
            m_stop.request_stop();
        const qsizetype count = qMin(size, m_next.size());
        std::copy_n(m_next.constData(), count, to);
        m_next.remove(0, count);
        if (m_next.isEmpty())
            m_next = m_more;
        return count;
    }

private:
    QByteArray m_next;
    const QByteArray m_more;
    std::stop_source m_stop;
    int m_reads = 0;
};

} // namespace

TEST(Summarise, endsInTheMiddleWhenItIsCancelled) {
    const QByteArray aSpectrum = spectrum(cv(1000511, "1"), cv(1000016, "1", kSeconds));
    {
        std::stop_source stop;
        EndlessStream stream("<mzML><run><spectrumList>", aSpectrum, stop);
        EXPECT_TRUE(summariseMzMl(stream, nullptr, stop.get_token()).error().isCanceled());
    }
    {
        std::stop_source stop;
        EndlessStream stream("<mzXML>", "<scan/>", stop);
        EXPECT_TRUE(summariseMzXml(stream, stop.get_token()).error().isCanceled());
    }
    {
        std::stop_source stop;
        EndlessStream stream("\n", "BEGIN IONS\n1 2\nEND IONS\n", stop);
        EXPECT_TRUE(summariseMgf(stream, stop.get_token()).error().isCanceled());
    }
}
