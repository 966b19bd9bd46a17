#include "ClashQuestion.h"
#include "Interruption.h"
#include "Output.h"
#include "ProgressReport.h"
#include "Runner.h"

#include <DownloadJob.h>
#include <ErrorText.h>
#include <ExitCodes.h>

namespace halvane::cli {

using host::DownloadedFile;
using host::DownloadedFolder;
using host::DownloadJob;
using host::ExitCode;
using orx::Error;
using Outcome = DownloadedFile::Outcome;

namespace {

QString withSummary(const QString& text, const QString& summary) {
    return summary.isEmpty() ? text : text + QStringLiteral(", ") + summary;
}

QString wordFor(Outcome outcome) {
    switch (outcome) {
    case Outcome::Downloaded:
        return QStringLiteral("downloaded");
    case Outcome::Unchanged:
        return QStringLiteral("unchanged");
    case Outcome::Skipped:
        break;
    }
    return QStringLiteral("skipped");
}

QString textFor(const DownloadedFile& file, const QString& path, const QString& summary) {
    switch (file.outcome) {
    case Outcome::Downloaded:
        return withSummary(QStringLiteral("%1 -> %2").arg(file.item.reference(), path),
                           file.fromCache ? QStringLiteral("from the cache") : summary);
    case Outcome::Unchanged:
        return QStringLiteral("%1 is there already with the content of %2, nothing was fetched")
            .arg(path, file.item.reference());
    case Outcome::Skipped:
        break;
    }
    return QStringLiteral("%1 is there already and stays, %2 was not fetched")
        .arg(path, file.item.reference());
}

QString textFor(const DownloadedFolder& folder, const QString& path) {
    QStringList parts{QStringLiteral("%1 downloaded").arg(folder.downloaded)};
    const auto add = [&parts](int count, const char* what) {
        if (count > 0)
            parts.append(QStringLiteral("%1 %2").arg(QString::number(count), QLatin1String(what)));
    };
    add(folder.unchanged, "there already");
    add(folder.skipped, "skipped");
    add(folder.failed, "failed");
    add(folder.notTried, "not tried");
    return QStringLiteral("%1 -> %2: %3 %4, %5")
        .arg(folder.item.reference(), path, QString::number(folder.files),
             folder.files == 1 ? QStringLiteral("file") : QStringLiteral("files"),
             parts.join(QStringLiteral(", ")));
}

QJsonObject jsonOf(const DownloadedFolder& folder) {
    return {
        {QStringLiteral("files"), folder.files},         {QStringLiteral("downloaded"), folder.downloaded},
        {QStringLiteral("unchanged"), folder.unchanged}, {QStringLiteral("skipped"), folder.skipped},
        {QStringLiteral("failed"), folder.failed},       {QStringLiteral("not_tried"), folder.notTried}};
}

std::optional<TreeState> treeOf(const DownloadJob& job) {
    if (job.isSingleFile())
        return std::nullopt;
    const host::DownloadState state = job.state();
    return TreeState{state.filesDone, state.filesTotal, state.bytesDone, state.bytesTotal,
                     state.areTotalsKnown};
}

} // namespace

int Runner::operator()(const GetCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    host::DownloadRequest request = command.request;
    request.maxCachedBytes = (*resources)->limits().maxBytes;
    const QString name = request.sources.size() == 1
                             ? m_output.shown(request.sources.first())
                             : QStringLiteral("%1 things").arg(request.sources.size());
    ProgressReport progress(name, m_global.quiet);
    DownloadJob job(request, TerminalLine::isPossible());
    const ClashQuestion question(job.answerer(), m_output, progress);
    progress.setTree([&job] { return treeOf(job); });
    QObject::connect(&job, &DownloadJob::fileDone, [&](const DownloadedFile& file, bool isSource) {
        progress.hide();
        m_output.warnings(file.warnings);
        const QString path = m_output.shown(file.path);
        const QString summary = job.isSingleFile() ? progress.summary() : QString();
        m_output.item(file.item, file.path, wordFor(file.outcome),
                      isSource || file.isRenamed ? textFor(file, path, summary) : QString(),
                      {{QStringLiteral("from_cache"), file.fromCache}});
    });
    QObject::connect(&job, &DownloadJob::folderDone, [&](const DownloadedFolder& folder) {
        progress.hide();
        const bool isWhole = folder.failed == 0 && folder.notTried == 0;
        m_output.item(folder.item, folder.path,
                      isWhole ? QStringLiteral("downloaded") : QStringLiteral("incomplete"),
                      withSummary(textFor(folder, m_output.shown(folder.path)),
                                  command.request.sources.size() == 1 ? progress.summary() : QString()),
                      jsonOf(folder));
    });
    const Error error = runQuietly(job);
    progress.hide();
    if (error.hasError() && job.isSingleFile())
        return transferFailed(error, progress.summary());
    return endDownload(job, error);
}

int Runner::endDownload(const DownloadJob& job, const Error& error) {
    const QList<host::DownloadFailure> failures = job.failures();
    m_output.failures(failures);
    if (error.isCanceled() || (error.hasError() && failures.isEmpty()))
        return transferFailed(error, {});
    if (failures.isEmpty())
        return int(ExitCode::Success);
    const QString goOn = QStringLiteral(
        "When the reasons are gone, run the same command again: only what is missing is fetched.");
    if (job.doneFileCount() == 0 && job.doneFolderCount() == 0)
        return m_output.failedRun(
            int(host::exitCodeOf(failures.first().error)),
            host::errorName(failures.first().error.domain(), failures.first().error.code()),
            QStringLiteral("Nothing was downloaded. %1").arg(goOn));
    return m_output.failedRun(
        int(ExitCode::PartlyFailed), QStringLiteral("PartlyFailed"),
        QStringLiteral("%1 failed, %2 files are here. %3")
            .arg(QString::number(failures.size()), QString::number(job.doneFileCount()), goOn));
}

} // namespace halvane::cli
