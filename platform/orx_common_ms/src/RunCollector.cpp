#include "RunCollector.h"

#include "Texts.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace orx {

namespace {

// Levels beyond this are no levels.
constexpr int kHighestLevel = 20;

IonCurrentTrace::Point merged(const IonCurrentTrace::Point& a, const IonCurrentTrace::Point& b) {
    IonCurrentTrace::Point point = b.totalIonCurrent > a.totalIonCurrent ? b : a;
    point.basePeak = std::max(a.basePeak, b.basePeak);
    return point;
}

void extend(std::optional<ValueRange>& range, const std::optional<ValueRange>& by) {
    if (!by)
        return;
    ValueRange::extend(range, by->lowest);
    ValueRange::extend(range, by->highest);
}

bool isFinite(const std::optional<double>& value) {
    return value && std::isfinite(*value);
}

} // namespace

void TraceBuilder::add(const IonCurrentTrace::Point& point) {
    if (!m_points.isEmpty() && m_inLast < m_spectraPerPoint) {
        m_points.back() = merged(m_points.back(), point);
        ++m_inLast;
        return;
    }
    if (m_points.size() == IonCurrentTrace::MAX_POINTS)
        halve();
    m_points.append(point);
    m_inLast = 1;
}

void TraceBuilder::halve() {
    static_assert(IonCurrentTrace::MAX_POINTS % 2 == 0);
    for (qsizetype i = 0; i < m_points.size(); i += 2)
        m_points[i / 2] = merged(m_points[i], m_points[i + 1]);
    m_points.resize(m_points.size() / 2);
    m_spectraPerPoint *= 2;
}

IonCurrentTrace TraceBuilder::build(int msLevel) const {
    IonCurrentTrace trace;
    trace.msLevel = msLevel;
    trace.spectraPerPoint = m_spectraPerPoint;
    trace.points = m_points;
    std::stable_sort(trace.points.begin(), trace.points.end(),
                     [](const auto& a, const auto& b) { return a.retentionTime < b.retentionTime; });
    return trace;
}

RunCollector::RunCollector(MsDataKind kind) {
    m_summary.kind = kind;
}

void RunCollector::add(const SpectrumFacts& spectrum) {
    const int level = spectrum.level >= 1 && spectrum.level <= kHighestLevel ? spectrum.level : 0;
    ++m_summary.spectraByLevel[level];
    extend(m_observedMz, spectrum.observedMz);
    extend(m_scanWindows, spectrum.scanWindow);
    if (!isFinite(spectrum.time)) {
        ++m_withoutTime;
        return;
    }
    ValueRange::extend(m_summary.retentionTime, *spectrum.time);
    if (!isFinite(spectrum.totalIonCurrent))
        return;
    const IonCurrentTrace::Point point{*spectrum.time, *spectrum.totalIonCurrent,
                                       isFinite(spectrum.basePeak) ? *spectrum.basePeak : 0};
    m_ofAll.add(point);
    if (level == 1)
        m_ofLevelOne.add(point);
}

void RunCollector::addDeclaredCount(qint64 count) {
    qint64 sum = 0;
    // A count that overflows is as wrong as any other.
    const bool isTooLarge = __builtin_add_overflow(m_declared.value_or(0), count, &sum);
    m_declared = isTooLarge ? std::numeric_limits<qint64>::max() : sum;
}

void RunCollector::addUnreadableArray(const QString& reason) {
    if (m_unreadableArrays++ == 0)
        m_firstUnreadable = reason;
}

QStringList RunCollector::notes() const {
    QStringList notes;
    const qint64 count = m_summary.spectrumCount();
    if (m_declared && *m_declared != count)
        notes.append(msText("The source declares %1 spectra; %2 are there.").arg(*m_declared).arg(count));
    if (m_timesWithoutUnit > 0)
        notes.append(msText("Times that are left out since they have no unit that is known: %1.")
                         .arg(m_timesWithoutUnit));
    if (m_withoutTime > 0)
        notes.append(msText("Spectra without a time, which are not in the trace: %1.").arg(m_withoutTime));
    if (m_unreadableArrays > 0)
        notes.append(msText("Arrays that could not be read: %1; the first: %2")
                         .arg(QString::number(m_unreadableArrays), m_firstUnreadable));
    if (!m_observedMz && m_scanWindows)
        notes.append(msText("The m/z range is that of the scan windows."));
    return notes;
}

RunSummary RunCollector::build() const {
    RunSummary summary = m_summary;
    summary.mz = m_observedMz ? m_observedMz : m_scanWindows;
    summary.trace = m_ofLevelOne.isEmpty() ? m_ofAll.build(0) : m_ofLevelOne.build(1);
    summary.notes = notes();
    return summary;
}

} // namespace orx
