#include "DownloadJob.h"

#include "ConcernsAll.h"
#include "FolderDownloadTask.h"
#include "RemotePath.h"
#include "ResolveItemTask.h"

#include <DownloadNames.h>
#include <TargetDirectories.h>
#include <WorkerStepTask.h>

#include <QDir>
#include <QFileInfo>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::ErrorCode;
using orx::Result;

namespace {

//! As many as a folder gives up after.
constexpr int hopelessInARow = 8;

Error noDirectory(const QString& path) {
    return Error(ErrorCode::FileNotWritable,
                 QStringLiteral("The directory \"%1\" does not exist; make it first.").arg(path));
}

// Durably: what is told as downloaded lies in it.
Error makeDirectory(const QString& path) {
    return QFileInfo(path).isDir() ? Error() : orx::TargetDirectories::makeInside(QDir(path).absolutePath());
}

Error merged(const QString& source, const QString& path, const QString& maker) {
    return Error(
        ErrorCode::InvalidArgument,
        QStringLiteral("\"%1\" would come as \"%2\", which is %3 of this same download, and nothing is "
                       "merged. Get it by a command of its own, with --as or another --to.")
            .arg(source, path, maker));
}

QString withoutTrailingSlashes(QString path) {
    while (path.size() > 1 && path.endsWith(u'/'))
        path.chop(1);
    return path;
}

} // namespace

DownloadJob::DownloadJob(const DownloadRequest& request, bool canBeAsked, QObject* parent)
    : ComplexTask(QStringLiteral("Download"), parent)
    , m_request(request)
    , m_answerer(*new ClashAnswerer(request.ifExists, canBeAsked, this))
    , m_unresolved(request.sources.begin(), request.sources.end()) {
    // Who quits ends the whole run; not at once, since a task is waiting for the answer.
    connect(&m_answerer, &ClashAnswerer::gaveUp, this, &DownloadJob::cancel, Qt::QueuedConnection);
}

DownloadJob::~DownloadJob() = default;

bool DownloadJob::isSingleFile() const {
    return m_request.sources.size() == 1 && !m_metFolder;
}

Error DownloadJob::initialize() {
    for (const QString& source : m_request.sources)
        ORX_RETURN_ON_ERROR(ResolveItemTask::checkText(source));
    ORX_RETURN_ON_ERROR(chooseTarget());
    resolveNext();
    return {};
}

Error DownloadJob::doFinish() {
    if (!hasError() && m_answerer.wantsToQuit())
        setError(Error(ErrorCode::Canceled, QStringLiteral("The download was given up.")));
    if (!hasError() && !m_failures.isEmpty())
        setError(m_failures.first().error);
    return ComplexTask::doFinish();
}

// What the sources are is not known yet: only what holds for files and folders alike is refused here.
Error DownloadJob::chooseTarget() {
    const QFileInfo target(withoutTrailingSlashes(m_request.targetPath));
    if (target.isDir()) {
        m_targetDir = target.absoluteFilePath();
        return {};
    }
    if (!QFileInfo(target.absolutePath()).isDir())
        return noDirectory(target.absolutePath());
    const bool mayBeFile =
        m_request.sources.size() == 1 && m_request.name.isEmpty() && !m_request.targetPath.endsWith(u'/');
    if (!mayBeFile && (target.exists() || target.isSymLink()))
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("\"%1\" is no directory.").arg(target.absoluteFilePath()));
    m_targetIsMissing = true;
    m_targetDir = target.absoluteFilePath();
    if (mayBeFile)
        m_targetName = target.fileName();
    return {};
}

// ---- what the sources are

void DownloadJob::resolveNext() {
    if (m_unresolved.empty()) {
        refuseSharedPaths();
        return makeTarget();
    }
    const QString source = m_unresolved.front();
    m_unresolved.pop_front();
    auto task = std::make_unique<ResolveItemTask>(source, ResolveItemTask::Wanted::Any);
    ResolveItemTask* raw = task.get();
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(task)),
        [this, raw, source](BaseTask*) {
            onResolved(source, raw->item());
            resolveNext();
        },
        [this, source](BaseTask* ended) {
            const Error error = ended->error();
            if (isCanceled() || concernsAll(error))
                return finish(error);
            fail(source, source, error);
            resolveNext();
        });
}

void DownloadJob::onResolved(const QString& source, const RemoteItem& remote) {
    m_metFolder = m_metFolder || remote.isFolder();
    const Result<QString> name = localNameOf(remote);
    if (name.hasError())
        return fail(source, source, name.error());
    if (remote.isFile()) {
        ++m_knownFiles;
        m_knownBytes += remote.size;
    }
    m_items.push_back({source, remote, name.value()});
}

Result<QString> DownloadJob::localNameOf(const RemoteItem& remote) const {
    if (!m_request.name.isEmpty())
        return m_request.name;
    if (remote.isFile() && !m_targetName.isEmpty())
        return m_targetName;
    if (remote.isFolder() && remote.id == RemoteItem::root().id)
        return QString();
    const Error problem = orx::DownloadNames::checkListed(remote.name);
    if (!problem.hasError())
        return remote.name;
    return Error(ErrorCode::InvalidArgument,
                 QStringLiteral("%1 The name on the server cannot be that of a local %2; give it another one "
                                "with --as, in the directory of --to.")
                     .arg(problem.errorMessage(),
                          remote.isFile() ? QStringLiteral("file") : QStringLiteral("directory")));
}

// Files of one name are a clash, which is answered as any other; what has a folder in it never.
void DownloadJob::refuseSharedPaths() {
    for (size_t later = 0; later < m_items.size();) {
        const Item& item = m_items[later];
        const Item* other = nullptr;
        bool isSame = false;
        for (size_t earlier = 0; earlier < later && !other; ++earlier) {
            const Item& candidate = m_items[earlier];
            const bool sharesPath =
                candidate.name == item.name || candidate.name.isEmpty() || item.name.isEmpty();
            if (sharesPath && (item.remote.isFolder() || candidate.remote.isFolder())) {
                other = &candidate;
                isSame = candidate.remote.type == item.remote.type && candidate.remote.id == item.remote.id;
            }
        }
        if (!other) {
            ++later;
            continue;
        }
        if (!isSame)
            fail(item.source, item.source,
                 Error(
                     ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" and \"%2\" would both come as \"%3\", and nothing is merged. Get "
                                    "them by commands of their own, with --as or another --to.")
                         .arg(other->source, item.source,
                              QDir(m_targetDir).filePath(item.name.isEmpty() ? other->name : item.name))));
        m_items.erase(m_items.begin() + std::ptrdiff_t(later));
    }
}

// ---- the transfer

void DownloadJob::makeTarget() {
    if (m_items.empty())
        return;
    const bool isFilePath = !m_targetName.isEmpty() && !m_metFolder;
    if (!m_targetIsMissing)
        return fetchNext();
    if (isFilePath) {
        m_targetDir = QFileInfo(m_targetDir).absolutePath();
        return fetchNext();
    }
    // A single file into a directory that is not there is rather a mistake.
    if (!m_metFolder && m_request.sources.size() == 1 && m_request.name.isEmpty())
        return finish(noDirectory(m_request.targetPath));
    if (const QFileInfo target(m_targetDir); target.exists() || target.isSymLink())
        return finish(
            Error(ErrorCode::FileNotWritable,
                  QStringLiteral("\"%1\" is no directory, and a folder needs one.").arg(m_targetDir)));
    execSubtask(std::unique_ptr<BaseTask>(std::make_unique<orx::WorkerStepTask>(
                    QStringLiteral("MakeTarget"), [path = m_targetDir] { return makeDirectory(path); })),
                [this](BaseTask*) { fetchNext(); });
}

void DownloadJob::fetchNext() {
    if (m_items.empty() || isCanceled() || m_answerer.wantsToQuit())
        return;
    const Item item = m_items.front();
    m_items.pop_front();
    if (item.remote.isFile())
        fetchFile(item);
    else
        fetchFolder(item);
}

void DownloadJob::fetchFile(const Item& item) {
    ItemDownloadTask::Wanted wanted;
    wanted.item = item.remote;
    wanted.directory = m_targetDir;
    wanted.name = item.name;
    wanted.useCache = m_request.useCache;
    wanted.packed = m_request.packed;
    wanted.maxCachedBytes = m_request.maxCachedBytes;
    auto task = ItemDownloadTask::create(wanted, m_answerer);
    ItemDownloadTask* raw = task.get();
    connect(raw, &BaseTask::progress, this, [this, size = item.remote.size](int value, int maximum) {
        m_arrivedBytes = maximum > 0 ? qint64(double(size) * value / maximum) : 0;
    });
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(task)),
        [this, raw](BaseTask*) {
            m_arrivedBytes = 0;
            m_doneBytes += raw->result().item.size;
            onFileDone(raw->result(), true);
            fetchNext();
        },
        [this, item](BaseTask* ended) {
            m_arrivedBytes = 0;
            fail(item.source, m_targetDir + u'/' + item.name, ended->error());
            countFailure(ended->error());
            fetchNext();
        });
}

void DownloadJob::fetchFolder(const Item& item) {
    const auto reference = orx::HalvaneFolderResourceReference::create(item.remote.id, item.name);
    if (reference.hasError()) {
        fail(item.source, item.source, reference.error());
        return fetchNext();
    }
    auto task = std::make_unique<FolderDownloadTask>(reference.value(), m_targetDir, item.name.isEmpty(),
                                                     m_answerer, m_request);
    FolderDownloadTask* raw = task.get();
    if (const QString maker = m_answerer.whoMade(raw->folderPath()); !maker.isEmpty()) {
        fail(item.source, raw->folderPath(), merged(item.source, raw->folderPath(), maker));
        return fetchNext();
    }
    if (!item.name.isEmpty())
        m_answerer.remember(raw->folderPath(), item.remote);
    m_folder = raw;
    m_folderCounts = {};
    m_folderCounts.item = item.remote;
    m_folderCounts.path = raw->folderPath();
    connect(raw, &FolderDownloadTask::fileDone, this,
            [this](const DownloadedFile& file) { onFileDone(file, false); });
    const auto ended = [this, raw, item](BaseTask*) {
        onFolderEnded(item, *raw, m_folderCounts);
        fetchNext();
    };
    execSubtask(std::unique_ptr<BaseTask>(std::move(task)), ended, ended);
}

void DownloadJob::onFileDone(const DownloadedFile& file, bool isSource) {
    ++m_doneFiles;
    m_failedInARow = 0;
    m_folderCounts.downloaded += file.outcome == DownloadedFile::Outcome::Downloaded ? 1 : 0;
    m_folderCounts.unchanged += file.outcome == DownloadedFile::Outcome::Unchanged ? 1 : 0;
    m_folderCounts.skipped += file.outcome == DownloadedFile::Outcome::Skipped ? 1 : 0;
    Q_EMIT fileDone(file, isSource);
}

void DownloadJob::onFolderEnded(const Item& item, FolderDownloadTask& task, DownloadedFolder folder) {
    folder.files = task.fileCount();
    for (const orx::HalvaneDownloadFailure& failure : task.failures()) {
        ++folder.failed;
        fail(item.source, QDir(m_targetDir).filePath(failure.path), failure.error);
    }
    folder.notTried = task.fileCount() - task.triedFileCount();
    // A failure that is nobody's in particular, such as a target that cannot be made.
    if (folder.failed == 0 && task.hasError())
        fail(item.source, folder.path, task.error());
    m_knownFiles += task.fileCount();
    m_knownBytes += task.totalBytes();
    m_doneBytes += task.doneBytes();
    m_folder = nullptr;
    if (!task.hasError())
        ++m_doneFolders;
    else if (folder.downloaded + folder.unchanged + folder.skipped == 0)
        countFailure(task.error());
    Q_EMIT folderDone(folder);
}

void DownloadJob::fail(const QString& source, const QString& path, const Error& error) {
    if (error.isCanceled() && (isCanceled() || m_answerer.wantsToQuit()))
        return;
    m_failures.append({source, path, error});
    if (concernsAll(error))
        giveUp(error);
}

// A source that nothing came of.
void DownloadJob::countFailure(const Error& error) {
    m_failedInARow = concernsMany(error) ? m_failedInARow + 1 : 0;
    if (m_failedInARow >= hopelessInARow)
        giveUp(error);
}

void DownloadJob::giveUp(const Error& error) {
    const Error notTried(error.domain(), error.code(),
                         QStringLiteral("Not tried, since it would fail, too: %1").arg(error.errorMessage()));
    for (const Item& item : m_items)
        m_failures.append({item.source, item.source, notTried});
    m_items.clear();
}

DownloadState DownloadJob::state() const {
    DownloadState state;
    state.filesDone = m_doneFiles;
    state.filesTotal = m_knownFiles;
    state.bytesDone = m_doneBytes + m_arrivedBytes;
    state.bytesTotal = m_knownBytes;
    state.areTotalsKnown = m_unresolved.empty();
    if (m_folder) {
        state.filesTotal += m_folder->fileCount();
        state.bytesDone += m_folder->doneBytes();
        state.bytesTotal += m_folder->totalBytes();
        state.areTotalsKnown = state.areTotalsKnown && m_folder->isWholeTreeKnown();
    }
    for (const Item& item : m_items)
        state.areTotalsKnown = state.areTotalsKnown && item.remote.isFile();
    return state;
}

} // namespace halvane::host
