#pragma once

#include "MsDataCheck.h"
#include "orx_common_ms_types_export.h"

#include <Result.h>

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

namespace orx {

//! Both ends belong to the range; lowest <= highest, both finite.
struct ValueRange {
    double lowest = 0;
    double highest = 0;

    //! Makes the range of \a range and \a value; a value that is not finite changes nothing.
    ORX_COMMON_MS_TYPES_EXPORT static void extend(std::optional<ValueRange>& range, double value);
    friend bool operator==(const ValueRange&, const ValueRange&) = default;
};

//! Total ion current and base peak over time, down-sampled: each point stands for a run of spectraPerPoint
//! spectra that follow each other in the acquisition.
struct IonCurrentTrace {
    //! The most points that a trace has.
    static constexpr int MAX_POINTS = 1000;

    struct Point {
        double retentionTime = 0; //!< seconds; of the spectrum with the highest total ion current of the run
        double totalIonCurrent = 0; //!< the highest of the run
        double basePeak = 0;        //!< the highest intensity of a base peak of the run
        friend bool operator==(const Point&, const Point&) = default;
    };

    QList<Point> points; //!< by ascending time; empty when no spectrum states a time and has an ion current
    //! The MS level of the spectra that the trace is of; 0: of all spectra, since none is of level 1.
    int msLevel = 0;
    qint64 spectraPerPoint = 1; //!< a power of two; the last run may be shorter
    friend bool operator==(const IonCurrentTrace&, const IonCurrentTrace&) = default;
};

//! What a run holds, counted from its spectra: counts and indexes that the source declares are not used.
//! A value; thread: any.
struct RunSummary {
    MsDataKind kind = MsDataKind::None;
    //! Spectra by MS level; level 0: spectra that state none. For a frame catalogue a frame is a spectrum.
    QMap<int, qint64> spectraByLevel;
    //! Observed m/z as far as the source states it, else of its arrays, else of its scan windows; absent when
    //! there is none of these.
    std::optional<ValueRange> mz;
    //! Seconds, whatever the units of the source; absent when no spectrum states a time.
    std::optional<ValueRange> retentionTime;
    IonCurrentTrace trace;
    QString instrument; //!< the model as the source names it; empty: not stated
    QString startTime;  //!< ISO 8601 as the source writes it; empty: not stated
    //! For people: what was left out or differs from what the source declares, and why.
    QStringList notes;

    ORX_COMMON_MS_TYPES_EXPORT qint64 spectrumCount() const;
    //! The form that is stored: docs/raw-data.md lists the keys. Absent values are absent keys.
    ORX_COMMON_MS_TYPES_EXPORT QJsonObject toJson() const;
    //! Reads what toJson() gives; unknown keys are ignored. ParseError, naming the key, for anything else.
    ORX_COMMON_MS_TYPES_EXPORT static Result<RunSummary> fromJson(const QJsonObject& json);

    friend bool operator==(const RunSummary&, const RunSummary&) = default;
};

//! How a summary, or the reason why there is none, is stored: {"available": true, "summary": {...}} or
//! {"available": false, "reason": "..."}.
ORX_COMMON_MS_TYPES_EXPORT QJsonObject summaryRecord(const Result<RunSummary>& summary);

} // namespace orx
