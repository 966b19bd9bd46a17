#include "ProbeMemory.h"

#include "Texts.h"

#include <FileTime.h>

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace orx {

namespace {

// More than the entries of the largest trees: who asks about all of them in turn, again and again, would find
// none in a smaller memory. Some tens of megabytes when full.
constexpr size_t kCapacity = 131072;

qint64 realTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return nanosecondsOf(now);
}

bool isSettled(const std::optional<FileStamp>& stamp, qint64 now) {
    return !stamp || stamp->newest() < now - ProbeMemory::SETTLED_AFTER;
}

} // namespace

ProbeMemory::ProbeMemory(size_t capacity, Prober prober, Clock clock)
    : m_capacity(capacity), m_prober(std::move(prober)), m_clock(std::move(clock)) {}

ProbeMemory& ProbeMemory::instance() {
    static ProbeMemory memory(kCapacity, &probeMsData, &realTime);
    return memory;
}

size_t ProbeMemory::StampHash::operator()(const FileStamp& stamp) const {
    return qHashMulti(0, stamp.device, stamp.inode, stamp.size, stamp.modified, stamp.changed);
}

MsDataCheck ProbeMemory::check(const QString& path) {
    if (path.isEmpty())
        return {MsDataKind::None, msText("The path is empty."), {}};
    const QByteArray name = QFile::encodeName(QFileInfo(path).absoluteFilePath());
    const auto stamp = FileStamp::of(name);
    if (!stamp)
        return {MsDataKind::None,
                msText("It cannot be looked at: %1.").arg(QString::fromLocal8Bit(std::strerror(errno))),
                {}};
    if (const auto known = recall(name, *stamp))
        return known->check;
    const qint64 before = m_clock();
    const MsProbe probe = m_prober(name, *stamp);
    const bool isAllSettled =
        isSettled(stamp, before) &&
        std::all_of(probe.witnesses.begin(), probe.witnesses.end(),
                    [before](const MsProbe::Witness& witness) { return isSettled(witness.stamp, before); });
    if (isAllSettled)
        remember(name, *stamp, probe);
    return probe.check;
}

std::shared_ptr<const MsProbe> ProbeMemory::recall(const QByteArray& path, const FileStamp& stamp) {
    std::shared_ptr<const MsProbe> probe;
    {
        const std::lock_guard lock(m_mutex);
        const auto found = m_byStamp.find(stamp);
        if (found == m_byStamp.end())
            return nullptr;
        const auto entry = found->second;
        if (!entry->path.isEmpty() && entry->path != path)
            return nullptr;
        m_entries.splice(m_entries.begin(), m_entries, entry);
        probe = entry->probe;
    }
    const auto& witnesses = probe->witnesses;
    const bool holds = std::all_of(witnesses.begin(), witnesses.end(), [](const MsProbe::Witness& witness) {
        return FileStamp::of(witness.path) == witness.stamp;
    });
    return holds ? probe : nullptr;
}

void ProbeMemory::remember(const QByteArray& path, const FileStamp& stamp, const MsProbe& probe) {
    // Inner files are told by their paths, too.
    const bool isBoundToPath = probe.dependsOnPath || stamp.isDirectory();
    const std::lock_guard lock(m_mutex);
    if (const auto known = m_byStamp.find(stamp); known != m_byStamp.end()) {
        m_entries.erase(known->second);
        m_byStamp.erase(known);
    }
    m_entries.push_front({stamp, isBoundToPath ? path : QByteArray(), std::make_shared<MsProbe>(probe)});
    m_byStamp.emplace(stamp, m_entries.begin());
    if (m_entries.size() > m_capacity) {
        m_byStamp.erase(m_entries.back().stamp);
        m_entries.pop_back();
    }
}

} // namespace orx
