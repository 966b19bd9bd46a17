#include "PackedTime.h"

#include <QRegularExpression>

#include <cstdlib>

namespace orx::vonk {

namespace {

constexpr int billion = 1'000'000'000;

} // namespace

QString PackedTime::toString() const {
    // -1.25 is kept as -2 seconds and 750,000,000 nanoseconds.
    const bool isNegative = seconds < 0;
    const bool borrows = isNegative && nanoseconds > 0;
    const qint64 whole = std::abs(borrows ? seconds + 1 : seconds);
    const int fraction = borrows ? billion - nanoseconds : nanoseconds;
    QString text = isNegative ? QStringLiteral("-") : QString();
    text += QString::number(whole);
    if (fraction == 0)
        return text;
    QString decimals = QStringLiteral("%1").arg(fraction, 9, 10, QLatin1Char('0'));
    while (decimals.endsWith(QLatin1Char('0')))
        decimals.chop(1);
    return text + QLatin1Char('.') + decimals;
}

std::optional<PackedTime> PackedTime::fromString(const QString& text) {
    static const QRegularExpression form(QStringLiteral(R"(\A(-?)([0-9]{1,12})(?:\.([0-9]{1,9}))?\z)"));
    const auto match = form.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    PackedTime time{match.captured(2).toLongLong(),
                    match.captured(3).leftJustified(9, QLatin1Char('0')).toInt()};
    if (!match.captured(1).isEmpty()) {
        time.seconds = -time.seconds - (time.nanoseconds > 0 ? 1 : 0);
        time.nanoseconds = (billion - time.nanoseconds) % billion;
    }
    // One spelling for one time.
    if (time.toString() != text)
        return std::nullopt;
    return time;
}

} // namespace orx::vonk
