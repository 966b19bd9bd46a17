// put: one file, or whatever else is to go up.
#include "Interruption.h"
#include "Output.h"
#include "ProgressReport.h"
#include "Runner.h"
#include "UploadQuestion.h"

#include <ErrorText.h>
#include <ExitCodes.h>
#include <KnownContents.h>
#include <ResourceManager.h>
#include <TreeUploadJob.h>
#include <UploadPlanTask.h>

#include <QFileInfo>

#include <stop_token>

namespace halvane::cli {

using host::ExitCode;
using host::KnownContents;
using host::LocalTree;
using host::PlannedUpload;
using host::TreeUploadJob;
using host::UploadedFile;
using host::UploadedTree;
using host::UploadFileJob;
using host::UploadPlanTask;
using host::UploadPolicy;
using host::UploadReport;
using orx::Error;

namespace {

const QString goOnText = QStringLiteral(
    "When the reasons are gone, run the same command again: only what is missing is sent. With "
    "--retry nothing is read again that is there and was not touched since.");

QString withSummary(const QString& text, const QString& summary) {
    return summary.isEmpty() ? text : text + QStringLiteral(", ") + summary;
}

QString wordFor(UploadedFile::Outcome outcome) {
    switch (outcome) {
    case UploadedFile::Outcome::Uploaded:
        return QStringLiteral("uploaded");
    case UploadedFile::Outcome::Unchanged:
        return QStringLiteral("unchanged");
    case UploadedFile::Outcome::Skipped:
        break;
    }
    return QStringLiteral("skipped");
}

QString textFor(const UploadedFile& file, const QString& path, const QString& name) {
    switch (file.outcome) {
    case UploadedFile::Outcome::Uploaded:
        return QStringLiteral("%1 -> %2 as %3").arg(path, file.item.reference(), name);
    case UploadedFile::Outcome::Unchanged:
        return QStringLiteral("%1 is there already as %2, nothing was sent").arg(path, file.item.reference());
    case UploadedFile::Outcome::Skipped:
        break;
    }
    return QStringLiteral("%1 was left out, %2 has its name").arg(path, file.item.reference());
}

QString textFor(const UploadedTree& tree, const QString& path) {
    QStringList parts{QStringLiteral("%1 uploaded").arg(tree.uploaded)};
    const auto add = [&parts](int count, const char* what) {
        if (count > 0)
            parts.append(QStringLiteral("%1 %2").arg(QString::number(count), QLatin1String(what)));
    };
    add(tree.unchanged, "there already");
    add(tree.skipped, "skipped");
    add(tree.failed, "failed");
    add(tree.notTried, "not tried");
    add(tree.leftOut, "left out");
    add(tree.unexplained, "unexplained");
    const QString where = tree.folder.id > 0 ? tree.folder.reference() : QStringLiteral("nothing");
    return QStringLiteral("%1 -> %2: %3 %4, %5")
        .arg(path, where, QString::number(tree.files),
             tree.files == 1 ? QStringLiteral("file") : QStringLiteral("files"),
             parts.join(QStringLiteral(", ")));
}

QJsonObject jsonOf(const UploadedTree& tree) {
    return {{QStringLiteral("files"), tree.files},         {QStringLiteral("uploaded"), tree.uploaded},
            {QStringLiteral("unchanged"), tree.unchanged}, {QStringLiteral("skipped"), tree.skipped},
            {QStringLiteral("failed"), tree.failed},       {QStringLiteral("not_tried"), tree.notTried},
            {QStringLiteral("left_out"), tree.leftOut},    {QStringLiteral("unexplained"), tree.unexplained}};
}

TreeState treeOf(const TreeUploadJob& job, const Output& output) {
    const host::UploadState state = job.state();
    TreeState tree{state.filesDone,  state.filesTotal,     state.bytesDone,
                   state.bytesTotal, state.areTotalsKnown, QString()};
    if (!state.running.isEmpty())
        tree.running = output.shown(QFileInfo(state.running.first()).fileName());
    if (state.running.size() > 1)
        tree.running += QStringLiteral(" and %1 more").arg(state.running.size() - 1);
    if (state.waiting > 0)
        tree.running +=
            (tree.running.isEmpty() ? QStringLiteral("%1 waiting") : QStringLiteral(", %1 waiting"))
                .arg(state.waiting);
    return tree;
}

QJsonObject jsonOf(const PlannedUpload& planned) {
    const bool isThere = planned.existing.id != -1;
    return {{QStringLiteral("type"), QStringLiteral("planned")},
            {QStringLiteral("source"), planned.source},
            {QStringLiteral("path"), planned.entry.path},
            {QStringLiteral("as"), planned.entry.kindName()},
            {QStringLiteral("size"), planned.entry.bytes},
            {QStringLiteral("action"), planned.actionName()},
            {QStringLiteral("name"), planned.name},
            {QStringLiteral("existing"), isThere ? QJsonValue(planned.existing.reference()) : QJsonValue()}};
}

// "new version  raw data  1.2 GiB  2026/run1.raw  run1.raw.vonk (file:12@3)"
QStringList rowOf(const PlannedUpload& planned, const Output& output) {
    QString name = output.shown(planned.name);
    if (planned.existing.id != -1)
        name += QStringLiteral(" (%1)").arg(planned.existing.reference());
    const bool isFolder = planned.entry.kind == host::LocalEntry::Kind::Directory;
    return {planned.actionName().replace(u'_', u' '), planned.entry.kindName(),
            isFolder ? QStringLiteral("-") : bytesText(planned.entry.bytes), output.shown(planned.entry.path),
            name};
}

// "2026/sub/ (12 files)  not_tried  The upload ended before its turn came."; "2026/empty/  not_tried  ..."
QStringList rowOf(const host::NotTriedPath& path, const Output& output) {
    QString shown = QStringLiteral("  ") + output.shown(path.path);
    if (path.isDirectory)
        shown += path.files == 0   ? QStringLiteral("/")
                 : path.files == 1 ? QStringLiteral("/ (1 file)")
                                   : QStringLiteral("/ (%1 files)").arg(path.files);
    return {shown, QStringLiteral("not_tried"), output.shown(path.text)};
}

KnownContents::ByPath knownOf(const QStringList& paths) {
    KnownContents::ByPath known;
    for (const QString& path : paths)
        known.insert(KnownContents(LocalTree::sourceOf(path)).read());
    return known;
}

bool isPlainDirectory(const host::UploadRequest& request) {
    return QFileInfo(request.localPath).isDir() && (request.asFile || !UploadFileJob::isRawData(request));
}

} // namespace

int Runner::operator()(const PutCommand& command) {
    return command.isTree || isPlainDirectory(command.single) ? putTree(command) : putFile(command.single);
}

// ---- one file

int Runner::putFile(const host::UploadRequest& request) {
    if (const Error error = UploadFileJob::checkLocalFile(request); error.hasError())
        return m_output.error(error);
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    if (!request.keepInCache)
        orx::ResourceManager::setCache(nullptr);
    const QFileInfo file(request.localPath);
    UploadFileJob job(request);
    QString summary;
    Error error;
    {
        const ProgressReport progress(m_output.shown(file.fileName()), m_global.quiet);
        error = run(job);
        summary = progress.summary();
    }
    if (error.hasError())
        return job.item().id > 0 ? stoppedAfterUpload(error, job) : transferFailed(error, summary);
    const QString how = job.foundCommitted() ? QStringLiteral("%1 -> %2 as %3, finished by an earlier run")
                                             : QStringLiteral("%1 -> %2 as %3");
    const QString text =
        how.arg(m_output.shown(request.localPath), job.item().reference(), m_output.shown(job.item().name));
    m_output.item(job.item(), file.absoluteFilePath(),
                  job.foundCommitted() ? QStringLiteral("found") : QStringLiteral("uploaded"),
                  withSummary(text, summary));
    waitForCache((*resources)->cache());
    return int(ExitCode::Success);
}

// Unless metadata are missing, the same command once more would make another file or version.
int Runner::stoppedAfterUpload(const Error& error, const UploadFileJob& job) {
    if (!error.isCanceled())
        return m_output.error(error);
    const QString next = job.metadataMissing()
                             ? QStringLiteral("run the same command again to attach its metadata.")
                             : QStringLiteral("putting it again makes another one.");
    return m_output.error(error, QStringLiteral("Interrupted, but the file is on the server as %1; %2")
                                     .arg(job.item().reference(), next));
}

// The file is safe on the server; its copy here is a convenience that may fail or be given up.
void Runner::waitForCache(orx::ResourceCache& cache) {
    m_interruption.watch([&cache] { cache.dropPending(); });
    const QStringList failures = cache.waitForPending();
    m_interruption.watch(std::function<void()>());
    if (Interruption::wasRequested())
        return;
    for (const QString& failure : failures)
        m_output.warnings({QStringLiteral("The file is on the server, but no copy of it is in the cache: %1")
                               .arg(failure)});
}

// ---- anything else

int Runner::putTree(const PutCommand& command) {
    if (!command.single.name.isEmpty() || !command.single.alias.isEmpty() || command.single.metadata)
        return m_output.error(Error(orx::ErrorCode::InvalidArgument,
                                    QStringLiteral("--as, --alias and --metadata are for a single file, and "
                                                   "\"%1\" is a directory.")
                                        .arg(command.single.localPath)));
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    if (!command.tree.keepInCache)
        orx::ResourceManager::setCache(nullptr);
    const QString name = command.tree.paths.size() == 1
                             ? m_output.shown(QFileInfo(command.tree.paths.first()).fileName())
                             : QStringLiteral("%1 paths").arg(command.tree.paths.size());
    ProgressReport progress(name, m_global.quiet);
    const KnownContents::ByPath known = knownOf(command.tree.paths);
    const auto options = UploadPolicy::optionsOf(command.tree, TerminalLine::isPossible(), known);
    if (command.dryRun)
        return printPlan(command.tree, options);
    TreeUploadJob job(command.tree, options);
    UploadQuestion question(job.policy(), m_output, progress, [&job] { job.cancel(); });
    progress.setTree([&job, this] { return treeOf(job, m_output); });
    QObject::connect(&job, &TreeUploadJob::fileDone, [&](const UploadedFile& file, bool isSource) {
        progress.hide();
        m_output.item(file.item, file.path, wordFor(file.outcome),
                      isSource ? textFor(file, m_output.shown(file.path), m_output.shown(file.item.name))
                               : QString());
    });
    const Error error = run(job);
    progress.hide();
    keepKnown(job, known);
    if (!job.hasBegun())
        return transferFailed(error, {});
    const int exitCode = endUpload(job, error, progress.summary());
    if (command.tree.keepInCache)
        waitForCache((*resources)->cache());
    return exitCode;
}

void Runner::keepKnown(const TreeUploadJob& job, const KnownContents::ByPath& before) const {
    for (const LocalTree& tree : job.trees()) {
        const Error kept = KnownContents(tree.source).write(job.account().knownContents(tree, before));
        if (kept.hasError())
            m_output.warnings({kept.errorMessage()});
    }
}

int Runner::printPlan(const host::TreeUploadRequest& request, const UploadPolicy::Options& options) {
    UploadPlanTask plan(request, options);
    if (const Error error = run(plan); error.hasError())
        return m_output.error(error);
    QList<QStringList> rows;
    int files = 0;
    qint64 bytes = 0;
    for (const PlannedUpload& planned : plan.planned()) {
        files += planned.isSent() ? 1 : 0;
        bytes += planned.isSent() ? planned.entry.bytes : 0;
        if (m_output.isJson())
            m_output.result(jsonOf(planned), {});
        else
            rows.append(rowOf(planned, m_output));
    }
    m_output.table(rows);
    m_output.result({{QStringLiteral("type"), QStringLiteral("plan")},
                     {QStringLiteral("files"), files},
                     {QStringLiteral("bytes"), bytes}},
                    QStringLiteral("%1 files, %2 would be sent; nothing was")
                        .arg(QString::number(files), bytesText(bytes)));
    printRemarks(plan.trees());
    printLeftOut(plan.report());
    m_output.failures(plan.report().failures, QStringLiteral("would fail:"));
    return int(ExitCode::Success);
}

void Runner::printRemarks(const QList<LocalTree>& trees) const {
    for (const LocalTree& tree : trees)
        m_output.warnings(tree.remarks);
}

void Runner::printTrees(const UploadReport& report, const QString& summary) const {
    for (const UploadedTree& tree : report.trees) {
        if (!tree.isFolder)
            continue;
        const bool isWhole = tree.failed == 0 && tree.notTried == 0 && tree.unexplained == 0;
        m_output.item(tree.folder, tree.path,
                      isWhole ? QStringLiteral("uploaded") : QStringLiteral("incomplete"),
                      withSummary(textFor(tree, m_output.shown(tree.path)),
                                  report.trees.size() == 1 ? summary : QString()),
                      jsonOf(tree));
    }
}

// A script gets each path that was not tried, people directories nothing of which was.
void Runner::printLeftOut(const UploadReport& report) const {
    QList<QStringList> rows;
    for (const host::LeftOutPath& path : report.leftOut) {
        if (m_output.isJson())
            m_output.result({{QStringLiteral("type"), QStringLiteral("left_out")},
                             {QStringLiteral("source"), path.source},
                             {QStringLiteral("path"), path.path},
                             {QStringLiteral("reason"), path.reason},
                             {QStringLiteral("message"), path.text}},
                            {});
        if (path.reason != u"not_tried")
            rows.append(
                {QStringLiteral("  ") + m_output.shown(path.path), path.reason, m_output.shown(path.text)});
    }
    for (const host::NotTriedPath& path : report.notTried)
        rows.append(rowOf(path, m_output));
    m_output.notes(QStringLiteral("left out:"), rows);
}

// What came and what vanished meanwhile is told too; after an interruption nobody waits for that.
QList<LocalTree> Runner::treesNow(const TreeUploadJob& job) {
    QStringList sources;
    for (const LocalTree& tree : job.trees())
        sources.append(tree.source);
    const auto now = std::make_shared<QList<LocalTree>>();
    std::stop_source stop;
    m_interruption.watch([&stop] { stop.request_stop(); });
    const Error scanned = runOnWorker(QStringLiteral("LookAgain"), [now, sources, &stop]() -> Error {
        *now = LocalTree::scan(sources, stop.get_token());
        return {};
    });
    m_interruption.watch(std::function<void()>());
    return scanned.hasError() || Interruption::wasRequested() ? job.trees() : *now;
}

int Runner::endUpload(const TreeUploadJob& job, const Error& error, const QString& summary) {
    const UploadReport report = job.report(treesNow(job));
    printRemarks(job.trees());
    printTrees(report, summary);
    printLeftOut(report);
    m_output.failures(report.failures, QStringLiteral("not uploaded:"));
    if (error.isCanceled())
        return transferFailed(error, {});
    if (report.failures.isEmpty() && report.unexplained == 0)
        return error.hasError() ? m_output.error(error) : int(ExitCode::Success);
    if (report.failures.isEmpty())
        return m_output.failedRun(int(ExitCode::PartlyFailed), QStringLiteral("PartlyFailed"),
                                  QStringLiteral("%1 paths have neither gone up nor a reason. Run the same "
                                                 "command again: only what is missing is sent.")
                                      .arg(report.unexplained));
    if (report.done == 0) {
        const Error& first = report.failures.first().error;
        return m_output.failedRun(int(host::exitCodeOf(first)), host::errorName(first.domain(), first.code()),
                                  QStringLiteral("Nothing was uploaded. %1").arg(goOnText));
    }
    return m_output.failedRun(
        int(ExitCode::PartlyFailed), QStringLiteral("PartlyFailed"),
        QStringLiteral("%1 failed, %2 files are there. %3")
            .arg(QString::number(report.failures.size()), QString::number(report.done), goOnText));
}

} // namespace halvane::cli
