// Writing JSON straight into a text, so that a listing of 100,000 items exists once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace halvane::server {

// A JSON string with its quotes. The text must be valid UTF-8.
void appendJsonString(std::string& out, std::string_view text);

// Builds one object: JsonObject(out).field("id", 7).field("name", name) closes itself at the end of its life.
class JsonObject {
public:
    explicit JsonObject(std::string& out) : m_out(out) { m_out += '{'; }
    ~JsonObject() { m_out += '}'; }
    JsonObject(const JsonObject&) = delete;
    JsonObject& operator=(const JsonObject&) = delete;

    JsonObject& field(std::string_view name, std::string_view value);
    JsonObject& field(std::string_view name, const char* value) {
        return field(name, std::string_view(value));
    }
    JsonObject& field(std::string_view name, const std::string& value) {
        return field(name, std::string_view(value));
    }
    JsonObject& field(std::string_view name, std::int64_t value);
    JsonObject& field(std::string_view name, bool value);
    // null when there is no value.
    JsonObject& field(std::string_view name, const std::optional<std::string>& value);
    // The text must be JSON already.
    JsonObject& rawField(std::string_view name, std::string_view json);
    // Opens a member whose value the caller appends to the text itself.
    std::string& open(std::string_view name);

private:
    std::string& m_out;
    bool m_first = true;
};

// The commas of a list that is appended item by item.
class JsonList {
public:
    explicit JsonList(std::string& out) : m_out(out) { m_out += '['; }
    ~JsonList() { m_out += ']'; }
    JsonList(const JsonList&) = delete;
    JsonList& operator=(const JsonList&) = delete;

    std::string& next() {
        if (!m_first)
            m_out += ',';
        m_first = false;
        return m_out;
    }

private:
    std::string& m_out;
    bool m_first = true;
};

} // namespace halvane::server
