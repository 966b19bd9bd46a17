#pragma once

#include <QDateTime>
#include <QString>

#include <chrono>

namespace halvane::cli {

//! Whether characters that only confuse a terminal (changes of writing direction) are escaped too.
enum class Escaping { ControlCharacters, AlsoDirectionMarks };

//! \a text with every control character (and line and paragraph separators) written as \u{1B}, so that a name
//! can neither drive a terminal nor break a line. Everything else stays as it is.
QString printable(const QString& text, Escaping escaping = Escaping::ControlCharacters);

//! "0 B", "1023 B", "1.0 KiB", "20.5 MiB": at most one digit after the point.
QString bytesText(qint64 bytes);
//! "0:07", "12:30", "3:05:00".
QString durationText(std::chrono::seconds duration);
//! In local time, to the minute; "-" for an invalid one.
QString timeText(const QDateTime& time);

//! "run1.mzML  45 %  1.2 GiB of 2.7 GiB  85.2 MiB/s  0:18 left"; parts that are unknown are left out. \a rate
//! in bytes per second, 0 while unknown; \a remaining negative while unknown.
QString progressText(const QString& name, qint64 done, qint64 total, double rate,
                     std::chrono::seconds remaining);

//! "packing run1.d  45 %  0:18 left"; \a remaining negative while unknown.
QString percentText(const QString& name, int percent, std::chrono::seconds remaining);

//! How far a transfer of several files is.
struct TreeState {
    int filesDone = 0;
    int filesTotal = 0;
    qint64 bytesDone = 0;
    qint64 bytesTotal = 0;
    //! Whether the totals will not grow any more.
    bool isWhole = false;
    //! What is under way, shown as it is; empty when nobody knows.
    QString running = {};
};
//! "2026  312 of 2000 files  45 %  1.2 GiB of 2.7 GiB  85.2 MiB/s  0:18 left  run1.raw and 7 more"; while the
//! totals grow "2000+ files", and neither share nor remaining time. \a rate: bytes per second that move; what
//! is there already only makes \a doneRate higher, by which the rest is expected. 0 while unknown.
QString treeProgressText(const QString& name, const TreeState& state, double rate, double doneRate = 0);

} // namespace halvane::cli
