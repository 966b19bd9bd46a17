#include "RunSummary.h"

#include <JsonUtils.h>

#include <QJsonArray>

#include <algorithm>
#include <cmath>

namespace orx {

namespace {

// The keys of the stored form.
const QString kKind = QStringLiteral("kind");
const QString kSpectraByLevel = QStringLiteral("spectra_by_level");
const QString kSpectra = QStringLiteral("spectra");
const QString kMz = QStringLiteral("mz");
const QString kRetentionTime = QStringLiteral("retention_time_s");
const QString kTrace = QStringLiteral("ion_current");
const QString kMsLevel = QStringLiteral("ms_level");
const QString kSpectraPerPoint = QStringLiteral("spectra_per_point");
const QString kTimes = QStringLiteral("time_s");
const QString kTotal = QStringLiteral("total");
const QString kBasePeak = QStringLiteral("base_peak");
const QString kInstrument = QStringLiteral("instrument");
const QString kStartTime = QStringLiteral("start_time");
const QString kNotes = QStringLiteral("notes");

Error wrongMember(const QString& key, const char* expected) {
    return Error(ErrorCode::ParseError, QStringLiteral("The member \"%1\" of a run summary is not %2.")
                                            .arg(key, QString::fromUtf8(expected)));
}

QJsonArray rangeJson(const ValueRange& range) {
    return {range.lowest, range.highest};
}

//! A JSON number of an array, if it is one and finite.
std::optional<double> numberAt(const QJsonArray& array, qsizetype index) {
    const QJsonValue value = array.at(index);
    return value.isDouble() && std::isfinite(value.toDouble()) ? std::optional(value.toDouble())
                                                               : std::nullopt;
}

Error readRange(const QJsonObject& json, const QString& key, std::optional<ValueRange>& range) {
    if (!json.contains(key))
        return Error();
    const QJsonArray ends = json.value(key).toArray();
    const auto lowest = numberAt(ends, 0);
    const auto highest = numberAt(ends, 1);
    if (ends.size() != 2 || !lowest || !highest || *lowest > *highest)
        return wrongMember(key, "an array of two ascending numbers");
    range = ValueRange{*lowest, *highest};
    return Error();
}

QJsonObject traceJson(const IonCurrentTrace& trace) {
    QJsonArray times;
    QJsonArray totals;
    QJsonArray basePeaks;
    for (const IonCurrentTrace::Point& point : trace.points) {
        times.append(point.retentionTime);
        totals.append(point.totalIonCurrent);
        basePeaks.append(point.basePeak);
    }
    return {{kMsLevel, trace.msLevel},
            {kSpectraPerPoint, trace.spectraPerPoint},
            {kTimes, times},
            {kTotal, totals},
            {kBasePeak, basePeaks}};
}

Result<IonCurrentTrace> readTrace(const QJsonObject& json) {
    IonCurrentTrace trace;
    const auto level = JsonUtils::intValue(json, kMsLevel);
    if (level.hasError())
        return level.error();
    trace.msLevel = *level;
    const auto width = JsonUtils::int64Value(json, kSpectraPerPoint);
    if (width.hasError())
        return width.error();
    trace.spectraPerPoint = *width;
    const QJsonArray times = json.value(kTimes).toArray();
    const QJsonArray totals = json.value(kTotal).toArray();
    const QJsonArray basePeaks = json.value(kBasePeak).toArray();
    if (*level < 0 || *width < 1 || times.size() > IonCurrentTrace::MAX_POINTS ||
        times.size() != totals.size() || times.size() != basePeaks.size())
        return wrongMember(kTrace, "a trace of as many times as values");
    for (qsizetype i = 0; i < times.size(); ++i) {
        const auto time = numberAt(times, i);
        const auto total = numberAt(totals, i);
        const auto basePeak = numberAt(basePeaks, i);
        if (!time || !total || !basePeak)
            return wrongMember(kTrace, "a trace of numbers");
        trace.points.append({*time, *total, *basePeak});
    }
    return trace;
}

// Far more than there are.
constexpr qsizetype kMostLevels = 100;
constexpr qint64 kMostSpectra = qint64(1) << 53;

Error readLevels(const QJsonObject& json, QMap<int, qint64>& levels) {
    const auto counts = JsonUtils::objectValue(json, kSpectraByLevel);
    if (counts.hasError())
        return counts.error();
    qint64 sum = 0;
    for (auto it = counts->begin(); it != counts->end() && sum <= kMostSpectra; ++it) {
        bool isNumber = false;
        const int level = it.key().toInt(&isNumber);
        const auto count = JsonUtils::int64Value(*counts, it.key());
        if (!isNumber || level < 0 || count.hasError() || *count < 0)
            return wrongMember(kSpectraByLevel, "an object of counts by level");
        levels.insert(level, *count);
        sum += std::min(*count, kMostSpectra);
    }
    if (counts->size() > kMostLevels || sum > kMostSpectra)
        return wrongMember(kSpectraByLevel, "a few counts that can be added");
    return Error();
}

} // namespace

void ValueRange::extend(std::optional<ValueRange>& range, double value) {
    if (!std::isfinite(value))
        return;
    if (!range)
        range = ValueRange{value, value};
    range->lowest = std::min(range->lowest, value);
    range->highest = std::max(range->highest, value);
}

qint64 RunSummary::spectrumCount() const {
    qint64 count = 0;
    for (const qint64 ofLevel : spectraByLevel)
        count += ofLevel;
    return count;
}

QJsonObject RunSummary::toJson() const {
    QJsonObject levels;
    for (auto it = spectraByLevel.begin(); it != spectraByLevel.end(); ++it)
        levels.insert(QString::number(it.key()), it.value());
    QJsonObject json{{kKind, msDataKindId(kind)},
                     {kSpectra, spectrumCount()},
                     {kSpectraByLevel, levels},
                     {kTrace, traceJson(trace)}};
    if (mz)
        json.insert(kMz, rangeJson(*mz));
    if (retentionTime)
        json.insert(kRetentionTime, rangeJson(*retentionTime));
    if (!instrument.isEmpty())
        json.insert(kInstrument, instrument);
    if (!startTime.isEmpty())
        json.insert(kStartTime, startTime);
    if (!notes.isEmpty())
        json.insert(kNotes, QJsonArray::fromStringList(notes));
    return json;
}

Result<RunSummary> RunSummary::fromJson(const QJsonObject& json) {
    RunSummary summary;
    summary.kind = msDataKindFromId(json.value(kKind).toString());
    if (summary.kind == MsDataKind::None)
        return wrongMember(kKind, "a kind of raw data");
    ORX_RETURN_ON_ERROR(readLevels(json, summary.spectraByLevel));
    ORX_RETURN_ON_ERROR(readRange(json, kMz, summary.mz));
    ORX_RETURN_ON_ERROR(readRange(json, kRetentionTime, summary.retentionTime));
    const auto traceMember = JsonUtils::objectValue(json, kTrace);
    if (traceMember.hasError())
        return traceMember.error();
    auto trace = readTrace(*traceMember);
    if (trace.hasError())
        return trace.error();
    summary.trace = *std::move(trace);
    summary.instrument = json.value(kInstrument).toString();
    summary.startTime = json.value(kStartTime).toString();
    for (const auto note : json.value(kNotes).toArray())
        summary.notes.append(note.toString());
    return summary;
}

QJsonObject summaryRecord(const Result<RunSummary>& summary) {
    if (summary.hasError())
        return {{QStringLiteral("available"), false}, {QStringLiteral("reason"), summary.errorMessage()}};
    return {{QStringLiteral("available"), true}, {QStringLiteral("summary"), summary->toJson()}};
}

} // namespace orx
