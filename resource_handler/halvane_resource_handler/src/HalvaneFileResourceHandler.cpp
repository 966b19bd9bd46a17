#include "HalvaneFileResourceHandler.h"

#include "tasks/GetHalvaneFileSiblingsTask.h"
#include "tasks/HalvaneGetFileResourceMetadataTask.h"

#include <HalvaneCheckExistenceTask.h>
#include <HalvaneDownloadFileTask.h>

namespace orx {

HalvaneFileResourceHandler::HalvaneFileResourceHandler(const QSharedPointer<ResourceReference>& reference,
                                                       ResourceCache* cache)
    : HalvaneResourceHandler(reference, cache) {}

HalvaneFileResourceHandler::~HalvaneFileResourceHandler() = default;

Result<std::unique_ptr<GetSiblingsTask>> HalvaneFileResourceHandler::siblings() const {
    const auto file = reference().dynamicCast<HalvaneFileResourceReference>();
    if (!file)
        return ORX_ECATCH(
            Error(ErrorCode::InvalidArgument, tr("Provided reference type is different than expected.")));
    return std::make_unique<GetHalvaneFileSiblingsTask>(file, nullptr);
}

std::unique_ptr<Task> HalvaneFileResourceHandler::existsTask() const {
    const auto file = reference().dynamicCast<HalvaneFileResourceReference>();
    return std::make_unique<HalvaneCheckExistenceTask>(file->id(), HalvaneResourceReference::ItemType::File,
                                                       nullptr);
}

std::unique_ptr<Task> HalvaneFileResourceHandler::retrieveMetadataTask() const {
    const auto file = reference().dynamicCast<HalvaneFileResourceReference>();
    return std::make_unique<HalvaneGetFileResourceMetadataTask>(file->id());
}

std::unique_ptr<Task> HalvaneFileResourceHandler::retrieveTask(const PathImpl<PathType::Dir>& targetDir) {
    const auto file = reference().dynamicCast<HalvaneFileResourceReference>();
    HalvaneFileDownloadParameters parameters;
    parameters.reference = file;
    parameters.targetDir = QDir(targetDir.toString());
    parameters.kind = HalvaneFileResourceReference::FileKind::ByName;
    return HalvaneDownloadFileTaskCreator::create(parameters);
}

QString HalvaneFileResourceHandler::subCachePath() const {
    const auto file = reference().dynamicCast<HalvaneFileResourceReference>();
    // The name last and by itself: it may hold what looks like a place to fill.
    return QStringLiteral("%1/file/%2/%3/%4")
        .arg(HalvaneResourceHandler::subCachePath())
        .arg(file->id())
        .arg(file->version())
        .arg(file->name());
}

} // namespace orx
