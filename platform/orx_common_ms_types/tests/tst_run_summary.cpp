#include <RunSummary.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <functional>
#include <limits>

using namespace orx;

namespace {

RunSummary fullSummary() {
    RunSummary summary;
    summary.kind = MsDataKind::MzMl;
    summary.spectraByLevel = {{1, 3}, {2, 40}};
    summary.mz = ValueRange{70.5, 1800.25};
    summary.retentionTime = ValueRange{0.5, 3600};
    summary.trace.msLevel = 1;
    summary.trace.spectraPerPoint = 2;
    summary.trace.points = {{0.5, 1e7, 2e5}, {60.25, 3.25e9, 7}};
    summary.instrument = QStringLiteral("A mass spectrometer");
    summary.startTime = QStringLiteral("2024-02-29T12:00:00Z");
    summary.notes = {QStringLiteral("The source declares 44 spectra; 43 are there.")};
    return summary;
}

QJsonObject throughText(const QJsonObject& json) {
    return QJsonDocument::fromJson(QJsonDocument(json).toJson()).object();
}

} // namespace

TEST(RunSummary, comesBackFromItsJsonUnchanged) {
    const RunSummary summary = fullSummary();
    const auto read = RunSummary::fromJson(throughText(summary.toJson()));
    ASSERT_FALSE(read.hasError()) << qPrintable(read.errorMessage());
    EXPECT_EQ(*read, summary);
}

TEST(RunSummary, hasTheDocumentedKeys) {
    const QJsonObject json = fullSummary().toJson();
    EXPECT_EQ(json.value(QStringLiteral("kind")), QStringLiteral("mzml"));
    EXPECT_EQ(json.value(QStringLiteral("spectra")), 43);
    EXPECT_EQ(json.value(QStringLiteral("spectra_by_level")).toObject(),
              (QJsonObject{{QStringLiteral("1"), 3}, {QStringLiteral("2"), 40}}));
    EXPECT_EQ(json.value(QStringLiteral("mz")).toArray(), (QJsonArray{70.5, 1800.25}));
    EXPECT_EQ(json.value(QStringLiteral("retention_time_s")).toArray(), (QJsonArray{0.5, 3600}));
    const QJsonObject trace = json.value(QStringLiteral("ion_current")).toObject();
    EXPECT_EQ(trace.value(QStringLiteral("ms_level")), 1);
    EXPECT_EQ(trace.value(QStringLiteral("spectra_per_point")), 2);
    EXPECT_EQ(trace.value(QStringLiteral("time_s")).toArray(), (QJsonArray{0.5, 60.25}));
    EXPECT_EQ(trace.value(QStringLiteral("total")).toArray(), (QJsonArray{1e7, 3.25e9}));
    EXPECT_EQ(trace.value(QStringLiteral("base_peak")).toArray(), (QJsonArray{2e5, 7}));
}

TEST(RunSummary, leavesOutWhatIsAbsent) {
    RunSummary summary;
    summary.kind = MsDataKind::Mgf;
    const QJsonObject json = summary.toJson();
    for (const char* key : {"mz", "retention_time_s", "instrument", "start_time", "notes"})
        EXPECT_FALSE(json.contains(QString::fromLatin1(key))) << key;
    const auto read = RunSummary::fromJson(json);
    ASSERT_FALSE(read.hasError());
    EXPECT_EQ(*read, summary);
}

TEST(RunSummary, refusesJsonThatNoSummaryHasAndNamesTheMember) {
    struct Row {
        const char* key;
        QJsonValue value;
    };
    const QJsonObject ofStrings{{QStringLiteral("1"), QStringLiteral("three")}};
    const QJsonObject negative{{QStringLiteral("1"), -3}};
    QJsonObject manyLevels;
    for (int level = 0; level < 101; ++level)
        manyLevels.insert(QString::number(level), 1);
    // None is too many by itself.
    QJsonObject manySpectra;
    for (int level = 0; level < 3; ++level)
        manySpectra.insert(QString::number(level), double(qint64(1) << 52));
    const QJsonObject noLevel{{QStringLiteral("one"), 3}};
    const Row rows[] = {
        {"kind", QStringLiteral("punched cards")},
        {"kind", 3},
        {"spectra_by_level", QJsonArray{1, 2}},
        {"spectra_by_level", ofStrings},
        {"spectra_by_level", negative},
        {"spectra_by_level", noLevel},
        {"spectra_by_level", manyLevels},
        {"spectra_by_level", manySpectra},
        {"mz", QJsonArray{1}},
        {"mz", QJsonArray{2, 1}},
        {"mz", QJsonArray{1, 2, 3}},
        {"retention_time_s", QStringLiteral("long")},
        {"ion_current", QJsonValue::Null},
    };
    for (const Row& row : rows) {
        QJsonObject json = fullSummary().toJson();
        json.insert(QString::fromLatin1(row.key), row.value);
        const auto read = RunSummary::fromJson(json);
        ASSERT_TRUE(read.hasError()) << row.key;
        EXPECT_TRUE(read.error().is(ErrorCode::ParseError));
        EXPECT_TRUE(read.errorMessage().contains(QString::fromLatin1(row.key)))
            << qPrintable(read.errorMessage());
    }
}

TEST(RunSummary, refusesATraceWhoseListsDiffer) {
    QJsonObject json = fullSummary().toJson();
    QJsonObject trace = json.value(QStringLiteral("ion_current")).toObject();
    trace.insert(QStringLiteral("total"), QJsonArray{1});
    json.insert(QStringLiteral("ion_current"), trace);
    EXPECT_TRUE(RunSummary::fromJson(json).hasError());

    trace.insert(QStringLiteral("total"), QJsonArray{1, QStringLiteral("2")});
    json.insert(QStringLiteral("ion_current"), trace);
    EXPECT_TRUE(RunSummary::fromJson(json).hasError());
}

TEST(SummaryRecord, holdsTheSummaryOrTheReasonWhyThereIsNone) {
    const QJsonObject with = summaryRecord(fullSummary());
    EXPECT_EQ(with.value(QStringLiteral("available")), true);
    EXPECT_EQ(with.value(QStringLiteral("summary")).toObject(), fullSummary().toJson());

    const QJsonObject without =
        summaryRecord(Error(ErrorCode::ParseError, QStringLiteral("It ends too early.")));
    EXPECT_EQ(without.value(QStringLiteral("available")), false);
    EXPECT_EQ(without.value(QStringLiteral("reason")), QStringLiteral("It ends too early."));
    EXPECT_FALSE(without.contains(QStringLiteral("summary")));
}

TEST(ValueRange, growsByFiniteValuesOnly) {
    std::optional<ValueRange> range;
    ValueRange::extend(range, std::numeric_limits<double>::quiet_NaN());
    ValueRange::extend(range, std::numeric_limits<double>::infinity());
    EXPECT_FALSE(range.has_value());
    ValueRange::extend(range, 5);
    ValueRange::extend(range, -2);
    ValueRange::extend(range, 3);
    ASSERT_TRUE(range.has_value());
    EXPECT_EQ(*range, (ValueRange{-2, 5}));
}

TEST(MsDataKind, hasOneNamePerKind) {
    QStringList names;
    for (int kind = int(MsDataKind::MzMl); kind <= int(MsDataKind::TaggedBinaryFile); ++kind) {
        const QString name = msDataKindId(MsDataKind(kind));
        EXPECT_FALSE(name.isEmpty()) << kind;
        EXPECT_FALSE(names.contains(name)) << qPrintable(name);
        EXPECT_EQ(int(msDataKindFromId(name)), kind);
        names.append(name);
    }
    EXPECT_TRUE(msDataKindId(MsDataKind::None).isEmpty());
    EXPECT_EQ(msDataKindFromId(QString()), MsDataKind::None);
}
