#include "HalvaneUploadTask.h"

namespace orx {

HalvaneUploadTask::HalvaneUploadTask(const QString& name, QObject* parent)
    : HalvaneComplexTask(name, parent) {}

HalvaneUploadTask::HalvaneUploadTask(QObject* parent) : HalvaneComplexTask(parent) {}

HalvaneUploadTask::HalvaneUploadTask() = default;

} // namespace orx
