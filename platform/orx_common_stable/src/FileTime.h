#pragma once

#include <QtGlobal>

#include <ctime>
#include <limits>

namespace orx {

//! Nanoseconds since 1970. File systems keep times that the number cannot hold (before 1677, from 2262 on):
//! those are all the same, the nearest that it can.
inline qint64 nanosecondsOf(const timespec& time) {
    qint64 whole = 0;
    const bool isOutside = __builtin_mul_overflow(qint64(time.tv_sec), 1'000'000'000, &whole) ||
                           __builtin_add_overflow(whole, qint64(time.tv_nsec), &whole);
    if (!isOutside)
        return whole;
    return time.tv_sec < 0 ? std::numeric_limits<qint64>::min() : std::numeric_limits<qint64>::max();
}

inline bool isLater(const timespec& one, const timespec& other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec > other.tv_sec : one.tv_nsec > other.tv_nsec;
}

} // namespace orx
