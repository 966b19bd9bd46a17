#include "CacheFillTask.h"

#include <DelayStepTask.h>
#include <MirroringInterface.h>
#include <WorkerStepTask.h>

#include <QCoreApplication>

#include <algorithm>

namespace orx {

namespace {

using namespace std::chrono_literals;

//! Between two looks whether another process has ended its fill; grows up to the second one.
constexpr auto kFirstPause = 10ms;
constexpr auto kLongestPause = 250ms;

} // namespace

CacheFillTask::CacheFillTask(std::shared_ptr<CacheFill> fill, Fetch fetch, std::function<QString()> checksum,
                             std::function<ResourceCache::Limits()> limits)
    : ComplexTask(QStringLiteral("Fill the cache"))
    , m_fill(std::move(fill))
    , m_fetch(std::move(fetch))
    , m_checksum(std::move(checksum))
    , m_limits(std::move(limits))
    , m_pause(kFirstPause) {}

CacheFillTask::~CacheFillTask() {
    m_fill->cancel();
    // Of a running one a worker may use it; then it goes with the worker's job.
    if (!isRunning())
        m_fill->releaseEntry();
}

Error CacheFillTask::initialize() {
    begin();
    return Error();
}

void CacheFillTask::doCancel() {
    m_fill->cancel();
    ComplexTask::doCancel();
}

//! No step runs any more.
Error CacheFillTask::doFinish() {
    m_fill->releaseFill();
    return ComplexTask::doFinish();
}

void CacheFillTask::begin() {
    const auto begun = std::make_shared<CacheFill::Begun>();
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("Begin to fill the cache"),
                                                 [fill = m_fill, begun, expected = m_checksum()] {
                                                     auto result = fill->begin(expected);
                                                     if (result.hasError())
                                                         return std::move(result).error();
                                                     *begun = *result;
                                                     return Error();
                                                 }),
                [this, begun](BaseTask*) { onBegun(*begun); });
}

void CacheFillTask::onBegun(CacheFill::Begun begun) {
    if (begun == CacheFill::Begun::Fetch)
        fetchContent();
    if (begun != CacheFill::Begun::Waiting)
        return;
    const auto pause = m_pause;
    m_pause = std::min<std::chrono::milliseconds>(2 * m_pause, kLongestPause);
    execSubtask(std::make_unique<DelayStepTask>(pause), [this](BaseTask*) { begin(); });
}

//! Null, and this task finished, when there is none.
std::unique_ptr<Task> CacheFillTask::makeFetch() {
    std::unique_ptr<Task> fetch = m_fetch(DirPath(m_fill->directory()));
    if (!fetch)
        finish(Error(ErrorCode::General,
                     QCoreApplication::translate("orx::ResourceCache",
                                                 "There is no way to fetch the content for the cache.")));
    if (auto* const mirror = dynamic_cast<MirroringInterface*>(fetch.get()))
        mirror->setMirroring();
    return fetch;
}

void CacheFillTask::fetchContent() {
    auto fetch = makeFetch();
    if (!fetch)
        return;
    // Only a mirror removes what is not part of the content any more: another fetch begins with nothing.
    if (m_fill->isUpdate() && dynamic_cast<MirroringInterface*>(fetch.get()) == nullptr)
        startOver(std::move(fetch));
    else
        runFetch(std::move(fetch));
}

void CacheFillTask::startOver(std::unique_ptr<Task> fetch) {
    const auto next = std::make_shared<std::unique_ptr<Task>>(std::move(fetch));
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("Start the fill of the cache over"),
                                                 [fill = m_fill] { return fill->startOver(); }),
                [this, next](BaseTask*) { runFetch(std::move(*next)); });
}

void CacheFillTask::runFetch(std::unique_ptr<Task> fetch) {
    connect(fetch.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(fetch.get(), &BaseTask::progress, this, &BaseTask::progress);
    // The entry stays locked until nothing can write into its directory any more: when this task goes before
    // the fetch has ended. One that has ended may be deleted much later.
    const auto writing = std::make_shared<std::shared_ptr<CacheFill>>(m_fill);
    connect(fetch.get(), &QObject::destroyed, [writing] {});
    connect(fetch.get(), &BaseTask::idle, [writing] { writing->reset(); });
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(fetch)), [this](BaseTask* task) { seal(task); },
        [this](BaseTask* task) { onFetchFailed(task->error()); });
}

//! An update that finds something of another kind in its way is made without what was there.
void CacheFillTask::onFetchFailed(const Error& error) {
    if (isCanceled() || !m_fill->isUpdate() || !error.is(ErrorCode::AlreadyExists)) {
        finish(ORX_ECATCH(Error(error)));
        return;
    }
    if (auto fetch = makeFetch())
        startOver(std::move(fetch));
}

void CacheFillTask::seal(BaseTask* fetched) {
    const auto digest = fetched->variantResult().value<ResourceCacheDigest>();
    execSubtask(std::make_unique<WorkerStepTask>(
        QStringLiteral("Seal the entry of the cache"),
        [fill = m_fill, digest, expected = m_checksum(), limits = m_limits()] {
            return fill->finish(digest.sha256, expected, limits);
        }));
}

} // namespace orx
