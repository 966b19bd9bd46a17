#include "FolderDownloadTask.h"

#include "RemotePath.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>

namespace halvane::host {

using orx::DuplicateDownloadFileInfo;
using orx::DuplicateDownloadPolicy;
using orx::HalvaneAcknowledgedContents;
using orx::HalvaneDownloadFileCacheTask;
using orx::HalvaneDownloadFolderCacheTask;
using orx::HalvaneFileResourceReference;

FolderDownloadTask::FolderDownloadTask(const QSharedPointer<orx::HalvaneFolderResourceReference>& reference,
                                       const QString& targetDirPath, bool contentOnly,
                                       ClashAnswerer& answerer, const DownloadRequest& request,
                                       QObject* parent)
    : HalvaneDownloadFolderCacheTask(reference, targetDirPath, contentOnly, parent)
    , m_answerer(answerer)
    , m_request(request) {
    connect(this, &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy, this,
            [this](const QStringList& names, const DuplicateDownloadFileInfo& info,
                   HalvaneDownloadFileCacheTask* task, QStringList* newNames) {
                if (FileDownloadTask* asker = m_askers.value(task))
                    asker->onClash(names, info.clashes, *task, *newNames);
            });
}

FolderDownloadTask::~FolderDownloadTask() = default;

ItemDownloadTask::Wanted FolderDownloadTask::wantedOf(const HalvaneFileResourceReference& reference,
                                                      const QString& directory, const QString& name) const {
    ItemDownloadTask::Wanted wanted;
    wanted.item.type = RemoteItem::ItemType::File;
    wanted.item.id = reference.id();
    wanted.item.version = reference.version();
    wanted.item.name = reference.name();
    wanted.directory = directory;
    wanted.name = name;
    // Siblings share it.
    if (name != reference.name())
        wanted.mark = QStringLiteral(" (file %1)").arg(reference.id());
    wanted.useCache = m_request.useCache;
    wanted.packed = m_request.packed;
    wanted.maxCachedBytes = m_request.maxCachedBytes;
    // The listing said it just before.
    if (const auto stated = HalvaneAcknowledgedContents::findStated(
            orx::HalvaneConnection::instance().serverKey(), reference.id(), reference.version())) {
        wanted.item.size = stated->size;
        wanted.item.sha256 = QString::fromLatin1(stated->sha256);
        wanted.item.sourceModifiedAt = stated->sourceModifiedAt;
        wanted.item.modifiedAt = stated->modifiedAt;
        wanted.item.alias = stated->alias;
    }
    return wanted;
}

orx::Task*
FolderDownloadTask::createFileDownloadTask(const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                           const orx::PathImpl<orx::PathType::Dir>& targetDir,
                                           const QString& name, std::optional<DuplicateDownloadPolicy>) {
    ++m_tried;
    ItemDownloadTask* const task =
        ItemDownloadTask::create(wantedOf(*fileReference, targetDir.toString(), name), m_answerer,
                                 [this, fileReference, targetDir](FileDownloadTask& asker, const QString& as,
                                                                  DuplicateDownloadPolicy policy) {
                                     return makeCacheTask(asker, fileReference, targetDir, as, policy);
                                 })
            .release();
    connect(task, &orx::BaseTask::finished, this, [this, task] {
        if (task->isSuccessful())
            Q_EMIT fileDone(task->result());
    });
    return task;
}

bool FolderDownloadTask::namesContent() const {
    return false;
}

// So that nothing unfolds into it.
void FolderDownloadTask::onFolderListed(int folderId, const QString& path) {
    RemoteItem folder;
    folder.id = folderId;
    m_answerer.remember(path, folder);
}

HalvaneDownloadFileCacheTask* FolderDownloadTask::makeCacheTask(
    FileDownloadTask& asker, const QSharedPointer<HalvaneFileResourceReference>& fileReference,
    const orx::PathImpl<orx::PathType::Dir>& targetDir, const QString& name, DuplicateDownloadPolicy policy) {
    auto* task = static_cast<HalvaneDownloadFileCacheTask*>(
        HalvaneDownloadFolderCacheTask::createFileDownloadTask(fileReference, targetDir, name, policy));
    m_askers.insert(task, &asker);
    connect(task, &orx::BaseTask::finished, this, [this, task] { m_askers.remove(task); });
    return task;
}

} // namespace halvane::host
