#include "TreeUploadJob.h"

#include "ConcernsAll.h"
#include "NamedFileUploadTask.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <tasks/HalvaneFolderUploadTask.h>

#include <QFileInfo>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::GroupTask;
using orx::HalvaneFileUploadTaskBase;
using orx::HalvaneFolderUploadTask;
using orx::HalvaneUploadPolicyOption;
using orx::HalvaneUploadTask;
using Outcome = UploadedFile::Outcome;

namespace {

// The packed file of raw data lives as long as its task.
RemoteItem itemOf(const orx::HalvaneUploadedFileInfo& uploaded) {
    RemoteItem item;
    item.type = RemoteItem::ItemType::File;
    item.id = uploaded.reference().fileId;
    item.version = uploaded.reference().version;
    item.name = uploaded.targetFileName();
    item.size = QFileInfo(uploaded.localPath()).size();
    item.sha256 = QString::fromLatin1(orx::HalvaneAcknowledgedContents::find(
        orx::HalvaneConnection::instance().serverKey(), item.id, item.version));
    return item;
}

} // namespace

TreeUploadJob::TreeUploadJob(const TreeUploadRequest& request, const UploadPolicy::Options& options)
    : ComplexTask(QStringLiteral("PutTree(%1)").arg(request.target))
    , m_request(request)
    , m_policy(std::make_shared<UploadPolicy>(options)) {
    connect(m_policy.get(), &UploadPolicy::unchanged, this,
            [this](const QString& path, const RemoteItem& item) {
                onDone({item, path, Outcome::Unchanged});
            });
    connect(m_policy.get(), &UploadPolicy::skipped, this,
            [this](const QString& path, const RemoteItem& item) {
                onDone({item, path, Outcome::Skipped});
            });
    connect(m_policy.get(), &UploadPolicy::failed, this, &TreeUploadJob::fail);
}

TreeUploadJob::~TreeUploadJob() = default;

orx::HalvaneUploadPolicyOptions TreeUploadJob::policyOptions() const {
    orx::HalvaneUploadPolicyOptions options = HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS;
    if (m_request.checkVersion)
        options.setFlag(HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck, false);
    options.setFlag(HalvaneUploadPolicyOption::KeepGoing, m_request.keepGoing);
    return options;
}

Error TreeUploadJob::initialize() {
    execSubtask(std::make_unique<PrepareUploadTask>(m_request, PrepareUploadTask::For::Upload),
                [this](PrepareUploadTask* task) { begin(*task); });
    return {};
}

Error TreeUploadJob::doFinish() {
    return m_givenUp.hasError() && !isCanceled() ? m_givenUp : ComplexTask::doFinish();
}

void TreeUploadJob::doCancel() {
    m_policy->cancel();
    ComplexTask::doCancel();
}

// ---- what runs

void TreeUploadJob::begin(const PrepareUploadTask& prepared) {
    m_target = prepared.target();
    m_trees = prepared.trees();
    for (const LocalTree& tree : std::as_const(m_trees)) {
        m_sources.insert(tree.source);
        m_serverNames.append(tree.root().serverName());
        for (const LocalEntry& entry : tree.entries) {
            if (!entry.isUpload())
                continue;
            m_sizes.insert(entry.path, entry.bytes);
            m_totalBytes += entry.bytes;
        }
    }
    m_hasBegun = true;
    Q_EMIT scanned();
    for (const UploadFailure& refused : prepared.refused())
        fail(refused.path, refused.error);
    if (!prepared.refused().isEmpty() && !m_request.keepGoing)
        return finish(prepared.refused().first().error);
    if (m_request.keepGoing)
        groupTask()->setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    for (const LocalTree& tree : std::as_const(m_trees)) {
        if (prepared.isRefused(tree.source))
            continue;
        const Error error = addTree(tree);
        if (!error.hasError())
            continue;
        fail(tree.source, error);
        if (!m_request.keepGoing)
            return finish(error);
    }
    execSubtasks();
}

Error TreeUploadJob::addTree(const LocalTree& tree) {
    if (tree.root().kind == LocalEntry::Kind::Directory)
        return addFolder(tree);
    addFile(tree.root());
    return {};
}

Error TreeUploadJob::addFolder(const LocalTree& tree) {
    auto created = HalvaneUploadTask::create(tree.source, m_target.id, RemoteItem::ItemType::Folder,
                                             QString(), std::nullopt, {}, policyOptions(), std::nullopt);
    ORX_RETURN_ON_ERROR(created.error());
    auto* const folder = qobject_cast<HalvaneFolderUploadTask*>(created->get());
    if (!folder)
        return Error(
            orx::ErrorCode::FileChanged,
            QStringLiteral("\"%1\" is no plain directory any more. Put it once more.").arg(tree.source));
    folder->setDuplicateUploadPolicy(m_policy);
    connect(folder, &HalvaneFolderUploadTask::uploadStarted, this, &TreeUploadJob::follow);
    connect(folder, &HalvaneFolderUploadTask::folderUploaded, this,
            [this](const HalvaneFolderUploadTask* made) { m_account.setFolderMade(made->path()); });
    connect(folder, &HalvaneFolderUploadTask::folderUploadFailed, this,
            [this](const HalvaneFolderUploadTask* failed) {
                if (failed->uploadedFolder())
                    m_account.setFolderMade(failed->path());
                m_account.setFolderFailed(failed->path(), failed->error());
                giveUpAfter(failed->error());
            });
    const auto ended = [this, source = tree.source, folder](BaseTask*) { onFolderEnded(source, *folder); };
    appendSubtask(std::unique_ptr<BaseTask>(std::move(*created)), ended, ended);
    return {};
}

void TreeUploadJob::addFile(const LocalEntry& entry) {
    const NamedFileUploadTask::Input input{entry, m_target, m_request.asFile, m_serverNames};
    auto task = std::make_unique<NamedFileUploadTask>(input, m_policy, policyOptions());
    connect(task.get(), &NamedFileUploadTask::uploadStarted, this, &TreeUploadJob::follow);
    appendSubtask(std::unique_ptr<BaseTask>(std::move(task)), {}, [this, path = entry.path](BaseTask* ended) {
        // An upload that failed has told so; what failed before it has not.
        if (ended->error().isCanceled())
            giveUp(path);
        else if (!m_account.isKnown(path))
            fail(path, ended->error());
    });
}

void TreeUploadJob::onFolderEnded(const QString& source, const HalvaneFolderUploadTask& task) {
    if (const auto uploaded = task.uploadedFolder()) {
        RemoteItem folder;
        folder.id = uploaded->folderId();
        folder.name = QFileInfo(source).fileName();
        m_account.setFolder(source, folder);
    }
    if (!task.hasError())
        return;
    m_account.setFolderFailed(source, task.error());
    giveUpAfter(task.error());
}

// All uploads of a folder are announced before any of them runs.
void TreeUploadJob::follow(HalvaneFileUploadTaskBase* task) {
    const QString path = task->path();
    // Raw data is cached by the upload of its packed file.
    if (!m_request.keepInCache)
        task->setCachedOnFinished(false);
    connect(task, &BaseTask::started, this, [this, path, task] { m_running.insert(path, {task}); });
    connect(task, &BaseTask::progress, this, [this, path](int value, int maximum) {
        if (const auto running = m_running.find(path); running != m_running.end() && maximum > 0)
            running->bytesDone = qint64(double(m_sizes.value(path)) * value / maximum);
    });
    connect(task, &BaseTask::finished, this, [this, path, task] { onUploadEnded(path, *task); });
}

void TreeUploadJob::onUploadEnded(const QString& path, const HalvaneFileUploadTaskBase& task) {
    m_running.remove(path);
    if (task.isCanceled())
        return giveUp(path);
    if (task.hasError())
        return fail(path, task.error());
    if (const auto uploaded = task.uploadedFile())
        onDone({itemOf(*uploaded), path, Outcome::Uploaded});
}

void TreeUploadJob::onDone(const UploadedFile& file) {
    if (file.outcome == Outcome::Skipped)
        takeFromTotal(file.path);
    else
        m_doneBytes += m_sizes.value(file.path);
    m_account.setDone(file.path, file.outcome, file.item.sha256);
    Q_EMIT fileDone(file, m_sources.contains(file.path));
}

void TreeUploadJob::fail(const QString& path, const Error& error) {
    takeFromTotal(path);
    m_account.setFailed(path, error);
    giveUpAfter(error);
}

void TreeUploadJob::giveUp(const QString& path) {
    takeFromTotal(path);
    m_account.setCanceled(path);
}

void TreeUploadJob::takeFromTotal(const QString& path) {
    if (!m_account.isKnown(path))
        m_totalBytes -= m_sizes.value(path);
}

void TreeUploadJob::giveUpAfter(const Error& error) {
    if (!concernsAll(error) || m_givenUp.hasError())
        return;
    m_givenUp = error;
    // Not at once: a task of the group is being told of.
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_policy->cancel();
            groupTask()->cancel();
        },
        Qt::QueuedConnection);
}

// ---- how it stands

UploadState TreeUploadJob::state() const {
    UploadState state;
    state.filesDone = m_account.doneCount();
    state.filesTotal = int(m_sizes.size());
    state.bytesDone = m_doneBytes;
    for (auto running = m_running.begin(); running != m_running.end(); ++running) {
        state.bytesDone += running->bytesDone;
        if (running->task && running->task->isSlotLent())
            ++state.waiting;
        else
            state.running.append(running.key());
    }
    state.bytesTotal = m_totalBytes;
    state.areTotalsKnown = m_hasBegun;
    return state;
}

UploadReport TreeUploadJob::report(const QList<LocalTree>& now) const {
    const bool wasStopped = isCanceled() || m_givenUp.hasError() || (hasError() && !m_request.keepGoing);
    return m_account.report(m_trees, now, wasStopped);
}

} // namespace halvane::host
