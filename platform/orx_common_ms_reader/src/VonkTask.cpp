#include "VonkTask.h"

#include <OwnerInbox.h>

#include <QDir>
#include <QPointer>

#include <atomic>

namespace orx::vonk {

struct VonkTask::Private {
    //! Of the owner's thread, and made there.
    std::shared_ptr<OwnerInbox> inbox;
    QPointer<VonkTask> self;
    std::atomic<bool> isMade = false;
};

VonkTask::VonkTask(const QString& name, QObject* parent)
    : Task(name, parent), d(std::make_unique<Private>()) {
    d->self = this;
}

VonkTask::~VonkTask() = default;

Error VonkTask::initialize() {
    d->inbox = OwnerInbox::ofThisThread();
    Q_EMIT progressInitiated(100);
    return {};
}

Error VonkTask::doExec() {
    const bool isOnOwner = executionMode() == ExecutionMode::Direct;
    int last = -1;
    const auto tell = [&](int percent) {
        if (percent == std::exchange(last, percent))
            return;
        if (isOnOwner)
            Q_EMIT progress(percent, 100);
        else
            d->inbox->post([self = d->self, percent] {
                if (self && self->isRunning())
                    Q_EMIT self->progress(percent, 100);
            });
    };
    WorkWatch watch;
    watch.isCanceled = [this] { return isCancelRequested(); };
    watch.progress = [&tell](qint64 done, qint64 total) { tell(int(double(done) / double(total) * 99)); };
    const Error error = work(watch);
    if (error.hasError())
        return error;
    d->isMade = true;
    tell(100);
    return {};
}

Error VonkTask::doFinish() {
    if (d->isMade.exchange(false) && hasError())
        discard();
    return Task::doFinish();
}

void VonkTask::stopForGood() {
    stopBody();
    if (d->isMade.exchange(false))
        discard();
}

void VonkTask::discard() {}

CheckVonkTask::CheckVonkTask(const QString& path, Vonk::Check check, QObject* parent)
    : VonkTask(QStringLiteral("CheckVonk(%1)").arg(path), parent), m_path(path), m_check(check) {}

CheckVonkTask::~CheckVonkTask() {
    stopForGood();
}

Error CheckVonkTask::work(const WorkWatch& watch) {
    Vonk vonk(m_path);
    ORX_RETURN_ON_ERROR(vonk.open());
    return ORX_ECATCH(vonk.validate(m_check, watch));
}

UnpackVonkTask::UnpackVonkTask(const QString& path, const QString& target, QObject* parent)
    : VonkTask(QStringLiteral("UnpackVonk(%1)").arg(path), parent), m_path(path), m_target(target) {}

UnpackVonkTask::~UnpackVonkTask() {
    stopForGood();
}

Error UnpackVonkTask::work(const WorkWatch& watch) {
    Vonk vonk(m_path);
    ORX_RETURN_ON_ERROR(vonk.open());
    return ORX_ECATCH(vonk.unpack(m_target, watch));
}

void UnpackVonkTask::discard() {
    QDir(m_target).removeRecursively();
}

} // namespace orx::vonk
