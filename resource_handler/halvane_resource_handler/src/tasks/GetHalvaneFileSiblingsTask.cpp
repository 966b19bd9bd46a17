#include "GetHalvaneFileSiblingsTask.h"

#include <HalvaneConnectionUtils.h>

namespace orx {

GetHalvaneFileSiblingsTask::GetHalvaneFileSiblingsTask(
    const QSharedPointer<HalvaneFileResourceReference>& reference, QObject* parent)
    : GetSiblingsTask(parent), m_reference(reference) {}

GetHalvaneFileSiblingsTask::~GetHalvaneFileSiblingsTask() {
    stopBody();
}

Result<QList<QSharedPointer<ResourceReference>>> GetHalvaneFileSiblingsTask::loadSiblings() const {
    QList<QSharedPointer<ResourceReference>> siblings;
    auto fileItem = HalvaneConnectionUtils::getFileItem(m_reference->id());
    if (fileItem.hasError()) {
        ORX_ECATCH(fileItem); // logs it
        return siblings;
    }
    auto files = HalvaneConnectionUtils::files(fileItem->folderId());
    if (files.hasError()) {
        ORX_ECATCH(files);
        return siblings;
    }
    for (const HalvaneFileItemSPtr& file : *files) {
        const auto sibling =
            HalvaneFileResourceReference::create(file->id(), file->lastVersion(), file->name(),
                                                 HalvaneFileResourceReference::FileKind::ByName, QString());
        if (!sibling.hasError())
            siblings.append(*sibling);
    }
    return siblings;
}

} // namespace orx
