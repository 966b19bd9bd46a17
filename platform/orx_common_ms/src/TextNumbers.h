#pragma once

#include <QString>

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace orx {

inline std::string_view trimmedView(std::string_view text) {
    const auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

//! The whole of a text as a finite number, whatever the locale; absent when it is none.
inline std::optional<double> finiteNumber(std::string_view text) {
    text = trimmedView(text);
    if (!text.empty() && text.front() == '+')
        text.remove_prefix(1);
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

inline std::optional<qint64> wholeNumber(std::string_view text) {
    text = trimmedView(text);
    qint64 value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

//! A whole number from 0 to \a most; one beyond an end is that end, and what is no number is 0.
inline int boundedNumber(std::string_view text, int most) {
    const qint64 value = wholeNumber(text).value_or(0);
    return value < 0 ? 0 : int(value > most ? most : value);
}

//! Text for people, cut to what a summary may carry.
inline QString shortText(std::string_view text) {
    constexpr qsizetype kLongest = 200;
    text = trimmedView(text).substr(0, 4 * kLongest);
    return QString::fromUtf8(text.data(), qsizetype(text.size())).left(kLongest);
}

} // namespace orx
