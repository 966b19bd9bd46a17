#include "core/times.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace halvane::server {

namespace {

using namespace std::chrono;

struct Calendar {
    year_month_day date;
    hh_mm_ss<milliseconds> clock;
    weekday day;
};

Calendar calendarOf(TimeMs time) {
    const sys_time<milliseconds> point{milliseconds{time}};
    const auto days = floor<std::chrono::days>(point);
    return {year_month_day{days}, hh_mm_ss{point - days}, weekday{days}};
}

bool readDigits(std::string_view text, std::size_t at, std::size_t count, int& value) {
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

// The milliseconds of ".123456"; nothing when it is not a dot and digits.
std::optional<int> readFraction(std::string_view text) {
    if (text.empty())
        return 0;
    if (text.front() != '.' || text.size() < 2)
        return std::nullopt;
    int value = 0;
    int weight = 100;
    for (const char c : text.substr(1)) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value += (c - '0') * weight;
        weight /= 10;
    }
    return value;
}

} // namespace

TimeMs currentTime() {
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string isoText(TimeMs time) {
    const Calendar c = calendarOf(time);
    std::array<char, 64> text{};
    const int length = std::snprintf(
        text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(c.date.year()),
        static_cast<unsigned>(c.date.month()), static_cast<unsigned>(c.date.day()),
        static_cast<int>(c.clock.hours().count()), static_cast<int>(c.clock.minutes().count()),
        static_cast<int>(c.clock.seconds().count()), static_cast<int>(c.clock.subseconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

std::optional<TimeMs> parseIso(std::string_view text) {
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:dd";
    if (text.size() <= pattern.size() || text.back() != 'Z')
        return std::nullopt;
    for (std::size_t i = 0; i < pattern.size(); ++i)
        if (pattern[i] != 'd' && text[i] != pattern[i])
            return std::nullopt;
    int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
    const bool digitsFit = readDigits(text, 0, 4, y) && readDigits(text, 5, 2, mo) &&
                           readDigits(text, 8, 2, d) && readDigits(text, 11, 2, h) &&
                           readDigits(text, 14, 2, mi) && readDigits(text, 17, 2, s);
    const auto fraction = readFraction(text.substr(pattern.size(), text.size() - pattern.size() - 1));
    const year_month_day date{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!digitsFit || !fraction || !date.ok() || h > 23 || mi > 59 || s > 60)
        return std::nullopt;
    const auto point = sys_days{date} + hours{h} + minutes{mi} + seconds{s} + milliseconds{*fraction};
    return duration_cast<milliseconds>(point.time_since_epoch()).count();
}

std::string httpDate(TimeMs time) {
    constexpr std::array<const char*, 7> dayNames{"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr std::array<const char*, 12> monthNames{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const Calendar c = calendarOf(time);
    std::array<char, 64> text{};
    const int length = std::snprintf(
        text.data(), text.size(), "%s, %02u %s %04d %02d:%02d:%02d GMT", dayNames[c.day.c_encoding()],
        static_cast<unsigned>(c.date.day()), monthNames[static_cast<unsigned>(c.date.month()) - 1],
        static_cast<int>(c.date.year()), static_cast<int>(c.clock.hours().count()),
        static_cast<int>(c.clock.minutes().count()), static_cast<int>(c.clock.seconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

} // namespace halvane::server
