#include "GetSiblingsTask.h"

#include <QMutex>
#include <QMutexLocker>

namespace orx {

struct GetSiblingsTask::Private {
    //! The worker hands the list over under it: finish() may end the run before the body has returned.
    QMutex mutex;
    QList<ResourceReferenceSPtr> loaded;
    QList<ResourceReferenceSPtr> siblings;
};

GetSiblingsTask::GetSiblingsTask(QObject* parent)
    : Task(QStringLiteral("GetSiblings"), parent), d(std::make_unique<Private>()) {
    setExecutionMode(ExecutionMode::Worker);
}

GetSiblingsTask::~GetSiblingsTask() {
    stopBody();
}

QList<ResourceReferenceSPtr> GetSiblingsTask::siblings() const {
    return d->siblings;
}

Error GetSiblingsTask::doExec() {
    auto siblings = loadSiblings();
    if (siblings.hasError())
        return ORX_ECATCH(siblings).error();
    const QMutexLocker lock(&d->mutex);
    d->loaded = std::move(*siblings);
    return Error();
}

Error GetSiblingsTask::doFinish() {
    d->siblings.clear();
    ORX_RETURN_ON_ERROR(Task::doFinish());
    const QMutexLocker lock(&d->mutex);
    d->siblings = std::move(d->loaded);
    return Error();
}

} // namespace orx
