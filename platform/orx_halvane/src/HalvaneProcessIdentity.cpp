#include "HalvaneProcessIdentity.h"

#include <QByteArray>
#include <QFile>
#include <QList>

#include <cerrno>

#include <csignal>
#include <unistd.h>

namespace orx {

namespace {

QByteArray readSmallFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

HalvaneProcessStat statOf(qint64 pid) {
    return HalvaneProcessStat::parse(readSmallFile(QStringLiteral("/proc/%1/stat").arg(pid)));
}

} // namespace

HalvaneProcessStat HalvaneProcessStat::parse(const QByteArray& text) {
    // The fields after the last ")" are numbered from 3 on: the state is the first, the start time field 22.
    constexpr qsizetype kStartTimeIndex = 22 - 3;
    HalvaneProcessStat stat;
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 1).simplified().split(' ');
    if (!text.contains(')') || fields.size() <= kStartTimeIndex)
        return stat;
    bool isNumber = false;
    const qint64 startTime = fields.at(kStartTimeIndex).toLongLong(&isNumber);
    if (!isNumber)
        return stat;
    stat.state = fields.front().isEmpty() ? '?' : fields.front().front();
    stat.startTime = startTime;
    return stat;
}

const HalvaneProcessIdentity& HalvaneProcessIdentity::ofThisProcess() {
    static const HalvaneProcessIdentity self{
        ::getpid(), statOf(::getpid()).startTime,
        QString::fromLatin1(readSmallFile(QStringLiteral("/proc/sys/kernel/random/boot_id")).trimmed())};
    return self;
}

bool HalvaneProcessIdentity::isAlive() const {
    if (pid <= 0 || bootId != ofThisProcess().bootId)
        return false;
    if (::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
        return false;
    const HalvaneProcessStat stat = statOf(pid);
    if (stat.startTime < 0)
        return true;
    const bool hasEnded = stat.state == 'Z' || stat.state == 'X';
    return stat.startTime == startTime && !hasEnded;
}

} // namespace orx
