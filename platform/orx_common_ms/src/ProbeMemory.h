#pragma once

#include "MsProbe.h"
#include "orx_common_ms_export.h"

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace orx {

//! Remembers what probes found for as long as it holds: under the stamp of what was probed, and only while
//! everything else that the probe looked at has its stamp too. The one asked for longest ago is forgotten
//! first. Thread: any.
class ORX_COMMON_MS_EXPORT ProbeMemory {
public:
    using Prober = std::function<MsProbe(const QByteArray& path, const FileStamp& stamp)>;
    using Clock = std::function<qint64()>;

    //! The kernel's times are some milliseconds coarse: what changed this short a time before a probe may
    //! change once more without another time, so that it is not remembered. Nanoseconds.
    static constexpr qint64 SETTLED_AFTER = 100'000'000;

    //! \a prober is called without a lock held, on any thread; \a clock gives nanoseconds since 1970.
    ProbeMemory(size_t capacity, Prober prober, Clock clock);
    //! The memory of the process.
    static ProbeMemory& instance();

    MsDataCheck check(const QString& path);

private:
    struct StampHash {
        size_t operator()(const FileStamp& stamp) const;
    };
    struct Entry {
        FileStamp stamp;
        QByteArray path; //!< empty when any path to it gives the same
        std::shared_ptr<const MsProbe> probe;
    };

    std::shared_ptr<const MsProbe> recall(const QByteArray& path, const FileStamp& stamp);
    void remember(const QByteArray& path, const FileStamp& stamp, const MsProbe& probe);

    const size_t m_capacity;
    const Prober m_prober;
    const Clock m_clock;
    std::mutex m_mutex;
    std::list<Entry> m_entries; // the one asked for last first
    std::unordered_map<FileStamp, std::list<Entry>::iterator, StampHash> m_byStamp;
};

} // namespace orx
