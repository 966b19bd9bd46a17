#include "TextForms.h"

#include <QLocale>
#include <QStringList>

#include <algorithm>
#include <array>

namespace halvane::cli {

namespace {

bool isControl(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
}

bool isDirectionMark(char32_t c) {
    return (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069) || c == 0x200E || c == 0x200F ||
           c == 0x61C;
}

} // namespace

QString printable(const QString& text, Escaping escaping) {
    QString result;
    result.reserve(text.size());
    for (const QChar c : text) {
        const char32_t code = c.unicode();
        const bool escape =
            isControl(code) || (escaping == Escaping::AlsoDirectionMarks && isDirectionMark(code));
        if (escape)
            result += QStringLiteral("\\u{%1}").arg(QString::number(code, 16).toUpper());
        else
            result += c;
    }
    return result;
}

QString bytesText(qint64 bytes) {
    static constexpr std::array units{"B", "KiB", "MiB", "GiB", "TiB"};
    double value = double(bytes);
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < units.size()) {
        value /= 1024;
        ++unit;
    }
    return QStringLiteral("%1 %2").arg(QString::number(value, 'f', unit == 0 ? 0 : 1),
                                       QLatin1String(units[unit]));
}

QString durationText(std::chrono::seconds duration) {
    const qint64 all = duration.count();
    const QChar zero = u'0';
    if (all < 3600)
        return QStringLiteral("%1:%2").arg(all / 60).arg(all % 60, 2, 10, zero);
    return QStringLiteral("%1:%2:%3")
        .arg(all / 3600)
        .arg(all / 60 % 60, 2, 10, zero)
        .arg(all % 60, 2, 10, zero);
}

QString timeText(const QDateTime& time) {
    return time.isValid() ? time.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm"))
                          : QStringLiteral("-");
}

QString progressText(const QString& name, qint64 done, qint64 total, double rate,
                     std::chrono::seconds remaining) {
    const qint64 percent = total > 0 ? done * 100 / total : 100;
    QStringList parts{name, QStringLiteral("%1 %").arg(percent),
                      QStringLiteral("%1 of %2").arg(bytesText(done), bytesText(total))};
    if (rate > 0)
        parts.append(bytesText(qint64(rate)) + QStringLiteral("/s"));
    if (remaining.count() >= 0)
        parts.append(durationText(remaining) + QStringLiteral(" left"));
    return parts.join(QStringLiteral("  "));
}

QString percentText(const QString& name, int percent, std::chrono::seconds remaining) {
    QStringList parts{name, QStringLiteral("%1 %").arg(percent)};
    if (remaining.count() >= 0)
        parts.append(durationText(remaining) + QStringLiteral(" left"));
    return parts.join(QStringLiteral("  "));
}

QString treeProgressText(const QString& name, const TreeState& state, double rate, double doneRate) {
    const QString more = state.isWhole ? QString() : QStringLiteral("+");
    QStringList parts{name,
                      QStringLiteral("%1 of %2%3 files")
                          .arg(QString::number(state.filesDone), QString::number(state.filesTotal), more)};
    if (state.isWhole && state.bytesTotal > 0)
        parts.append(QStringLiteral("%1 %").arg(state.bytesDone * 100 / state.bytesTotal));
    parts.append(
        QStringLiteral("%1 of %2%3").arg(bytesText(state.bytesDone), bytesText(state.bytesTotal), more));
    if (rate > 0)
        parts.append(bytesText(qint64(rate)) + QStringLiteral("/s"));
    const double speed = std::max(rate, doneRate);
    if (speed > 0 && state.isWhole)
        parts.append(
            durationText(std::chrono::seconds(qint64(double(state.bytesTotal - state.bytesDone) / speed))) +
            QStringLiteral(" left"));
    if (!state.running.isEmpty())
        parts.append(state.running);
    return parts.join(QStringLiteral("  "));
}

} // namespace halvane::cli
