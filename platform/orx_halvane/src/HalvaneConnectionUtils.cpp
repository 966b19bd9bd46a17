#include "HalvaneConnectionUtils.h"

#include "HalvaneItemTasks.h"
#include "HalvaneListingStore.h"

#include <OwnerInbox.h>

#include <algorithm>

namespace orx {

namespace {

//! Runs \a task to its end. On a worker, which has no event loop, the task is cancelled when the one whose
//! body runs there is.
Error runBlocking(BaseTask& task) {
    const auto running = std::make_shared<BaseTask*>(&task); // of this thread only
    const auto cancelHere = [inbox = OwnerInbox::ofThisThread(), running] {
        inbox->post([running] {
            if (*running)
                (*running)->cancel();
        });
    };
    const std::stop_callback onStop(Task::stopTokenOfThisThread(), cancelHere);
    task.exec();
    Error error = task.waitForFinished();
    *running = nullptr;
    return error;
}

} // namespace

Result<HalvaneFileItem> HalvaneConnectionUtils::getFileItem(int fileId) {
    HalvaneGetFileMetadataTask task(fileId);
    ORX_RETURN_ON_ERROR(runBlocking(task));
    return task.fileItem();
}

Result<QList<HalvaneFileItemSPtr>> HalvaneConnectionUtils::files(int folderId) {
    HalvaneGetFilesTask task(folderId);
    ORX_RETURN_ON_ERROR(runBlocking(task));
    return task.files();
}

int HalvaneConnectionUtils::findFileIdInFiles(const QString& name, const QList<HalvaneFileItemSPtr>& files) {
    if (const auto listing = HalvaneListingStore::instance().holding(files))
        return listing->findFileId(name);
    int id = -1;
    for (const HalvaneFileItemSPtr& file : files)
        if (file && file->name() == name)
            id = std::max(id, file->id());
    return id;
}

} // namespace orx
