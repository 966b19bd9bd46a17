#include "TreeProgress.h"

#include <algorithm>

namespace orx {

void TreeProgress::setUnderWay(int key, qint64 bytes, double part) {
    double& now = m_underWay[key];
    const double reached = double(bytes) * std::clamp(part, 0.0, 1.0);
    m_underWaySum += reached - now;
    now = reached;
}

void TreeProgress::settle(int key, qint64 bytes) {
    drop(key);
    m_settled += double(bytes);
}

void TreeProgress::drop(int key) {
    m_underWaySum -= m_underWay.take(key);
}

std::optional<int> TreeProgress::take(qint64 totalBytes) {
    const double part = totalBytes > 0 ? (m_settled + m_underWaySum) / double(totalBytes) : 0;
    const int value = std::clamp(int(part * maximum), 0, maximum - 1);
    if (value <= m_taken)
        return std::nullopt;
    m_taken = value;
    return value;
}

} // namespace orx
