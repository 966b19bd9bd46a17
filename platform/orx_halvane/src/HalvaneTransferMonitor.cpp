#include "HalvaneTransferMonitor.h"

#include "HalvaneRateEstimator.h"

#include <QMutex>
#include <QMutexLocker>
#include <QSet>

#include <algorithm>
#include <cmath>

namespace orx {

namespace {

struct Monitor {
    QMutex mutex;
    QSet<const HalvaneTransfer*> live;
    //! Of transfers that are complete and gone.
    qint64 finishedBytes = 0;
    qint64 finishedResumed = 0;
    //! Of all transfers that are gone.
    qint64 goneMoved = 0;
    HalvaneRateEstimator estimator;
};

Monitor& monitor() {
    static Monitor instance;
    return instance;
}

} // namespace

HalvaneTransfer::HalvaneTransfer(qint64 total) : m_total(std::max<qint64>(total, 0)) {
    const QMutexLocker lock(&monitor().mutex);
    monitor().live.insert(this);
}

HalvaneTransfer::~HalvaneTransfer() {
    Monitor& all = monitor();
    const QMutexLocker lock(&all.mutex);
    all.live.remove(this);
    all.goneMoved += m_done - m_resumed;
    if (m_done < m_total)
        return;
    all.finishedBytes += m_total;
    all.finishedResumed += m_resumed;
}

void HalvaneTransfer::setResumed(qint64 bytes) {
    const QMutexLocker lock(&monitor().mutex);
    m_resumed = std::clamp<qint64>(bytes, 0, m_total);
    m_done = std::max(m_done, m_resumed);
}

void HalvaneTransfer::setDone(qint64 bytes) {
    const QMutexLocker lock(&monitor().mutex);
    m_done = std::max(m_done, std::min(bytes, m_total));
}

std::shared_ptr<HalvaneTransfer> HalvaneTransferMonitor::begin(qint64 totalBytes) {
    return std::shared_ptr<HalvaneTransfer>(new HalvaneTransfer(totalBytes));
}

HalvaneTransferSnapshot HalvaneTransferMonitor::snapshot(Clock::time_point now) {
    Monitor& all = monitor();
    const QMutexLocker lock(&all.mutex);
    HalvaneTransferSnapshot sum;
    sum.bytesTotal = sum.bytesDone = all.finishedBytes;
    sum.bytesResumed = all.finishedResumed;
    sum.bytesMoved = all.goneMoved;
    sum.running = int(all.live.size());
    for (const HalvaneTransfer* transfer : std::as_const(all.live)) {
        sum.bytesTotal += transfer->m_total;
        sum.bytesDone += transfer->m_done;
        sum.bytesResumed += transfer->m_resumed;
        sum.bytesMoved += transfer->m_done - transfer->m_resumed;
    }
    all.estimator.sample(now, sum.bytesMoved);
    sum.bytesPerSecond = all.estimator.rate();
    if (sum.bytesPerSecond > 0)
        sum.remaining = std::chrono::seconds(
            std::llround(std::ceil(double(sum.bytesTotal - sum.bytesDone) / sum.bytesPerSecond)));
    return sum;
}

void HalvaneTransferMonitor::reset() {
    Monitor& all = monitor();
    const QMutexLocker lock(&all.mutex);
    all.finishedBytes = all.finishedResumed = all.goneMoved = 0;
    all.estimator = HalvaneRateEstimator();
}

} // namespace orx
