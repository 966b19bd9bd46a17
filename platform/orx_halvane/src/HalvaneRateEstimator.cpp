#include "HalvaneRateEstimator.h"

namespace orx {

void HalvaneRateEstimator::sample(Time now, qint64 sum) {
    if (!m_samples.empty() && now < m_samples.back().time)
        return;
    // The latest sample moves along until it is far enough from the one before it.
    if (m_samples.size() > 1 && now - m_samples[m_samples.size() - 2].time < kSpacing)
        m_samples.back() = {now, sum};
    else
        m_samples.push_back({now, sum});
    while (m_samples.size() > 2 && now - m_samples[1].time >= kWindow)
        m_samples.pop_front();
}

double HalvaneRateEstimator::rate() const {
    if (m_samples.size() < 2)
        return 0;
    const auto span = m_samples.back().time - m_samples.front().time;
    if (span < kShortestSpan)
        return 0;
    const double seconds = std::chrono::duration<double>(span).count();
    return double(m_samples.back().sum - m_samples.front().sum) / seconds;
}

} // namespace orx
