#include "Quantities.h"

#include <limits>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::Result;

namespace {

constexpr qint64 secondsOfThousandYears = qint64(1000) * 366 * 24 * 3600;

// Nothing but ASCII digits: no sign, no blanks, no point.
std::optional<qint64> wholeNumber(QStringView digits) {
    const bool plain = !digits.isEmpty() && std::all_of(digits.begin(), digits.end(),
                                                        [](QChar c) { return c >= u'0' && c <= u'9'; });
    bool fits = false;
    const qint64 number = digits.toLongLong(&fits);
    return plain && fits ? std::optional(number) : std::nullopt;
}

std::optional<qint64> multiplied(std::optional<qint64> number, qint64 factor, qint64 largest) {
    if (!number || factor == 0 || *number > largest / factor)
        return std::nullopt;
    return *number * factor;
}

qint64 bytesOfUnit(QChar unit) {
    const qsizetype power = QStringView(u"KMGT").indexOf(unit, 0, Qt::CaseInsensitive);
    return power < 0 ? 0 : qint64(1) << (10 * (power + 1));
}

qint64 secondsOfUnit(QChar unit) {
    switch (unit.toLower().unicode()) {
    case u's':
        return 1;
    case u'm':
        return 60;
    case u'h':
        return 3600;
    case u'd':
        return 24 * 3600;
    case u'w':
        return 7 * 24 * 3600;
    default:
        return 0;
    }
}

} // namespace

Result<qint64> parseSize(const QString& text) {
    constexpr qint64 largest = std::numeric_limits<qint64>::max();
    const bool hasUnit = !text.isEmpty() && bytesOfUnit(text.back()) > 0;
    const auto bytes =
        hasUnit ? multiplied(wholeNumber(QStringView(text).chopped(1)), bytesOfUnit(text.back()), largest)
                : wholeNumber(text);
    if (!bytes)
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is not a size; write a whole number with K, M, G or T, such as "
                                    "500M or 20G, or of bytes.")
                         .arg(text));
    return *bytes;
}

Result<std::chrono::seconds> parseAge(const QString& text) {
    const auto seconds = text.isEmpty() ? std::nullopt
                                        : multiplied(wholeNumber(QStringView(text).chopped(1)),
                                                     secondsOfUnit(text.back()), secondsOfThousandYears);
    if (!seconds)
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is not an age; write a whole number with s, m, h, d or w, such "
                                    "as 12h or 30d.")
                         .arg(text));
    return std::chrono::seconds(*seconds);
}

} // namespace halvane::host
