#pragma once

#include <QString>

namespace orx {

//! A process, told apart from a later one with the same id by its start time and the boot of the machine.
//! Processes of one configuration directory share one machine and one process id namespace.
struct HalvaneProcessIdentity {
    qint64 pid = 0;
    //! Clock ticks since the boot.
    qint64 startTime = 0;
    QString bootId;

    static const HalvaneProcessIdentity& ofThisProcess();
    //! Whether this very process is running. A process whose state cannot be told counts as running.
    bool isAlive() const;
};

//! State and start time from the text of /proc/PID/stat; a start time of -1 when it has another form. The
//! name in it may hold blanks and parentheses.
struct HalvaneProcessStat {
    char state = '?';
    qint64 startTime = -1;
    static HalvaneProcessStat parse(const QByteArray& text);
};

} // namespace orx
