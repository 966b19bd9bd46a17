#include "core/names.h"

#include "core/errors.h"

#include <cstdint>

namespace halvane::server {

namespace {

struct Decoded {
    std::uint32_t codePoint;
    std::size_t length; // 0: malformed
};

constexpr Decoded malformed{0, 0};

Decoded decodeAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) -> std::uint32_t {
        return static_cast<unsigned char>(text[at + i]);
    };
    const std::uint32_t first = byte(0);
    if (first < 0x80)
        return {first, 1};
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || at + length > text.size())
        return malformed;
    std::uint32_t value = first & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return malformed;
        value = (value << 6) | (byte(i) & 0x3F);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    return overlong || surrogate || value > 0x10FFFF ? malformed : Decoded{value, length};
}

bool isControl(std::uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F);
}

} // namespace

bool isValidUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const Decoded decoded = decodeAt(text, at);
        if (decoded.length == 0)
            return false;
        at += decoded.length;
    }
    return true;
}

std::optional<std::string> nameProblem(std::string_view name) {
    if (name.empty())
        return "is empty";
    if (name == "." || name == "..")
        return "is '" + std::string(name) + "', which stands for a directory";
    if (name.size() > maximumNameBytes)
        return "is longer than 255 bytes";
    for (std::size_t at = 0; at < name.size();) {
        const Decoded decoded = decodeAt(name, at);
        if (decoded.length == 0)
            return "is not valid UTF-8";
        if (decoded.codePoint == '/')
            return "holds a slash";
        if (isControl(decoded.codePoint))
            return "holds a control character";
        at += decoded.length;
    }
    return std::nullopt;
}

void requireValidName(std::string_view name, std::string_view kind) {
    if (const auto problem = nameProblem(name))
        throw ApiError(ErrorCode::InvalidName, "The " + std::string(kind) + " " + *problem + ".");
}

} // namespace halvane::server
