#pragma once

#include "orx_halvane_export.h"

#include <QtGlobal>

#include <chrono>
#include <deque>

namespace orx {

//! The mean rate over the last seconds of a growing sum. Pure: the caller gives the times.
class ORX_HALVANE_EXPORT HalvaneRateEstimator {
public:
    using Time = std::chrono::steady_clock::time_point;
    //! How far back the mean looks.
    static constexpr std::chrono::milliseconds kWindow{5'000};
    //! A shorter span says nothing yet.
    static constexpr std::chrono::milliseconds kShortestSpan{500};
    //! Closer samples replace one another, so that their number is bounded.
    static constexpr std::chrono::milliseconds kSpacing{50};

    //! Adds what the sum is at \a now; times do not run backwards.
    void sample(Time now, qint64 sum);
    //! Per second; 0 while unknown.
    double rate() const;

private:
    struct Sample {
        Time time;
        qint64 sum;
    };
    std::deque<Sample> m_samples;
};

} // namespace orx
