#include <ArrayReader.h>
#include <RunCollector.h>

#include <QByteArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace orx;

namespace {

// No order in them, and none in common, so that a shifted run or a mixed-up maximum would show.
double totalOf(int spectrum) {
    return (spectrum * 7919) % 10007;
}

double basePeakOf(int spectrum) {
    return (spectrum * 31) % 997;
}

IonCurrentTrace traceOf(int spectra) {
    TraceBuilder builder;
    for (int i = 0; i < spectra; ++i)
        builder.add({double(i), totalOf(i), basePeakOf(i)});
    return builder.build(1);
}

} // namespace

TEST(TraceBuilder, keepsEverySpectrumUpToTheMostPoints) {
    const IonCurrentTrace trace = traceOf(IonCurrentTrace::MAX_POINTS);
    EXPECT_EQ(trace.spectraPerPoint, 1);
    ASSERT_EQ(trace.points.size(), IonCurrentTrace::MAX_POINTS);
    for (int i = 0; i < trace.points.size(); ++i)
        EXPECT_EQ(trace.points[i], (IonCurrentTrace::Point{double(i), totalOf(i), basePeakOf(i)}));
}

TEST(TraceBuilder, givesEachPointTheHighestOfItsRun) {
    for (const int spectra : {1001, 1999, 2000, 2001, 4000, 4001, 12345}) {
        SCOPED_TRACE(spectra);
        const IonCurrentTrace trace = traceOf(spectra);
        const auto width = int(trace.spectraPerPoint);
        EXPECT_LE(trace.points.size(), IonCurrentTrace::MAX_POINTS);
        EXPECT_GE(trace.points.size(), IonCurrentTrace::MAX_POINTS / 2);
        ASSERT_EQ(trace.points.size(), (spectra + width - 1) / width);
        for (int point = 0; point < trace.points.size(); ++point) {
            int best = point * width;
            double basePeak = 0;
            for (int i = best; i < std::min(spectra, (point + 1) * width); ++i) {
                best = totalOf(i) > totalOf(best) ? i : best;
                basePeak = std::max(basePeak, basePeakOf(i));
            }
            ASSERT_EQ(trace.points[point], (IonCurrentTrace::Point{double(best), totalOf(best), basePeak}));
        }
    }
}

TEST(TraceBuilder, givesThePointsByTimeWhateverTheirOrder) {
    TraceBuilder builder;
    for (const double time : {5.0, 1.0, 3.0})
        builder.add({time, time * 10, 1});
    const IonCurrentTrace trace = builder.build(0);
    ASSERT_EQ(trace.points.size(), 3);
    EXPECT_EQ(trace.points[0].retentionTime, 1);
    EXPECT_EQ(trace.points[1].totalIonCurrent, 30);
    EXPECT_EQ(trace.points[2].retentionTime, 5);
}

TEST(RunCollector, tracesLevelOneAndAllSpectraWhereThereIsNone) {
    SpectrumFacts facts;
    facts.time = 1;
    facts.totalIonCurrent = 10;
    facts.level = 2;
    RunCollector collector(MsDataKind::MzMl);
    collector.add(facts);
    EXPECT_EQ(collector.build().trace.msLevel, 0);
    EXPECT_EQ(collector.build().trace.points.size(), 1);
    facts.level = 1;
    facts.totalIonCurrent = 20;
    collector.add(facts);
    const RunSummary summary = collector.build();
    EXPECT_EQ(summary.trace.msLevel, 1);
    ASSERT_EQ(summary.trace.points.size(), 1);
    EXPECT_EQ(summary.trace.points[0].totalIonCurrent, 20);
}

TEST(RunCollector, doesNotGrowWithLevels) {
    RunCollector collector(MsDataKind::MzMl);
    for (int level = -5; level < 5000; ++level) {
        SpectrumFacts facts;
        facts.level = level;
        collector.add(facts);
    }
    const RunSummary summary = collector.build();
    EXPECT_EQ(summary.spectrumCount(), 5005);
    EXPECT_EQ(summary.spectraByLevel.size(), 21);
}

TEST(ArrayReader, givesTheSameForEveryCutOfTheText) {
    QByteArray bytes;
    double expected = 0;
    for (int i = 0; i < 3000; ++i) {
        const double value = std::sqrt(i) - 7;
        expected += value;
        bytes.append(reinterpret_cast<const char*>(&value), sizeof(value));
    }
    ArrayReader reader;
    for (const bool isPacked : {false, true}) {
        const QByteArray text = (isPacked ? qCompress(bytes).mid(4) : bytes).toBase64();
        ArrayFormat format;
        format.number = ArrayFormat::Number::Float64;
        format.compression = isPacked ? ArrayFormat::Compression::Zlib : ArrayFormat::Compression::None;
        for (const int cut : {1, 3, 76, 4097, 1'000'000}) {
            SCOPED_TRACE(cut);
            reader.begin(format);
            for (qsizetype at = 0; at < text.size(); at += cut) {
                const QByteArray piece = text.mid(at, cut) + "\r\n";
                reader.text({piece.constData(), size_t(piece.size())});
            }
            ASSERT_FALSE(reader.end().hasError());
            EXPECT_EQ(reader.figures(0).count, 3000);
            EXPECT_DOUBLE_EQ(reader.figures(0).sum, expected);
            EXPECT_EQ(reader.figures(0).range, (ValueRange{-7, std::sqrt(2999) - 7}));
        }
    }
}
