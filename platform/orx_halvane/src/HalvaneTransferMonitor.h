#pragma once

#include "orx_halvane_export.h"

#include <QObject>

#include <chrono>
#include <memory>
#include <optional>

namespace orx {

//! The sum of all transfers of this process at one moment.
struct ORX_HALVANE_EXPORT HalvaneTransferSnapshot {
    qint64 bytesTotal = 0;
    //! Includes resumed bytes; never counts a byte twice.
    qint64 bytesDone = 0;
    //! Bytes that were already there.
    qint64 bytesResumed = 0;
    //! Bytes that really crossed the network.
    qint64 bytesMoved = 0;
    int running = 0;
    //! Over the last seconds; 0 while unknown.
    double bytesPerSecond = 0;
    //! Nothing while the rate is unknown.
    std::optional<std::chrono::seconds> remaining;
};

//! One transfer's own counter. When it is destroyed, a complete transfer stays in the sums; an incomplete one
//! leaves them (a later run of it counts its bytes as resumed), except for what it moved.
class ORX_HALVANE_EXPORT HalvaneTransfer {
public:
    ~HalvaneTransfer();
    void setResumed(qint64 bytes);
    //! The running sum of bytes of the transfer that are done, resumed ones included; never smaller than
    //! before.
    void setDone(qint64 bytes);

private:
    friend class HalvaneTransferMonitor;
    explicit HalvaneTransfer(qint64 total);
    qint64 m_total;
    qint64 m_resumed = 0;
    qint64 m_done = 0;
};

//! Bytes, rates and remaining times of transfers: task progress is a scaled integer and cannot carry them.
//! Thread: any.
class ORX_HALVANE_EXPORT HalvaneTransferMonitor {
public:
    using Clock = std::chrono::steady_clock;
    static std::shared_ptr<HalvaneTransfer> begin(qint64 totalBytes);
    static HalvaneTransferSnapshot snapshot(Clock::time_point now = Clock::now());
    //! Forgets the sums of transfers that are gone and the rate; for hosts that run several jobs.
    static void reset();
};

} // namespace orx
