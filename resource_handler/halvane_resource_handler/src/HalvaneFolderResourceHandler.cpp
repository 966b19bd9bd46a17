#include "HalvaneFolderResourceHandler.h"

#include "tasks/HalvaneGetFolderMetadataTask.h"

#include <HalvaneCheckExistenceTask.h>
#include <HalvaneDownloadFolderTask.h>

namespace orx {

HalvaneFolderResourceHandler::HalvaneFolderResourceHandler(const QSharedPointer<ResourceReference>& reference,
                                                           ResourceCache* cache)
    : HalvaneResourceHandler(reference, cache) {}

HalvaneFolderResourceHandler::~HalvaneFolderResourceHandler() = default;

std::unique_ptr<Task> HalvaneFolderResourceHandler::existsTask() const {
    const auto folder = reference().dynamicCast<HalvaneFolderResourceReference>();
    return std::make_unique<HalvaneCheckExistenceTask>(folder->id(),
                                                       HalvaneResourceReference::ItemType::Folder, nullptr);
}

std::unique_ptr<Task> HalvaneFolderResourceHandler::retrieveMetadataTask() const {
    const auto folder = reference().dynamicCast<HalvaneFolderResourceReference>();
    return std::make_unique<HalvaneGetFolderMetadataTask>(folder->id(), nullptr);
}

std::unique_ptr<Task> HalvaneFolderResourceHandler::retrieveTask(const PathImpl<PathType::Dir>& targetDir) {
    const auto folder = reference().dynamicCast<HalvaneFolderResourceReference>();
    return std::make_unique<HalvaneDownloadFolderTask>(folder, targetDir.toString(), false, nullptr);
}

QString HalvaneFolderResourceHandler::subCachePath() const {
    const auto folder = reference().dynamicCast<HalvaneFolderResourceReference>();
    // The name last and by itself: it may hold what looks like a place to fill.
    return QStringLiteral("%1/folder/%2/%3")
        .arg(HalvaneResourceHandler::subCachePath())
        .arg(folder->id())
        .arg(folder->name());
}

} // namespace orx
