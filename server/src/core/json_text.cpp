#include "core/json_text.h"

#include <charconv>

namespace halvane::server {

void appendJsonString(std::string& out, std::string_view text) {
    constexpr char digits[] = "0123456789abcdef";
    out += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20) {
            out += "\\u00";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        } else {
            out += c;
        }
    }
    out += '"';
}

std::string& JsonObject::open(std::string_view name) {
    if (!m_first)
        m_out += ',';
    m_first = false;
    appendJsonString(m_out, name);
    m_out += ':';
    return m_out;
}

JsonObject& JsonObject::field(std::string_view name, std::string_view value) {
    appendJsonString(open(name), value);
    return *this;
}

JsonObject& JsonObject::field(std::string_view name, std::int64_t value) {
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    open(name).append(text, end);
    return *this;
}

JsonObject& JsonObject::field(std::string_view name, bool value) {
    open(name) += value ? "true" : "false";
    return *this;
}

JsonObject& JsonObject::field(std::string_view name, const std::optional<std::string>& value) {
    return value ? field(name, std::string_view(*value)) : rawField(name, "null");
}

JsonObject& JsonObject::rawField(std::string_view name, std::string_view json) {
    open(name) += json;
    return *this;
}

} // namespace halvane::server
