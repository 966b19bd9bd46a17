#include "RunPlot.h"

#include <QRegularExpression>
#include <QStringList>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace halvane::host;
using orx::ErrorCode;
using orx::IonCurrentTrace;
using orx::RunSummary;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

namespace {

RunSummary runOf(const QList<IonCurrentTrace::Point>& points) {
    RunSummary run;
    run.kind = orx::MsDataKind::MzMl;
    run.spectraByLevel = {{1, points.size()}};
    run.trace.points = points;
    run.trace.msLevel = 1;
    return run;
}

//! What is written in the picture, which holds each character as a number.
QStringList textsOf(const QByteArray& svg) {
    static const QRegularExpression element(QStringLiteral("<text.*?</text>"),
                                            QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression character(QStringLiteral("&#x([0-9a-f]+);"));
    QStringList texts;
    const QString content = QString::fromUtf8(svg);
    for (auto found = element.globalMatch(content); found.hasNext();) {
        QString text;
        for (auto each = character.globalMatch(found.next().captured()); each.hasNext();)
            text += QChar(each.next().captured(1).toUShort(nullptr, 16));
        texts.append(text);
    }
    return texts;
}

//! The curve of \a color: its corners in the coordinates of the picture.
QList<QPair<double, double>> curveOf(const QByteArray& svg, const QString& color) {
    const QRegularExpression line(QStringLiteral("stroke=\"%1\"[^>]*points=\"([^\"]*)\"").arg(color));
    QList<QPair<double, double>> corners;
    const QString points = line.match(QString::fromUtf8(svg)).captured(1).simplified();
    for (const QString& corner : points.split(u' ', Qt::SkipEmptyParts))
        corners.append({corner.section(u',', 0, 0).toDouble(), corner.section(u',', 1, 1).toDouble()});
    return corners;
}

const QString kTotalColor = QStringLiteral("#0072B2");
const QString kBasePeakColor = QStringLiteral("#D55E00");

QByteArray svgOf(const RunSummary& run, const QString& title = QStringLiteral("run1.mzML")) {
    const auto svg = drawRun(run, title, PlotFormat::Svg);
    EXPECT_TRUE(svg) << svg.errorMessage().toStdString();
    return svg ? *svg : QByteArray();
}

} // namespace

TEST(RunPlot, SaysWhatIsDrawnAndInWhichUnits) {
    RunSummary run = runOf({{0, 1e8, 5e7}, {600, 4e8, 2e8}});
    run.spectraByLevel = {{1, 4000}, {2, 7}};
    run.trace.spectraPerPoint = 4;
    const QStringList texts = textsOf(svgOf(run));
    for (const char* text :
         {"run1.mzML", "MS level 1, 4000 spectra, each point the highest of 4", "Retention time (min)",
          "Intensity (108 arbitrary units)", "— Total ion current", "— Base peak", "0", "10"})
        EXPECT_THAT(texts, Contains(QString::fromUtf8(text))) << text;
}

TEST(RunPlot, DrawsTheCurvesToScale) {
    const QByteArray svg = svgOf(runOf({{0, 100, 50}, {10, 400, 100}, {20, 200, 100}}));
    const auto total = curveOf(svg, kTotalColor);
    const auto basePeak = curveOf(svg, kBasePeakColor);
    ASSERT_EQ(total.size(), 3);
    ASSERT_EQ(basePeak.size(), 3);
    EXPECT_NEAR(total[1].first - total[0].first, total[2].first - total[1].first, 0.1);
    EXPECT_GT(total[1].first, total[0].first);
    // One hundred of intensity is the same distance everywhere: the axis is straight.
    const double hundred = total[2].second - total[0].second;
    EXPECT_GT(hundred, 50);
    EXPECT_NEAR(total[1].second - total[2].second, 2 * hundred, 0.1);
    EXPECT_NEAR(total[0].second - basePeak[0].second, hundred / 2, 0.1);
    EXPECT_NEAR(basePeak[1].second, total[0].second, 0.1);
}

TEST(RunPlot, ShortRunsAreInSecondsAndSmallIntensitiesPlain) {
    const QStringList texts = textsOf(svgOf(runOf({{1, 40, 20}, {100, 10, 5}})));
    EXPECT_THAT(texts, Contains(QStringLiteral("Retention time (s)")));
    EXPECT_THAT(texts, Contains(QStringLiteral("Intensity (arbitrary units)")));
}

TEST(RunPlot, NamesAreShownAsTheyAre) {
    const QString name = QStringLiteral("a#u1 <b> & \"ü\".mzML");
    EXPECT_THAT(textsOf(svgOf(runOf({{1, 2, 1}}), name)), Contains(name));
    const QStringList long_ = textsOf(svgOf(runOf({{1, 2, 1}}), QString(200, u'x')));
    EXPECT_THAT(long_, Contains(QString(35, u'x') + u'…' + QString(35, u'x')));
    EXPECT_THAT(textsOf(svgOf(runOf({{1, 2, 1}}), QStringLiteral("a\nb\x1b"))),
                Contains(QStringLiteral("a b ")));
}

TEST(RunPlot, ExtremesAreDrawn) {
    for (const RunSummary& run :
         {runOf({{5, 0, 0}}), runOf({{5, 0, 0}, {5, 0, 0}}), runOf({{0, 1e-30, 1e-31}, {1e9, 1e300, 1e299}}),
          runOf({{0, 5e-324, 0}, {1, 0, 0}}), runOf({{-5, 3, 3}, {5, 1, 1}}), runOf({{1e12, 1, 1}}),
          runOf({{-1e12, 1, 1}, {1e12, 1, 1}}),
          // Times that hardly differ, or not in their order.
          runOf({{5, 1, 1}, {std::nextafter(5, 6), 2, 1}}), runOf({{0, 1, 1}, {1e-310, 2, 1}}),
          runOf({{-1e-310, 1, 1}, {1e-310, 2, 1}}), runOf({{0, 1, 1}, {1e-200, 2, 1}}),
          runOf({{std::nextafter(1e12, 0), 2, 1}, {1e12, 1, 1}}), runOf({{600, 1, 1}, {0, 2, 1}}),
          // Intensities that no instrument gives.
          runOf({{0, -1e308, -1e308}, {1, 1e308, 1e308}}), runOf({{0, -1e308, 0}, {1, -1, 0}}),
          runOf({{0, std::numeric_limits<double>::max(), 1},
                 {1, std::numeric_limits<double>::denorm_min(), 1}})}) {
        const QByteArray svg = svgOf(run);
        EXPECT_TRUE(svg.endsWith("</svg>\n")) << svg.right(100).constData();
        for (const auto& [x, y] : curveOf(svg, kTotalColor)) {
            EXPECT_TRUE(x > 0 && x < 1200) << x;
            EXPECT_TRUE(y > 0 && y < 700) << y;
        }
    }
}

TEST(RunPlot, TimesThatNobodyMeasuredAreRefused) {
    for (const RunSummary& run :
         {runOf({{-1e308, 1, 1}, {1e308, 1, 1}}), runOf({{1e18, 1, 1}}),
          runOf({{1e18, 1, 1}, {1e18 + 256, 1, 1}}), runOf({{-1e13, 1, 1}, {0, 1, 1}}),
          runOf({{std::numeric_limits<double>::max(), 1, 1}})}) {
        const auto picture = drawRun(run, QStringLiteral("run1.mzML"), PlotFormat::Svg);
        ASSERT_FALSE(picture);
        EXPECT_TRUE(picture.error().is(ErrorCode::ParseError));
        EXPECT_EQ(picture.errorMessage(),
                  QStringLiteral("The ion current of \"run1.mzML\" cannot be drawn: its summary states "
                                 "retention times of more than 1e+12 seconds."));
    }
}

TEST(RunPlot, TheSameRunGivesTheSamePicture) {
    const RunSummary run = runOf({{0, 1, 1}, {600, 4, 2}});
    EXPECT_EQ(svgOf(run), svgOf(run));
}

TEST(RunPlot, MakesPng) {
    const auto png = drawRun(runOf({{0, 1, 1}, {600, 4, 2}}), QStringLiteral("run1.mzML"), PlotFormat::Png);
    ASSERT_TRUE(png) << png.errorMessage().toStdString();
    EXPECT_TRUE(png->startsWith("\x89PNG\r\n"));
    EXPECT_TRUE(png->contains("IEND"));
}

TEST(RunPlot, WithoutATraceThereIsNoPicture) {
    const auto picture = drawRun(runOf({}), QStringLiteral("run1.mzML"), PlotFormat::Svg);
    ASSERT_FALSE(picture);
    EXPECT_TRUE(picture.error().is(ErrorCode::NotFound));
    EXPECT_TRUE(picture.errorMessage().contains(QStringLiteral("\"run1.mzML\"")));
}

TEST(RunPlot, TheFormatFollowsFromTheName) {
    EXPECT_EQ(plotFormatOf(QStringLiteral("a.svg")), PlotFormat::Svg);
    EXPECT_EQ(plotFormatOf(QStringLiteral("/b/a.PNG")), PlotFormat::Png);
    EXPECT_EQ(plotFormatOf(QStringLiteral("svg")), std::nullopt);
    EXPECT_EQ(plotFormatOf(QStringLiteral("a.svg.txt")), std::nullopt);
    EXPECT_EQ(plotFormatOf(QString()), std::nullopt);
}
