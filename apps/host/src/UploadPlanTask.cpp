#include "UploadPlanTask.h"

#include "UploadAccount.h"

#include <FileTypes.h>
#include <FileUtils.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>

#include <QDir>
#include <QFileInfo>

namespace halvane::host {

using orx::Error;
using orx::HalvaneConnectionUtils;
using orx::HalvaneGetFilesTask;
using orx::HalvaneGetFoldersTask;
using Action = PlannedUpload::Action;
using Kind = LocalEntry::Kind;

namespace {

Action actionOf(IfTaken ifTaken) {
    switch (ifTaken) {
    case IfTaken::NewVersion:
        return Action::NewVersion;
    case IfTaken::KeepBoth:
        return Action::KeepBoth;
    case IfTaken::Skip:
        return Action::Skip;
    case IfTaken::Ask:
        return Action::Ask;
    case IfTaken::Fail:
        break;
    }
    return Action::Fail;
}

// Everything that would be tried counts as done: what remains is left out anyway.
UploadReport reportOf(const QList<LocalTree>& trees, const QList<UploadFailure>& refused) {
    UploadAccount account;
    for (const UploadFailure& failure : refused)
        account.setFailed(failure.path, failure.error);
    for (const LocalTree& tree : trees) {
        for (const LocalEntry& entry : tree.entries) {
            if (entry.isUpload() && !account.isKnown(entry.path))
                account.setDone(entry.path, UploadedFile::Outcome::Unchanged);
            else if (entry.kind == Kind::Directory)
                account.setFolderMade(entry.path);
        }
    }
    return account.report(trees, trees, false);
}

// Whether something beside it will have that name on the server, as it is or packed; as an upload sees it.
bool isNameOfSibling(const QDir& siblings, const QString& name) {
    const QString stem = name.left(name.lastIndexOf(u'.'));
    return siblings.exists(name) ||
           (orx::FileTypes::addMissingExtension(stem, orx::FileTypes::VONK) == name && siblings.exists(stem));
}

} // namespace

QString PlannedUpload::actionName() const {
    switch (action) {
    case Action::NewFolder:
        return QStringLiteral("new_folder");
    case Action::ExistingFolder:
        return QStringLiteral("existing_folder");
    case Action::NewFile:
        return QStringLiteral("new_file");
    case Action::NewVersion:
        return QStringLiteral("new_version");
    case Action::KeepBoth:
        return QStringLiteral("keep_both");
    case Action::Unchanged:
        return QStringLiteral("unchanged");
    case Action::Skip:
        return QStringLiteral("skip");
    case Action::Fail:
        return QStringLiteral("fail");
    case Action::Ask:
        break;
    }
    return QStringLiteral("ask");
}

UploadPlanTask::UploadPlanTask(const TreeUploadRequest& request, const UploadPolicy::Options& options)
    : ComplexTask(QStringLiteral("PlanUpload(%1)").arg(request.target))
    , m_request(request)
    , m_options(options) {}

UploadPlanTask::~UploadPlanTask() = default;

Error UploadPlanTask::initialize() {
    execSubtask(std::make_unique<PrepareUploadTask>(m_request, PrepareUploadTask::For::Plan),
                [this](PrepareUploadTask* task) { begin(*task); });
    return {};
}

void UploadPlanTask::begin(const PrepareUploadTask& prepared) {
    m_target = prepared.target();
    m_trees = prepared.trees();
    for (const UploadFailure& refused : prepared.refused())
        m_refused.insert(refused.source);
    m_report = reportOf(m_trees, prepared.refused());
    next();
}

// One entry after the other; a folder of the server is listed once.
void UploadPlanTask::next() {
    while (m_tree < m_trees.size()) {
        if (m_entry >= tree().entries.size() || m_refused.contains(tree().source)) {
            ++m_tree;
            m_entry = 0;
            continue;
        }
        const LocalEntry& entry = tree().entries[m_entry++];
        const bool isFolder = entry.kind == Kind::Directory && entry.problem.isEmpty();
        if (!isFolder && !entry.isUpload())
            continue;
        const int parentId = m_entry == 1 ? m_target.id : m_folders.value(QFileInfo(entry.path).path(), -1);
        if (parentId != -1 && isFolder)
            return planFolder(entry, parentId);
        if (parentId != -1) {
            if (!planFile(entry, parentId))
                return;
            continue;
        }
        if (isFolder)
            m_folders.insert(entry.path, -1);
        plan(entry, isFolder ? Action::NewFolder : Action::NewFile);
    }
}

void UploadPlanTask::plan(const LocalEntry& entry, Action action, const RemoteItem& existing,
                          const QString& name) {
    m_planned.append({tree().source, entry, action, name.isEmpty() ? entry.serverName() : name, existing});
}

void UploadPlanTask::planFolder(const LocalEntry& entry, int parentId) {
    execSubtask(std::make_unique<HalvaneGetFoldersTask>(parentId),
                [this, entry](HalvaneGetFoldersTask* task) {
                    RemoteItem existing;
                    for (const auto& folder : task->foldersTree()) {
                        if (folder->name() == entry.serverName() && folder->id() > existing.id)
                            existing = RemoteItem::fromFolder(*folder, {});
                    }
                    m_folders.insert(entry.path, existing.id);
                    plan(entry, existing.id == -1 ? Action::NewFolder : Action::ExistingFolder, existing);
                    next();
                });
}

bool UploadPlanTask::planFile(const LocalEntry& entry, int folderId) {
    if (m_files.contains(folderId))
        return planFileIn(entry, folderId);
    execSubtask(std::make_unique<HalvaneGetFilesTask>(folderId),
                [this, entry, folderId](HalvaneGetFilesTask* task) {
                    m_files.insert(folderId, task->files());
                    if (planFileIn(entry, folderId))
                        next();
                });
    return false;
}

bool UploadPlanTask::planFileIn(const LocalEntry& entry, int folderId) {
    const int id = HalvaneConnectionUtils::findFileIdInFiles(entry.serverName(), m_files.value(folderId));
    if (id == -1) {
        plan(entry, Action::NewFile);
        return true;
    }
    SameContentTask::Wanted wanted;
    wanted.localPath = entry.path;
    wanted.isRawData = entry.kind == Kind::RawData;
    wanted.folderId = folderId;
    wanted.existingFileId = id;
    wanted.alsoFreeNames = m_options.ifTaken == IfTaken::KeepBoth;
    wanted.known = m_options.knownOf(entry.path);
    wanted.recordsVersion = false;
    execSubtask(std::make_unique<SameContentTask>(wanted),
                [this, entry](SameContentTask* task) { onCompared(entry, *task); });
    return false;
}

void UploadPlanTask::onCompared(const LocalEntry& entry, const SameContentTask& task) {
    const Error refusal = m_options.refusalOf(task);
    const Action action = actionOf(m_options.ifTaken);
    if (task.same()) {
        plan(entry, Action::Unchanged, *task.same());
    } else if (refusal.hasError()) {
        plan(entry, Action::Fail, task.existing());
        m_report.failures.append({tree().source, entry.path, refusal});
    } else {
        plan(entry, action, task.existing(),
             action == Action::KeepBoth ? freeName(entry, task.wanted().folderId) : QString());
    }
    next();
}

QString UploadPlanTask::freeName(const LocalEntry& entry, int folderId) {
    const QList<orx::HalvaneFileItemSPtr> files = m_files.value(folderId);
    const QDir siblings = QFileInfo(entry.path).dir();
    QSet<QString>& given = m_given[folderId];
    const QString name = orx::FileUtils::freeName(entry.serverName(), [&](const QString& candidate) {
        return candidate == entry.serverName() || given.contains(candidate) ||
               HalvaneConnectionUtils::findFileIdInFiles(candidate, files) != -1 ||
               isNameOfSibling(siblings, candidate);
    });
    given.insert(name);
    return name;
}

} // namespace halvane::host
