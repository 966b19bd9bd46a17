#include "TransferProgress.h"

namespace orx {

TransferProgress::TransferProgress(qint64 totalBytes) : m_total(totalBytes) {}

void TransferProgress::startOver(qint64 totalBytes) {
    m_total = totalBytes;
    m_resumed = 0;
    m_settled = 0;
    m_underWay.clear();
}

void TransferProgress::addResumed(qint64 bytes) {
    m_resumed += bytes;
    m_settled += bytes;
    update();
}

void TransferProgress::setUnderWay(int piece, qint64 bytes) {
    m_underWay.insert(piece, bytes);
    update();
}

void TransferProgress::settle(int piece, qint64 bytes) {
    m_underWay.remove(piece);
    m_settled += bytes;
    update();
}

void TransferProgress::complete() {
    m_complete = true;
    m_underWay.clear();
    m_settled = m_total;
    update();
}

std::optional<int> TransferProgress::takePercent() {
    // In floating point, since a hundred times the size of a large file may not fit.
    const int reached = m_total > 0 ? int(double(m_done) / double(m_total) * maximum) : 0;
    const int percent = m_complete ? maximum : qMin(reached, maximum - 1);
    if (percent <= m_taken)
        return std::nullopt;
    m_taken = percent;
    return percent;
}

void TransferProgress::update() {
    qint64 sum = m_settled;
    for (const qint64 bytes : std::as_const(m_underWay))
        sum += bytes;
    m_done = qBound(m_done, sum, qMax(m_done, m_total));
}

} // namespace orx
