#include "SummaryReaders.h"

#include "FileStamp.h"
#include "FrameCatalogue.h"
#include "RunCollector.h"
#include "TextNumbers.h"

#include <QFile>

namespace orx {

namespace {

//! What the database engine may do for a catalogue of this size: many times what its rows take, and an end to
//! what is made up to take long.
qint64 mostSteps(const QString& path) {
    const auto stamp = FileStamp::of(QFile::encodeName(path));
    return 10'000'000 + 4 * (stamp ? stamp->size : 0);
}

std::optional<double> numberOf(const Result<QString>& text) {
    return text.hasError() ? std::nullopt : finiteNumber(text->toUtf8().toStdString());
}

void readProperties(FrameCatalogue& catalogue, RunCollector& collector) {
    // A catalogue without a property has frames all the same.
    collector.setInstrument(
        catalogue.property(QStringLiteral("InstrumentName")).valueOr(QString()).left(200));
    collector.setStartTime(
        catalogue.property(QStringLiteral("AcquisitionDateTime")).valueOr(QString()).left(200));
    const auto low = numberOf(catalogue.property(QStringLiteral("MzAcqRangeLower")));
    const auto high = numberOf(catalogue.property(QStringLiteral("MzAcqRangeUpper")));
    if (low && high && *low <= *high)
        collector.setMz({*low, *high});
}

} // namespace

Result<RunSummary> summariseFrames(const QString& path, const std::stop_token& stop) {
    auto catalogue = FrameCatalogue::open(path, stop, mostSteps(path));
    if (catalogue.hasError())
        return std::move(catalogue).error();
    ORX_RETURN_ON_ERROR((*catalogue)->checkIsTable("Frames"));
    // As they lie there, which is by a key of whole numbers: sorting what has none would take memory for all
    // of them. The trace is put in order afterwards, and only of a longer one are points that lie together
    // merged.
    auto rows = catalogue.value()->query(
        "SELECT Time, MsMsType, SummedIntensities, MaxIntensity FROM Frames NOT INDEXED");
    if (rows.hasError())
        return std::move(rows).error();
    RunCollector collector(MsDataKind::FrameCatalogue);
    const auto number = [&](int column) {
        return (*rows)->isNull(column) ? std::nullopt : std::optional((*rows)->number(column));
    };
    for (;;) {
        const auto hasRow = (*rows)->next();
        if (hasRow.hasError())
            return hasRow.error();
        if (!*hasRow)
            break;
        SpectrumFacts frame;
        frame.time = number(0);
        if (!(*rows)->isNull(1))
            frame.level = (*rows)->integer(1) == 0 ? 1 : 2;
        frame.totalIonCurrent = number(2);
        frame.basePeak = number(3);
        collector.add(frame);
    }
    readProperties(**catalogue, collector);
    return collector.build();
}

} // namespace orx
