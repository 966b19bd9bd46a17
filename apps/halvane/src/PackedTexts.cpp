#include "PackedTexts.h"

#include "TextForms.h"

#include <RunSummary.h>

#include <QDateTime>
#include <QJsonArray>

#include <algorithm>

namespace halvane::cli {

using orx::RunSummary;
using orx::ValueRange;
using orx::vonk::VonkEntry;
using orx::vonk::VonkMetadata;

namespace {

QString spectraText(const RunSummary& run) {
    QStringList levels;
    for (auto level = run.spectraByLevel.begin(); level != run.spectraByLevel.end(); ++level)
        levels.append(
            (level.key() > 0 ? QStringLiteral("%1 of level %2") : QStringLiteral("%1 without a level"))
                .arg(level.value())
                .arg(level.key()));
    const QString count = QString::number(run.spectrumCount());
    return levels.isEmpty() ? count : count + QStringLiteral(": ") + levels.join(QStringLiteral(", "));
}

QString rangeText(const ValueRange& range, const QString& unit) {
    return QStringLiteral("%1 to %2%3")
        .arg(QString::number(range.lowest, 'f', 3), QString::number(range.highest, 'f', 3), unit);
}

QString ionCurrentText(const orx::IonCurrentTrace& trace) {
    const auto highest =
        std::max_element(trace.points.begin(), trace.points.end(),
                         [](const auto& a, const auto& b) { return a.totalIonCurrent < b.totalIonCurrent; });
    return QStringLiteral("%1 points, highest %2 at %3 s")
        .arg(QString::number(trace.points.size()), QString::number(highest->totalIonCurrent, 'g', 5),
             QString::number(highest->retentionTime, 'f', 3));
}

void appendSummary(QList<QStringList>& rows, const RunSummary& run, const Shown& shown) {
    rows.append({QStringLiteral("spectra"), spectraText(run)});
    if (run.mz)
        rows.append({QStringLiteral("m/z"), rangeText(*run.mz, {})});
    if (run.retentionTime)
        rows.append({QStringLiteral("retention time"), rangeText(*run.retentionTime, QStringLiteral(" s"))});
    if (!run.trace.points.isEmpty())
        rows.append({QStringLiteral("ion current"), ionCurrentText(run.trace)});
    if (!run.instrument.isEmpty())
        rows.append({QStringLiteral("instrument"), shown(run.instrument)});
    if (!run.startTime.isEmpty())
        rows.append({QStringLiteral("start time"), shown(run.startTime)});
    for (const QString& note : run.notes)
        rows.append({QStringLiteral("note"), shown(note)});
}

QJsonObject summaryObject(const VonkMetadata& metadata) {
    if (metadata.runSummary)
        return {{QStringLiteral("run_summary"), *metadata.runSummary}};
    return {{QStringLiteral("run_summary"), QJsonValue()},
            {QStringLiteral("run_summary_absent"), metadata.runSummaryAbsent}};
}

QString percentOf(qint64 part, qint64 whole) {
    return whole > 0 ? QStringLiteral(", %1 % of it").arg(qRound64(double(part) * 100 / double(whole)))
                     : QString();
}

} // namespace

qsizetype fileCountOf(const VonkMetadata& metadata) {
    return std::count_if(metadata.entries.begin(), metadata.entries.end(),
                         [](const VonkEntry& entry) { return entry.isFile(); });
}

QString contentText(const VonkMetadata& metadata) {
    const qsizetype files = fileCountOf(metadata);
    return QStringLiteral("%1 %2, %3")
        .arg(QString::number(files), files == 1 ? QStringLiteral("file") : QStringLiteral("files"),
             bytesText(metadata.totalSize()));
}

QJsonObject jsonOfPacked(const QString& path, qint64 size, const VonkMetadata& metadata) {
    return {{QStringLiteral("type"), QStringLiteral("packed_acquisition")},
            {QStringLiteral("path"), path},
            {QStringLiteral("size"), size},
            {QStringLiteral("format_version"), metadata.formatVersion.toString()},
            {QStringLiteral("name"), metadata.name},
            {QStringLiteral("source_kind"), metadata.sourceKind},
            {QStringLiteral("files"), fileCountOf(metadata)},
            {QStringLiteral("content_size"), metadata.totalSize()}};
}

QJsonObject jsonOf(const Inspection& inspection) {
    const VonkMetadata& metadata = inspection.metadata;
    QJsonObject object{{QStringLiteral("type"), QStringLiteral("raw_data")},
                       {QStringLiteral("path"), inspection.path},
                       {QStringLiteral("name"), metadata.name},
                       {QStringLiteral("source_kind"), metadata.sourceKind},
                       {QStringLiteral("companions"), QJsonArray::fromStringList(inspection.companions)}};
    if (inspection.isPacked) {
        object = jsonOfPacked(inspection.path, inspection.size, metadata);
        object[QStringLiteral("entries")] = metadata.toJson().value(QStringLiteral("entries"));
    }
    if (!inspection.reference.isEmpty()) {
        object[QStringLiteral("path")] = QJsonValue::Null;
        object[QStringLiteral("reference")] = inspection.reference;
    }
    const QJsonObject summary = summaryObject(metadata);
    for (auto key = summary.begin(); key != summary.end(); ++key)
        object[key.key()] = key.value();
    return object;
}

QList<QStringList> rowsOf(const Inspection& inspection, const Shown& shown) {
    const VonkMetadata& metadata = inspection.metadata;
    QList<QStringList> rows{
        inspection.reference.isEmpty() ? QStringList{QStringLiteral("path"), shown(inspection.path)}
                                       : QStringList{QStringLiteral("reference"), inspection.reference},
        {QStringLiteral("name"), shown(metadata.name)},
        {QStringLiteral("kind"),
         metadata.sourceKind.isEmpty() ? QStringLiteral("unknown") : shown(metadata.sourceKind)}};
    for (const QString& companion : inspection.companions)
        rows.append({QStringLiteral("with"), shown(companion)});
    if (inspection.isPacked)
        rows.append({{QStringLiteral("content"), contentText(metadata)},
                     {QStringLiteral("packed"),
                      bytesText(inspection.size) + percentOf(inspection.size, metadata.totalSize())},
                     {QStringLiteral("format"), metadata.formatVersion.toString()}});
    const auto run =
        metadata.runSummary
            ? RunSummary::fromJson(*metadata.runSummary)
            : orx::Result<RunSummary>(orx::Error(orx::ErrorCode::NotFound, metadata.runSummaryAbsent));
    if (run)
        appendSummary(rows, *run, shown);
    else
        rows.append({QStringLiteral("run summary"), QStringLiteral("none. ") + shown(run.errorMessage())});
    return rows;
}

QList<QStringList> entryRows(const VonkMetadata& metadata, const Shown& shown) {
    QList<QStringList> rows;
    for (const VonkEntry& entry : metadata.entries)
        rows.append({entry.isFile() ? bytesText(entry.size) : QStringLiteral("-"),
                     timeText(QDateTime::fromSecsSinceEpoch(entry.modified.seconds)),
                     shown(entry.path.mid(entry.path.indexOf(u'/') + 1)) +
                         (entry.isFile() ? QString() : QStringLiteral("/"))});
    return rows;
}

} // namespace halvane::cli
