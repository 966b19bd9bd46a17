#include "RunPlot.h"

#include <plplot/plplot.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::IonCurrentTrace;
using orx::Result;
using orx::RunSummary;

namespace {

constexpr int kWidth = 1200;
constexpr int kHeight = 700;
constexpr qsizetype kLongestTitle = 70;
//! Of so few points each is shown, and not only the line between them.
constexpr size_t kMarkedPoints = 60;
//! From here on minutes are easier to read than seconds.
constexpr double kMinutesFrom = 180;

//! Nobody measured longer, and the library counts ticks where doubles still tell them apart.
constexpr double kLongestTime = 1e12;
//! Of the larger end, and of a second; times closer to each other are drawn as one.
constexpr double kLeastSpan = 1e-9;

//! Nothing below it is anything but zero.
constexpr double kNoIntensity = 1e-300;

enum Color : PLINT { Background, Ink, Grid, Total, BasePeak };

struct Axis {
    double lowest = 0;
    double highest = 1;
    std::string label;
};

struct Curves {
    std::vector<PLFLT> time;
    std::vector<PLFLT> total;
    std::vector<PLFLT> basePeak;
    Axis timeAxis;
    Axis intensityAxis;
};

const char* deviceOf(PlotFormat format) {
    return format == PlotFormat::Svg ? "svg" : "pngcairo";
}

//! An unknown device would make the library ask on standard input.
bool isThere(std::string_view device) {
    std::array<const char*, 256> descriptions = {};
    std::array<const char*, 256> names = {};
    const char** descriptionList = descriptions.data();
    const char** nameList = names.data();
    int count = int(names.size());
    plgDevs(&descriptionList, &nameList, &count);
    return std::any_of(names.begin(), names.begin() + count,
                       [&](const char* name) { return device == name; });
}

//! The library takes '#' for the beginning of an escape.
std::string drawable(QString text) {
    for (QChar& character : text) {
        if (!character.isPrint())
            character = u' ';
    }
    if (text.size() > kLongestTitle)
        text = text.left(kLongestTitle / 2) + QStringLiteral("…") + text.right(kLongestTitle / 2);
    return text.replace(u'#', QStringLiteral("##")).toStdString();
}

//! A little room beside the values; some also where all are the same.
void widen(Axis& axis) {
    const double span = axis.highest - axis.lowest;
    const double least = kLeastSpan * std::max({1.0, std::abs(axis.lowest), std::abs(axis.highest)});
    const double room = span > least ? span * 0.02 : 1;
    axis.lowest -= room;
    axis.highest += room;
}

Axis timeAxisOf(const std::vector<PLFLT>& seconds, double& unit) {
    const auto [lowest, highest] = std::minmax_element(seconds.begin(), seconds.end());
    Axis axis{*lowest, *highest, "Retention time (s)"};
    unit = 1;
    if (axis.highest >= kMinutesFrom) {
        unit = 60;
        axis = {axis.lowest / unit, axis.highest / unit, "Retention time (min)"};
    }
    widen(axis);
    return axis;
}

//! Values of one to four digits; what they are multiples of goes into the label.
Axis intensityAxisOf(double highest, double& unit) {
    const int exponent = highest > kNoIntensity ? int(std::floor(std::log10(highest))) : 0;
    const bool isPlain = exponent >= 0 && exponent < 4;
    unit = isPlain ? 1 : std::pow(10, exponent);
    Axis axis{0, highest > kNoIntensity ? highest / unit * 1.08 : 1, "Intensity (arbitrary units)"};
    if (!isPlain)
        axis.label = "Intensity (10#u" + std::to_string(exponent) + "#d arbitrary units)";
    return axis;
}

Curves curvesOf(const IonCurrentTrace& trace) {
    Curves curves;
    double highest = 0;
    for (const IonCurrentTrace::Point& point : trace.points) {
        curves.time.push_back(point.retentionTime);
        curves.total.push_back(point.totalIonCurrent);
        curves.basePeak.push_back(point.basePeak);
        highest = std::max({highest, point.totalIonCurrent, point.basePeak});
    }
    double unit = 1;
    curves.timeAxis = timeAxisOf(curves.time, unit);
    for (PLFLT& time : curves.time)
        time /= unit;
    curves.intensityAxis = intensityAxisOf(highest, unit);
    for (std::vector<PLFLT>* values : {&curves.total, &curves.basePeak}) {
        for (PLFLT& value : *values)
            value = std::clamp(value / unit, curves.intensityAxis.lowest, curves.intensityAxis.highest);
    }
    return curves;
}

bool canBeDrawn(const IonCurrentTrace& trace) {
    return std::all_of(trace.points.begin(), trace.points.end(), [](const IonCurrentTrace::Point& point) {
        return std::abs(point.retentionTime) <= kLongestTime;
    });
}

std::string subtitleOf(const RunSummary& run) {
    const IonCurrentTrace& trace = run.trace;
    QString text = trace.msLevel > 0 ? QStringLiteral("MS level %1, %2 spectra")
                                           .arg(trace.msLevel)
                                           .arg(run.spectraByLevel.value(trace.msLevel))
                                     : QStringLiteral("%1 spectra of all levels").arg(run.spectrumCount());
    if (trace.spectraPerPoint > 1)
        text += QStringLiteral(", each point the highest of %1").arg(trace.spectraPerPoint);
    return text.toStdString();
}

void setColors() {
    plscolbg(255, 255, 255);
    plscol0(Ink, 40, 40, 40);
    plscol0(Grid, 222, 222, 222);
    // Told apart by the colour-blind too.
    plscol0(Total, 0, 114, 178);
    plscol0(BasePeak, 213, 94, 0);
}

void drawFrame(const Curves& curves, const std::string& title, const std::string& subtitle) {
    plschr(0, 0.75);
    plvpor(0.085, 0.975, 0.12, 0.85);
    plwind(curves.timeAxis.lowest, curves.timeAxis.highest, curves.intensityAxis.lowest,
           curves.intensityAxis.highest);
    plcol0(Grid);
    plbox("g", 0, 0, "g", 0, 0);
    plcol0(Ink);
    plbox("bcnst", 0, 0, "bcnstv", 0, 0);
    plmtex("b", 3.2, 0.5, 0.5, curves.timeAxis.label.c_str());
    plmtex("l", 4.2, 0.5, 0.5, curves.intensityAxis.label.c_str());
    plmtex("t", 1.2, 0, 0, subtitle.c_str());
    plschr(0, 1);
    plmtex("t", 2.6, 0, 0, title.c_str());
    plschr(0, 0.75);
}

void drawCurve(const std::vector<PLFLT>& time, const std::vector<PLFLT>& values, Color color) {
    const auto count = PLINT(time.size());
    plcol0(color);
    plwidth(1.5);
    plline(count, time.data(), values.data());
    if (time.size() <= kMarkedPoints)
        plstring(count, time.data(), values.data(), "•");
    plwidth(1);
}

//! Above the frame on the right, where no curve can run through it.
void drawLegend() {
    plcol0(Total);
    plmtex("t", 1.2, 0.84, 1, "— Total ion current");
    plcol0(BasePeak);
    plmtex("t", 1.2, 1, 1, "— Base peak");
}

//! What the library writes into it, in memory.
class MemoryStream {
public:
    MemoryStream() : m_file(::open_memstream(&m_bytes, &m_size)) {}
    ~MemoryStream() { std::free(m_bytes); }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    //! The library closes it.
    FILE* file() const { return m_file; }
    QByteArray content() const { return {m_bytes, qsizetype(m_size)}; }

private:
    char* m_bytes = nullptr;
    size_t m_size = 0;
    FILE* m_file = nullptr;
};

} // namespace

std::optional<PlotFormat> plotFormatOf(const QString& path) {
    if (path.endsWith(QStringLiteral(".svg"), Qt::CaseInsensitive))
        return PlotFormat::Svg;
    if (path.endsWith(QStringLiteral(".png"), Qt::CaseInsensitive))
        return PlotFormat::Png;
    return std::nullopt;
}

Result<QByteArray> drawRun(const RunSummary& run, const QString& title, PlotFormat format) {
    if (run.trace.points.isEmpty())
        return Error(ErrorCode::NotFound,
                     QStringLiteral("There is no ion current over time to be drawn of \"%1\": its spectra "
                                    "state no retention time or no intensity.")
                         .arg(title));
    if (!canBeDrawn(run.trace))
        return Error(ErrorCode::ParseError,
                     QStringLiteral("The ion current of \"%1\" cannot be drawn: its summary states retention "
                                    "times of more than %2 seconds.")
                         .arg(title)
                         .arg(kLongestTime));
    if (!isThere(deviceOf(format)))
        return Error(ErrorCode::General,
                     QStringLiteral("PLplot has no driver \"%1\" on this machine; install the package "
                                    "plplot-driver-cairo, or ask for an .svg file.")
                         .arg(QLatin1String(deviceOf(format))));
    const MemoryStream stream;
    if (!stream.file())
        return Error(ErrorCode::General, QStringLiteral("There is no memory for a picture."));
    const Curves curves = curvesOf(run.trace);
    plsdev(deviceOf(format));
    plsfile(stream.file());
    plspage(0, 0, kWidth, kHeight, 0, 0);
    setColors();
    plfontld(0);
    plinit();
    pladv(0);
    drawFrame(curves, drawable(title), subtitleOf(run));
    drawCurve(curves.time, curves.total, Total);
    drawCurve(curves.time, curves.basePeak, BasePeak);
    drawLegend();
    plend();
    return stream.content();
}

} // namespace halvane::host
