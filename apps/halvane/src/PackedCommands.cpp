// Packed acquisitions, and what becomes one. Only the inspection of what is on the server asks one.
#include "Interruption.h"
#include "Output.h"
#include "PackedTexts.h"
#include "ProgressReport.h"
#include "Runner.h"
#include "TextForms.h"

#include <AsyncVonkTask.h>
#include <ErrorText.h>
#include <ExitCodes.h>
#include <HalvaneError.h>
#include <HalvaneGetVonkMetadataTask.h>
#include <HalvaneResourceReference.h>
#include <MsDataFileUtils.h>
#include <PackedFileTasks.h>
#include <RunPlot.h>
#include <RunSummaries.h>
#include <UpgradeVonkTask.h>
#include <Vonk.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>

#include <stop_token>

namespace halvane::cli {

using host::ExitCode;
using orx::Error;
using orx::ErrorCode;
using orx::MsDataCheck;
using orx::MsDataFileUtils;
using orx::Result;
using orx::RunSummary;
using orx::vonk::Vonk;
using orx::vonk::VonkMetadata;

namespace {

QString absolute(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

//! \a error without what is true of uploads only.
QString textOf(const Error& error) {
    return error.errorMessage().isEmpty() ? host::errorText(error) : error.errorMessage();
}

//! A packed file with paths that are not allowed is damaged; nobody gave a wrong argument.
Error ofPackedFile(const Error& error) {
    return error.is(ErrorCode::InvalidArgument) ? Error(ErrorCode::ParseError, error.errorMessage()) : error;
}

Result<VonkMetadata> metadataOf(const QString& path) {
    Vonk vonk(path);
    if (const Error error = vonk.open(); error.hasError())
        return ofPackedFile(error);
    if (const Error error = vonk.validate(); error.hasError())
        return ofPackedFile(error);
    return vonk.metadata();
}

//! Where what is made of \a path goes: beside it, or as asked for; under \a name unless a name was asked for.
Result<QString> targetFor(const QString& path, const QString& name, const QString& output) {
    if (output.isEmpty())
        return QFileInfo(absolute(path)).dir().filePath(name);
    if (QFileInfo(output).isDir())
        return QDir(absolute(output)).filePath(name);
    const QString parent = output.endsWith(u'/') ? absolute(output) : QFileInfo(absolute(output)).path();
    if (output.endsWith(u'/') || !QFileInfo(parent).isDir())
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("The directory \"%1\" does not exist; make it first.").arg(parent));
    return absolute(output);
}

Error checkReadable(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists())
        return Error(ErrorCode::NotFound,
                     (info.isSymLink() ? QStringLiteral("\"%1\" is a link to what does not exist.")
                                       : QStringLiteral("\"%1\" does not exist."))
                         .arg(path));
    if (!info.isReadable())
        return Error(ErrorCode::FileNotReadable,
                     QStringLiteral("\"%1\" cannot be read; its access rights forbid it.").arg(path));
    return {};
}

Result<Inspection> inspectedRawData(const QString& path, const MsDataCheck& check, std::stop_token stop) {
    Inspection inspection{absolute(path), false, 0, check.companions, {}};
    inspection.metadata.name = QFileInfo(inspection.path).fileName();
    inspection.metadata.sourceKind = msDataKindId(check.kind);
    const Result<RunSummary> run = orx::summarise(path, std::move(stop));
    if (run.error().isCanceled())
        return run.error();
    if (run)
        inspection.metadata.runSummary = run->toJson();
    else
        inspection.metadata.runSummaryAbsent = run.errorMessage();
    return inspection;
}

Result<Inspection> inspectedAt(const QString& path, std::stop_token stop) {
    ORX_RETURN_ON_ERROR(checkReadable(path));
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    if (check.isValid())
        return inspectedRawData(path, check, std::move(stop));
    if (check.kind != orx::MsDataKind::None || QFileInfo(path).isDir())
        return Error(ErrorCode::ParseError,
                     QStringLiteral("\"%1\" is no packed acquisition, nor complete raw data: %2")
                         .arg(path, check.reason));
    auto metadata = metadataOf(path);
    ORX_RETURN_ON_ERROR(metadata.error());
    return Inspection{absolute(path), true, QFileInfo(path).size(), {}, *std::move(metadata)};
}

//! Anything that is here is meant; else a reference, or a path that can be one on the server.
bool isOnServer(const QString& text) {
    const QFileInfo here(text);
    return !here.exists() && !here.isSymLink() && !host::ResolveItemTask::checkText(text).hasError();
}

QString nameOf(const Inspection& inspection) {
    return inspection.reference.isEmpty() ? inspection.path : inspection.reference;
}

Error drawInto(const QString& plotPath, const Inspection& inspection) {
    const VonkMetadata& metadata = inspection.metadata;
    if (!metadata.runSummary)
        return Error(
            ErrorCode::NotFound,
            host::joinedSentences(QStringLiteral("There is nothing to be drawn: \"%1\" has no run summary.")
                                      .arg(nameOf(inspection)),
                                  metadata.runSummaryAbsent));
    const auto run = RunSummary::fromJson(*metadata.runSummary);
    ORX_RETURN_ON_ERROR(run.error());
    const auto picture = host::drawRun(*run, metadata.name, *host::plotFormatOf(plotPath));
    ORX_RETURN_ON_ERROR(picture.error());
    return host::writeNewFile(plotPath, *picture);
}

} // namespace

Error Runner::runWithPercents(orx::BaseTask& task, const QString& doing, const QString& path) {
    const QString name = doing + u' ' + m_output.shown(QFileInfo(absolute(path)).fileName());
    ProgressReport report(name, m_global.quiet);
    QElapsedTimer elapsed;
    elapsed.start();
    int percent = 0;
    const auto connection = QObject::connect(&task, &orx::BaseTask::progress, &task,
                                             [&percent](int value, int) { percent = value; });
    report.setLine([&] {
        const qint64 left = percent > 0 ? elapsed.elapsed() * (100 - percent) / percent / 1000 : -1;
        return percentText(name, percent, std::chrono::seconds(left));
    });
    const Error error = run(task);
    QObject::disconnect(connection);
    return error;
}

int Runner::localWorkFailed(const Error& error, const QString& path) {
    if (error.isCanceled())
        return m_output.error(error, QStringLiteral("Interrupted; nothing was made of \"%1\".").arg(path));
    return m_output.error(error, textOf(error));
}

int Runner::operator()(const PackCommand& command) {
    if (const Error error = checkReadable(command.path); error.hasError())
        return m_output.error(error);
    const auto target = targetFor(
        command.path, QFileInfo(absolute(command.path)).fileName() + QStringLiteral(".vonk"), command.output);
    if (target.hasError())
        return m_output.error(target.error());
    QElapsedTimer elapsed;
    elapsed.start();
    orx::AsyncVonkTask task(orx::vonk::PackInput::fromMs(command.path), orx::FilePath(*target));
    if (const Error error = runWithPercents(task, QStringLiteral("packing"), command.path); error.hasError())
        return localWorkFailed(
            error.is(ErrorCode::AlreadyExists)
                ? host::withMessage(
                      error,
                      host::joinedSentences(error.errorMessage(),
                                            QStringLiteral("Choose another name with -o, or move it away.")))
                : error,
            command.path);
    const auto metadata = metadataOf(*target);
    if (metadata.hasError())
        return m_output.error(metadata.error());
    const qint64 size = QFileInfo(*target).size();
    QJsonObject object = jsonOfPacked(*target, size, *metadata);
    object[QStringLiteral("outcome")] = QStringLiteral("packed");
    object[QStringLiteral("source")] = absolute(command.path);
    QString text = QStringLiteral("%1 -> %2, %3 to %4 in %5")
                       .arg(m_output.shown(command.path), m_output.shown(*target), contentText(*metadata),
                            bytesText(size), durationText(std::chrono::seconds(elapsed.elapsed() / 1000)));
    if (!metadata->runSummary)
        text += QStringLiteral("; without a run summary: ") + m_output.shown(metadata->runSummaryAbsent);
    m_output.result(object, text);
    return int(ExitCode::Success);
}

int Runner::operator()(const UnpackCommand& command) {
    host::UnpackIntoTask task(command.path, command.directory);
    if (const Error error = runWithPercents(task, QStringLiteral("unpacking"), command.path);
        error.hasError())
        return localWorkFailed(ofPackedFile(error), command.path);
    const VonkMetadata& metadata = task.metadata();
    m_output.result(
        {{QStringLiteral("type"), QStringLiteral("raw_data")},
         {QStringLiteral("outcome"), QStringLiteral("unpacked")},
         {QStringLiteral("path"), task.paths().last()},
         {QStringLiteral("paths"), QJsonArray::fromStringList(task.paths())},
         {QStringLiteral("source"), absolute(command.path)},
         {QStringLiteral("name"), metadata.name},
         {QStringLiteral("source_kind"), metadata.sourceKind},
         {QStringLiteral("files"), fileCountOf(metadata)},
         {QStringLiteral("content_size"), metadata.totalSize()}},
        QStringLiteral("%1 -> %2, %3")
            .arg(m_output.shown(command.path), m_output.shown(task.paths().last()), contentText(metadata)));
    return int(ExitCode::Success);
}

Result<Inspection> Runner::inspected(const QString& path) {
    std::stop_source stop;
    m_interruption.watch([&stop] { stop.request_stop(); });
    Inspection inspection;
    const Error error = runOnWorker(QStringLiteral("Inspect"), [&]() -> Error {
        auto found = inspectedAt(path, stop.get_token());
        ORX_RETURN_ON_ERROR(found.error());
        inspection = *std::move(found);
        return {};
    });
    m_interruption.watch(std::function<void()>());
    ORX_RETURN_ON_ERROR(error);
    return inspection;
}

Result<Inspection> Runner::inspectedOnServer(const QString& reference) {
    const bool isReference = orx::HalvaneReferenceText::looksLikeReference(reference);
    const auto session = host::Session::open(m_global.profile);
    if (session.hasError())
        return isReference ? session.error() : checkReadable(reference);
    const auto item = resolve(reference, Wanted::File);
    if (!isReference && orx::isHalvaneError(item.error(), orx::HalvaneServerErrorCode::NotFound))
        return Error(ErrorCode::NotFound,
                     QStringLiteral("\"%1\" exists neither here nor on the server.").arg(reference));
    ORX_RETURN_ON_ERROR(item.error());
    orx::HalvaneGetVonkMetadataTask task({item->id, item->version, item->name});
    const Error error = run(task);
    ORX_RETURN_ON_ERROR(ofPackedFile(error));
    return Inspection{{}, true, item->size, {}, task.metadata(), item->reference()};
}

int Runner::operator()(const InspectCommand& command) {
    if (!command.plotPath.isEmpty() && QFileInfo(command.plotPath).exists())
        return m_output.error(Error(
            ErrorCode::AlreadyExists,
            QStringLiteral("\"%1\" exists already; choose another name for the picture, or move it away.")
                .arg(command.plotPath)));
    const auto found = isOnServer(command.path) ? inspectedOnServer(command.path) : inspected(command.path);
    if (found.hasError())
        return localWorkFailed(found.error(), command.path);
    QJsonObject object = jsonOf(*found);
    if (!command.plotPath.isEmpty()) {
        if (const Error error = drawInto(command.plotPath, *found); error.hasError())
            return m_output.error(error);
        object[QStringLiteral("plot")] = absolute(command.plotPath);
    }
    if (m_output.isJson()) {
        m_output.result(object, {});
        return int(ExitCode::Success);
    }
    const auto shown = [this](const QString& name) { return m_output.shown(name); };
    QList<QStringList> rows = rowsOf(*found, shown);
    if (!command.plotPath.isEmpty())
        rows.append({QStringLiteral("plot"), shown(absolute(command.plotPath))});
    m_output.table(rows);
    if (command.longFormat)
        m_output.table(entryRows(found->metadata, shown));
    return int(ExitCode::Success);
}

int Runner::operator()(const CheckCommand& command) {
    orx::vonk::CheckVonkTask task(command.path, command.isFull ? Vonk::Check::Full : Vonk::Check::Quick);
    task.setExecutionMode(orx::Task::ExecutionMode::Worker);
    if (const Error error = runWithPercents(task, QStringLiteral("checking"), command.path); error.hasError())
        return error.isCanceled()
                   ? m_output.error(
                         error,
                         QStringLiteral("Interrupted; \"%1\" was not checked to its end.").arg(command.path))
                   : localWorkFailed(ofPackedFile(error), command.path);
    const auto metadata = metadataOf(command.path);
    if (metadata.hasError())
        return m_output.error(metadata.error());
    QJsonObject object = jsonOfPacked(absolute(command.path), QFileInfo(command.path).size(), *metadata);
    object[QStringLiteral("outcome")] = QStringLiteral("intact");
    object[QStringLiteral("check")] = command.isFull ? QStringLiteral("full") : QStringLiteral("quick");
    const QString text = command.isFull ? QStringLiteral("%1: every byte is right, %2")
                                        : QStringLiteral("%1: complete, %2; --full reads every byte");
    m_output.result(object, m_global.quiet ? QString()
                                           : text.arg(m_output.shown(command.path), contentText(*metadata)));
    return int(ExitCode::Success);
}

int Runner::operator()(const UpgradeCommand& command) {
    return command.output.isEmpty() ? upgradeInPlace(command) : upgradeInto(command);
}

int Runner::upgradeInPlace(const UpgradeCommand& command) {
    host::UpgradeInPlaceTask task(command.path);
    const Error error = runWithPercents(task, QStringLiteral("upgrading"), command.path);
    if (error.isCanceled() && !task.isUpgraded())
        return m_output.error(error, QStringLiteral("Interrupted; \"%1\" stays as it is.").arg(command.path));
    if (error.hasError() && !error.isCanceled())
        return localWorkFailed(ofPackedFile(error), command.path);
    return printUpgraded(command.path, task.versionBefore(), task.isUpgraded());
}

int Runner::upgradeInto(const UpgradeCommand& command) {
    const auto before = metadataOf(command.path);
    if (before.hasError())
        return m_output.error(before.error());
    const bool isCurrent = before->formatVersion.majorVersion() == orx::vonk::vonkVersion().majorVersion();
    if (isCurrent)
        return m_output.error(Error(ErrorCode::InvalidArgument,
                                    QStringLiteral("\"%1\" has the current format %2 already; there is "
                                                   "nothing to upgrade, copy it instead.")
                                        .arg(command.path, before->formatVersion.toString())));
    const auto target = targetFor(command.path, QFileInfo(command.path).fileName(), command.output);
    if (target.hasError())
        return m_output.error(target.error());
    orx::vonk::UpgradeVonkTask task(command.path, *target);
    task.setExecutionMode(orx::Task::ExecutionMode::Worker);
    if (const Error error = runWithPercents(task, QStringLiteral("upgrading"), command.path);
        error.hasError())
        return localWorkFailed(ofPackedFile(error), command.path);
    return printUpgraded(*target, before->formatVersion, true);
}

int Runner::printUpgraded(const QString& path, const QVersionNumber& before, bool isUpgraded) {
    const auto metadata = metadataOf(path);
    if (metadata.hasError())
        return m_output.error(metadata.error());
    QJsonObject object = jsonOfPacked(absolute(path), QFileInfo(path).size(), *metadata);
    object[QStringLiteral("outcome")] = isUpgraded ? QStringLiteral("upgraded") : QStringLiteral("current");
    object[QStringLiteral("format_version_before")] = before.toString();
    const QString now = metadata->formatVersion.toString();
    m_output.result(
        object,
        isUpgraded
            ? QStringLiteral("%1: from format %2 to %3").arg(m_output.shown(path), before.toString(), now)
            : QStringLiteral("%1 has the current format %2 already; nothing was done")
                  .arg(m_output.shown(path), now));
    return int(ExitCode::Success);
}

} // namespace halvane::cli
