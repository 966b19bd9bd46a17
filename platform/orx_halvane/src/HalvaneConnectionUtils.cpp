#include "HalvaneConnectionUtils.h"

#include "HalvaneItemTasks.h"

#include <algorithm>

namespace orx {

Result<HalvaneFileItem> HalvaneConnectionUtils::getFileItem(int fileId) {
    HalvaneGetFileMetadataTask task(fileId);
    task.exec();
    ORX_RETURN_ON_ERROR(task.waitForFinished());
    return task.fileItem();
}

Result<QList<HalvaneFileItemSPtr>> HalvaneConnectionUtils::files(int folderId) {
    HalvaneGetFilesTask task(folderId);
    task.exec();
    ORX_RETURN_ON_ERROR(task.waitForFinished());
    return task.files();
}

int HalvaneConnectionUtils::findFileIdInFiles(const QString& name, const QList<HalvaneFileItemSPtr>& files) {
    int id = -1;
    for (const HalvaneFileItemSPtr& file : files)
        if (file && file->name() == name)
            id = std::max(id, file->id());
    return id;
}

} // namespace orx
