#include "ResolveItemTask.h"

#include <HalvaneError.h>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::HalvaneGetFileMetadataTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneGetFileVersionsTask;
using orx::HalvaneGetFoldersTask;
using orx::HalvaneGetFolderTask;
using orx::HalvaneReferenceText;
using orx::HalvaneServerErrorCode;
using orx::Result;

namespace {

Error notFound(const QString& name, const QString& folderPath) {
    return orx::halvaneError(
        HalvaneServerErrorCode::NotFound,
        QStringLiteral("There is no \"%1\" in the folder \"%2\" of the server, or you may not "
                       "read it.")
            .arg(name, folderPath));
}

Error ambiguous(const QString& name, const QString& folderPath, const QList<RemoteItem>& candidates) {
    QStringList references;
    for (const RemoteItem& candidate : candidates)
        references.append(candidate.isFile() ? QStringLiteral("file:%1").arg(candidate.id)
                                             : candidate.reference());
    return Error(
        ErrorCode::InvalidArgument,
        QStringLiteral("\"%1\" names %2 things in the folder \"%3\": %4. Say which one by its reference.")
            .arg(name, QString::number(candidates.size()), folderPath,
                 references.join(QStringLiteral(", "))));
}

std::optional<int> folderArgument(int folderId) {
    return folderId == RemoteItem::root().id ? std::nullopt : std::optional(folderId);
}

} // namespace

ResolveItemTask::ResolveItemTask(const QString& text, Wanted wanted, QObject* parent)
    : ComplexTask(QStringLiteral("Resolve(%1)").arg(text), parent), m_text(text), m_wanted(wanted) {}

ResolveItemTask::~ResolveItemTask() = default;

Error ResolveItemTask::checkText(const QString& text) {
    if (HalvaneReferenceText::looksLikeReference(text))
        return HalvaneReferenceText::parse(text).error();
    return RemotePath::parse(text).error();
}

Error ResolveItemTask::initialize() {
    if (HalvaneReferenceText::looksLikeReference(m_text))
        return startWithReference();
    const Result<RemotePath> path = RemotePath::parse(m_text);
    ORX_RETURN_ON_ERROR(path.error());
    m_path = path.value();
    if (m_path.isRoot()) {
        m_item = RemoteItem::root();
        return checkKind(m_item);
    }
    descend(RemoteItem::root().id, RemoteItem::root().path, 0);
    return {};
}

Error ResolveItemTask::startWithReference() {
    const Result<HalvaneReferenceText> reference = HalvaneReferenceText::parse(m_text);
    ORX_RETURN_ON_ERROR(reference.error());
    m_versionWasGiven = reference->version > 0;
    m_item.type = reference->itemType;
    m_item.id = reference->id;
    ORX_RETURN_ON_ERROR(checkKind(m_item));
    if (m_item.isFile())
        fetchFile(reference->id, reference->version);
    else
        fetchFolder(reference->id);
    return {};
}

void ResolveItemTask::fetchFile(int id, int version) {
    execSubtask(std::make_unique<HalvaneGetFileMetadataTask>(id),
                [this, version](HalvaneGetFileMetadataTask* task) {
                    m_item = RemoteItem::fromFile(task->fileItem(), {});
                    if (version > 0 && version != m_item.version)
                        fetchVersion(version);
                });
}

void ResolveItemTask::fetchVersion(int version) {
    execSubtask(
        std::make_unique<HalvaneGetFileVersionsTask>(m_item.id),
        [this, version](HalvaneGetFileVersionsTask* task) {
            for (const orx::HalvaneFileVersion& candidate : task->versions()) {
                if (candidate.version == version)
                    return m_item.setVersion(candidate);
            }
            finish(orx::halvaneError(HalvaneServerErrorCode::NotFound,
                                     QStringLiteral("\"%1\" (file:%2) has no version %3; its last one is %4.")
                                         .arg(m_item.name, QString::number(m_item.id),
                                              QString::number(version), QString::number(m_item.version))));
        });
}

void ResolveItemTask::fetchFolder(int id) {
    execSubtask(std::make_unique<HalvaneGetFolderTask>(id), [this](HalvaneGetFolderTask* task) {
        m_item = RemoteItem::fromFolder(task->folderItem(), {});
        if (m_item.id == RemoteItem::root().id)
            m_item = RemoteItem::root();
        else
            m_item.path = RemotePath::fromChain(task->folderPath());
    });
}

// Goes through the folders of the path one by one; the last name may be a file too.
void ResolveItemTask::descend(int folderId, const QString& folderPath, qsizetype depth) {
    if (depth == m_path.names().size() - 1)
        return lookUpLast(folderId, folderPath);
    const QString name = m_path.names().at(depth);
    findFolders(folderId, folderPath, name, [this, name, folderPath, depth](const QList<RemoteItem>& found) {
        if (found.isEmpty())
            return finish(notFound(name, folderPath));
        if (found.size() > 1)
            return finish(ambiguous(name, folderPath, found));
        descend(found.first().id, found.first().path, depth + 1);
    });
}

// Asks first for the kind that is wanted; the other kind then only serves a clear message.
void ResolveItemTask::lookUpLast(int folderId, const QString& folderPath) {
    if (m_wanted == Wanted::File) {
        addFiles(folderId, folderPath, [this, folderId, folderPath] {
            if (!m_candidates.isEmpty())
                return decide(folderPath);
            addFolders(folderId, folderPath, [this, folderPath] { decide(folderPath); });
        });
        return;
    }
    addFolders(folderId, folderPath, [this, folderId, folderPath] {
        if (m_path.mustBeFolder() || (m_wanted == Wanted::Folder && !m_candidates.isEmpty()))
            return decide(folderPath);
        addFiles(folderId, folderPath, [this, folderPath] { decide(folderPath); });
    });
}

void ResolveItemTask::addFolders(int folderId, const QString& folderPath, std::function<void()> next) {
    findFolders(folderId, folderPath, m_path.names().last(),
                [this, next = std::move(next)](const QList<RemoteItem>& found) {
                    m_candidates.append(found);
                    next();
                });
}

void ResolveItemTask::findFolders(int folderId, const QString& folderPath, const QString& name,
                                  std::function<void(const QList<RemoteItem>&)> next) {
    execSubtask(std::make_unique<HalvaneGetFoldersTask>(folderArgument(folderId)),
                [folderPath, name, next = std::move(next)](HalvaneGetFoldersTask* task) {
                    QList<RemoteItem> found;
                    for (const auto& folder : task->foldersTree()) {
                        if (folder->name() == name)
                            found.append(RemoteItem::fromFolder(*folder, folderPath));
                    }
                    next(found);
                });
}

void ResolveItemTask::addFiles(int folderId, const QString& folderPath, std::function<void()> next) {
    execSubtask(std::make_unique<HalvaneGetFilesTask>(folderId),
                [this, folderPath, next = std::move(next)](HalvaneGetFilesTask* task) {
                    for (const auto& file : task->files()) {
                        if (file->name() == m_path.names().last())
                            m_candidates.append(RemoteItem::fromFile(*file, folderPath));
                    }
                    next();
                });
}

void ResolveItemTask::decide(const QString& folderPath) {
    const QString name = m_path.names().last();
    if (m_candidates.isEmpty())
        return finish(notFound(name, folderPath));
    if (m_candidates.size() > 1)
        return finish(ambiguous(name, folderPath, m_candidates));
    m_item = m_candidates.first();
    if (const Error error = checkKind(m_item); error.hasError())
        finish(error);
}

Error ResolveItemTask::checkKind(const RemoteItem& item) const {
    if (m_wanted == Wanted::File && item.isFolder())
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is a folder, and a file is needed here.").arg(m_text));
    if (m_wanted == Wanted::Folder && item.isFile())
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is a file, and a folder is needed here.").arg(m_text));
    return {};
}

} // namespace halvane::host
