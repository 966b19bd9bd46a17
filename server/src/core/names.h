// The rules for names of files and folders, users and groups. Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace halvane::server {

inline constexpr std::size_t maximumNameBytes = 255;

// True when the text is well-formed UTF-8 (no overlong forms, surrogates or values above U+10FFFF).
bool isValidUtf8(std::string_view text);

// What is wrong with a name, as the end of a sentence ("is empty"), or nothing when it is allowed.
std::optional<std::string> nameProblem(std::string_view name);

// Throws ApiError(InvalidName) that says what kind of name ("file name") is refused and why.
void requireValidName(std::string_view name, std::string_view kind);

} // namespace halvane::server
