#include "PrepareUploadTask.h"

#include "ResolveItemTask.h"
#include "UploadSettings.h"

#include <UploadSums.h>
#include <WorkerStepTask.h>

#include <QFileInfo>
#include <QHash>
#include <QSet>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::ErrorCode;
using orx::UploadFileInputValidation;
using orx::UploadRefusal;

namespace {

Error checkPath(const QString& path) {
    const QFileInfo info(path);
    if (info.exists())
        return {};
    return Error(ErrorCode::NotFound,
                 info.isSymLink()
                     ? QStringLiteral("\"%1\" is a link to something that does not exist.").arg(path)
                     : QStringLiteral("There is no file or directory \"%1\".").arg(path));
}

// Nothing goes up twice, and each path has one account.
Error checkApart(const QStringList& paths) {
    QSet<QString> sources;
    for (const QString& path : paths)
        sources.insert(LocalTree::sourceOf(path));
    for (const QString& path : paths) {
        for (QString above = LocalTree::sourceOf(path); above.contains(u'/');) {
            above.truncate(above.lastIndexOf(u'/'));
            const QString other = above.isEmpty() ? QStringLiteral("/") : above;
            if (sources.contains(other) && other != LocalTree::sourceOf(path))
                return Error(ErrorCode::InvalidArgument,
                             QStringLiteral("\"%1\" lies in \"%2\", which goes up with everything in it. "
                                            "Name only one of them.")
                                 .arg(path, other));
        }
    }
    return {};
}

Error problemOf(const LocalEntry& root) {
    if (!root.problem.isEmpty())
        return Error(ErrorCode::FileNotReadable, root.problem);
    // Whether it is still being written is looked at again when its turn comes.
    if (root.refusal != UploadRefusal::None && root.refusal != UploadRefusal::StillWritten)
        return Error(ErrorCode::InvalidArgument,
                     UploadFileInputValidation::explanation(root.refusal, root.path));
    if (root.kind == LocalEntry::Kind::None)
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is neither a file nor a directory.").arg(root.path));
    if (root.serverName().isEmpty())
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" has no name that a folder could have.").arg(root.path));
    return {};
}

Error takeAsFile(LocalEntry& root) {
    if (QFileInfo(root.path).isDir())
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is a directory and cannot go up as a file: leave out --as-file.")
                         .arg(root.path));
    if (root.kind == LocalEntry::Kind::RawData) {
        root.kind = LocalEntry::Kind::File;
        root.stamp.clear(); // it was that of what would be packed
    }
    return {};
}

// The uploads ask for the same on the thread of the event loop, where it is remembered by then.
void sumUp(const LocalTree& tree, const std::stop_token& stop) {
    if (tree.root().kind == LocalEntry::Kind::Directory && !stop.stop_requested())
        (void)orx::UploadSums::instance().uploadsIn(tree.source, stop);
}

} // namespace

PrepareUploadTask::PrepareUploadTask(const TreeUploadRequest& request, For what)
    : ComplexTask(QStringLiteral("PrepareUpload")), m_request(request), m_for(what) {}

PrepareUploadTask::~PrepareUploadTask() = default;

bool PrepareUploadTask::isRefused(const QString& source) const {
    return std::any_of(m_refused.begin(), m_refused.end(),
                       [&source](const UploadFailure& refused) { return refused.source == source; });
}

Error PrepareUploadTask::initialize() {
    ORX_RETURN_ON_ERROR(ResolveItemTask::checkText(m_request.target));
    for (const QString& path : m_request.paths)
        ORX_RETURN_ON_ERROR(checkPath(path));
    ORX_RETURN_ON_ERROR(checkApart(m_request.paths));
    const auto filters = uploadFilters();
    ORX_RETURN_ON_ERROR(filters.error());
    UploadFileInputValidation::setFilters(filters.value());
    auto resolve = std::make_unique<ResolveItemTask>(m_request.target, ResolveItemTask::Wanted::Folder);
    execSubtask(std::move(resolve), [this](ResolveItemTask* task) { onResolved(task->item()); });
    return {};
}

void PrepareUploadTask::doCancel() {
    m_stop.request_stop();
    ComplexTask::doCancel();
}

void PrepareUploadTask::onResolved(const RemoteItem& target) {
    m_target = target;
    const auto trees = std::make_shared<QList<LocalTree>>();
    execSubtask(std::make_unique<orx::WorkerStepTask>(
                    QStringLiteral("ScanLocalTrees"),
                    [trees, paths = m_request.paths, what = m_for, stop = m_stop.get_token()]() -> Error {
                        *trees = LocalTree::scan(paths, stop);
                        for (LocalTree& tree : *trees) {
                            tree.takeStamps(stop);
                            if (what == For::Upload)
                                sumUp(tree, stop);
                        }
                        return {};
                    }),
                [this, trees](orx::WorkerStepTask*) {
                    m_trees = *trees;
                    refuseWhatCannotGo();
                });
}

void PrepareUploadTask::refuseWhatCannotGo() {
    QHash<QString, QString> taken;
    QList<LocalTree> trees;
    for (LocalTree& tree : m_trees) {
        LocalEntry& root = tree.entries.first();
        Error problem = problemOf(root);
        if (!problem.hasError() && m_request.asFile)
            problem = takeAsFile(root);
        const QString other = taken.value(root.serverName());
        if (!problem.hasError() && other == tree.source)
            continue; // the same once more
        trees.append(tree);
        if (!problem.hasError() && !other.isEmpty())
            problem =
                Error(ErrorCode::InvalidArgument,
                      QStringLiteral("\"%1\" and \"%2\" would both be \"%3\" on the server, and nothing is "
                                     "merged. Put them by commands of their own, into different folders.")
                          .arg(other, tree.source, root.serverName()));
        if (problem.hasError())
            m_refused.append({tree.source, tree.source, problem});
        else
            taken.insert(root.serverName(), tree.source);
    }
    m_trees = trees;
}

} // namespace halvane::host
