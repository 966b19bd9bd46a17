#pragma once

#include "orx_common_ms_export.h"

#include <RunSummary.h>

#include <optional>

namespace orx {

//! What is known of one spectrum.
struct SpectrumFacts {
    int level = 0;              //!< 0: not stated
    std::optional<double> time; //!< seconds
    std::optional<double> totalIonCurrent;
    std::optional<double> basePeak;
    std::optional<ValueRange> observedMz;
    std::optional<ValueRange> scanWindow;
};

//! Total ion current over time of any number of spectra, kept in IonCurrentTrace::MAX_POINTS points: when
//! they are used up, each two that follow each other become one.
class ORX_COMMON_MS_EXPORT TraceBuilder {
public:
    void add(const IonCurrentTrace::Point& point);
    bool isEmpty() const { return m_points.isEmpty(); }
    //! Sorted by time.
    IonCurrentTrace build(int msLevel) const;

private:
    void halve();

    QList<IonCurrentTrace::Point> m_points;
    qint64 m_spectraPerPoint = 1;
    qint64 m_inLast = 0; // spectra in the last point
};

//! Sums up the spectra of a run in a constant amount of memory.
class ORX_COMMON_MS_EXPORT RunCollector {
public:
    explicit RunCollector(MsDataKind kind);

    //! Spectra in the order of the acquisition, those of one level at least.
    void add(const SpectrumFacts& spectrum);
    //! How many spectra the source says it has.
    void addDeclaredCount(qint64 count);
    //! The ion current of the spectrum added next or last could not be computed.
    void addUnreadableArray(const QString& reason);
    //! The time of a spectrum has no unit, or one that is not known.
    void addTimeWithoutUnit() { ++m_timesWithoutUnit; }
    //! Without byte-order marks, which are no text, and of which each reader of the summary would drop one.
    void setInstrument(QString instrument) {
        m_summary.instrument = instrument.remove(QChar(QChar::ByteOrderMark));
    }
    void setStartTime(const QString& startTime) { m_summary.startTime = startTime; }
    //! Of the run as a whole, where spectra state none.
    void setMz(const ValueRange& range) { m_observedMz = range; }

    RunSummary build() const;

private:
    QStringList notes() const;

    RunSummary m_summary;
    std::optional<ValueRange> m_observedMz;
    std::optional<ValueRange> m_scanWindows;
    TraceBuilder m_ofLevelOne;
    TraceBuilder m_ofAll;
    std::optional<qint64> m_declared;
    qint64 m_withoutTime = 0;
    qint64 m_timesWithoutUnit = 0;
    qint64 m_unreadableArrays = 0;
    QString m_firstUnreadable;
};

} // namespace orx
