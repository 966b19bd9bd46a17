#include "HalvaneGetFileResourceMetadataTask.h"

#include "../HalvaneFileResourceMetadata.h"

#include <QPointer>

namespace orx {

HalvaneGetFileResourceMetadataTask::HalvaneGetFileResourceMetadataTask(int fileId) : m_fileId(fileId) {}

HalvaneGetFileResourceMetadataTask::~HalvaneGetFileResourceMetadataTask() = default;

Error HalvaneGetFileResourceMetadataTask::initialize() {
    const QPointer<HalvaneGetFileResourceMetadataTask> guard(this);
    getFileMetadata();
    if (guard) // a request that fails at once ends the task, and a receiver may destroy it then
        getFilePath();
    return Error();
}

void HalvaneGetFileResourceMetadataTask::getFileMetadata() {
    auto* const task = new HalvaneGetFileMetadataTask(m_fileId, nullptr);
    connect(task, &BaseTask::finished, this, [this, task] { onGetFileMetadataFinished(task); });
    execSubtask(task);
}

void HalvaneGetFileResourceMetadataTask::getFilePath() {
    auto* const task = new HalvaneGetFilePathTask(m_fileId, nullptr);
    connect(task, &BaseTask::finished, this, [this, task] { onGetFilePathFinished(task); });
    execSubtask(task);
}

void HalvaneGetFileResourceMetadataTask::onGetFileMetadataFinished(HalvaneGetFileMetadataTask* task) {
    m_fileItem = task->fileItem();
}

void HalvaneGetFileResourceMetadataTask::onGetFilePathFinished(HalvaneGetFilePathTask* task) {
    m_folderIdsPath = task->folderIdsPath();
    m_folderPath = task->folderPath();
}

Error HalvaneGetFileResourceMetadataTask::doFinish() {
    ORX_RETURN_ON_ERROR(BaseTask::doFinish());
    setVariantResult(ResourceMetadata::toVariant(
        QSharedPointer<HalvaneFileResourceMetadata>::create(m_fileItem, m_folderPath, m_folderIdsPath)));
    return Error();
}

} // namespace orx
