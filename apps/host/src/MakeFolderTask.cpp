#include "MakeFolderTask.h"

#include <HalvaneError.h>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::HalvaneCreateFolderTask;
using orx::HalvaneGetFoldersTask;
using orx::Result;

MakeFolderTask::MakeFolderTask(const QString& path, Parents parents, QObject* parent)
    : ComplexTask(QStringLiteral("MakeFolder(%1)").arg(path), parent), m_text(path), m_parents(parents) {}

MakeFolderTask::~MakeFolderTask() = default;

Result<RemotePath> MakeFolderTask::checkPath(const QString& path) {
    if (orx::HalvaneReferenceText::looksLikeReference(path))
        return Error(
            ErrorCode::InvalidArgument,
            QStringLiteral("\"%1\" is a reference; a new folder is named by its path, such as /raw/2026.")
                .arg(path));
    return RemotePath::parse(path);
}

Error MakeFolderTask::initialize() {
    const Result<RemotePath> path = checkPath(m_text);
    ORX_RETURN_ON_ERROR(path.error());
    m_path = path.value();
    m_folder = RemoteItem::root();
    if (!m_path.isRoot())
        step(m_folder, 0);
    else if (m_parents == Parents::MustExist)
        return Error(ErrorCode::AlreadyExists, QStringLiteral("The folder \"/\" exists always."));
    return {};
}

// Finds the folder of this depth in its parent, or makes it when that is this run's task.
void MakeFolderTask::step(const RemoteItem& parentFolder, qsizetype depth) {
    const bool last = depth == m_path.names().size() - 1;
    const QString name = m_path.names().at(depth);
    const auto id = parentFolder.id == RemoteItem::root().id ? std::nullopt : std::optional(parentFolder.id);
    execSubtask(std::make_unique<HalvaneGetFoldersTask>(id), [this, parentFolder, depth, last,
                                                              name](HalvaneGetFoldersTask* task) {
        QList<RemoteItem> found;
        for (const auto& folder : task->foldersTree()) {
            if (folder->name() == name)
                found.append(RemoteItem::fromFolder(*folder, parentFolder.path));
        }
        if (found.isEmpty() && (last || m_parents == Parents::Make))
            return create(parentFolder, depth);
        if (found.isEmpty())
            return finish(
                orx::halvaneError(orx::HalvaneServerErrorCode::NotFound,
                                  QStringLiteral("There is no folder \"%1\" in \"%2\"; -p makes the missing "
                                                 "folders above too.")
                                      .arg(name, parentFolder.path)));
        if (last && m_parents == Parents::MustExist)
            return finish(
                Error(ErrorCode::AlreadyExists, QStringLiteral("The folder \"%1\" exists already (%2).")
                                                    .arg(found.first().path, found.first().reference())));
        if (found.size() > 1)
            return finish(Error(
                ErrorCode::InvalidArgument,
                QStringLiteral("\"%1\" names %2 folders in \"%3\" (%4 and others).")
                    .arg(name, QString::number(found.size()), parentFolder.path, found.first().reference())));
        m_folder = found.first();
        if (!last)
            step(m_folder, depth + 1);
    });
}

void MakeFolderTask::create(const RemoteItem& parentFolder, qsizetype depth) {
    HalvaneCreateFolderTask::Input input;
    input.name = m_path.names().at(depth);
    input.parentId = parentFolder.id;
    execSubtask(std::make_unique<HalvaneCreateFolderTask>(input),
                [this, parentFolder, depth](HalvaneCreateFolderTask* task) {
                    m_folder = RemoteItem();
                    m_folder.id = task->createdFolderId();
                    m_folder.name = task->createdFolderName();
                    m_folder.path = RemotePath::join(parentFolder.path, m_folder.name);
                    m_created.append(m_folder);
                    if (depth + 1 < m_path.names().size())
                        step(m_folder, depth + 1);
                });
}

} // namespace halvane::host
