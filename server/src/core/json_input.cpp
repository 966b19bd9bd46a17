#include "core/json_input.h"

#include "core/errors.h"
#include "core/times.h"

#include <nlohmann/json.hpp>

namespace halvane::server {

namespace {

[[noreturn]] void refuse(const std::string& message) {
    throw ApiError(ErrorCode::BadRequest, message);
}

[[noreturn]] void mistyped(const char* field, const char* expected) {
    refuse("The field \"" + std::string(field) + "\" must be " + expected + ".");
}

// Accepts well-formed JSON and counts its levels; the parser below it is iterative, so depth costs no stack.
struct DepthGuard : nlohmann::json_sax<nlohmann::json> {
    int depth = 0;
    bool tooDeep = false;

    bool enter() {
        tooDeep = ++depth > maximumJsonDepth;
        return !tooDeep;
    }
    bool leave() {
        --depth;
        return true;
    }
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return enter(); }
    bool key(string_t&) override { return true; }
    bool end_object() override { return leave(); }
    bool start_array(std::size_t) override { return enter(); }
    bool end_array() override { return leave(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }
};

// Walks over JSON that is known to be well-formed.
class Walker {
public:
    explicit Walker(std::string_view text) : m_text(text) {}

    std::size_t position() const { return m_at; }
    char peek() {
        while (m_at < m_text.size() &&
               std::string_view(" \t\r\n").find(m_text[m_at]) != std::string_view::npos)
            ++m_at;
        return m_at < m_text.size() ? m_text[m_at] : '\0';
    }
    void step() { ++m_at; }
    // Past one string, its quotes included.
    std::string_view skipString() {
        const std::size_t begin = m_at++;
        while (m_text[m_at] != '"')
            m_at += m_text[m_at] == '\\' ? 2 : 1;
        ++m_at;
        return m_text.substr(begin, m_at - begin);
    }
    // Past one value of any kind.
    std::string_view skipValue() {
        peek();
        const std::size_t begin = m_at;
        int depth = 0;
        do {
            const char c = m_text[m_at];
            if (c == '"') {
                skipString();
                continue;
            }
            if (c == '{' || c == '[')
                ++depth;
            if (c == '}' || c == ']')
                --depth;
            ++m_at;
        } while (m_at < m_text.size() &&
                 (depth > 0 || std::string_view(",}] \t\r\n").find(m_text[m_at]) == std::string_view::npos));
        return m_text.substr(begin, m_at - begin);
    }

private:
    std::string_view m_text;
    std::size_t m_at = 0;
};

// The values (begin, length) of all top-level members with that key; the last one counts, as in the parsed
// object.
std::vector<std::pair<std::size_t, std::size_t>> memberValues(std::string_view object, std::string_view key) {
    std::vector<std::pair<std::size_t, std::size_t>> found;
    Walker walker(object);
    walker.peek();
    walker.step();
    while (walker.peek() == '"') {
        const std::string_view name = walker.skipString();
        walker.peek();
        walker.step();
        const std::string_view value = walker.skipValue();
        if (name.substr(1, name.size() - 2) == key)
            found.emplace_back(static_cast<std::size_t>(value.data() - object.data()), value.size());
        if (walker.peek() == ',') {
            walker.step();
            walker.peek();
        }
    }
    return found;
}

bool isObjectText(std::string_view text) {
    return Walker(text).peek() == '{';
}

} // namespace

void requireJson(std::string_view text) {
    DepthGuard guard;
    if (nlohmann::json::sax_parse(text.begin(), text.end(), &guard))
        return;
    refuse(guard.tooDeep ? "The JSON of the request is nested deeper than 64 levels."
                         : "The request's body is not well-formed JSON.");
}

JsonInput::JsonInput(std::string_view body, std::string_view rawField) : m_rawField(rawField) {
    requireJson(body);
    if (!isObjectText(body))
        refuse("The request's body must be a JSON object.");
    std::string shortened;
    if (!rawField.empty()) {
        std::size_t copied = 0;
        for (const auto& [begin, length] : memberValues(body, rawField)) {
            m_raw.assign(body.substr(begin, length));
            shortened.append(body.substr(copied, begin - copied)).append("null");
            copied = begin + length;
        }
        shortened.append(body.substr(copied));
        body = shortened;
    }
    m_json = std::make_unique<nlohmann::json>(nlohmann::json::parse(body.begin(), body.end()));
}

JsonInput::~JsonInput() = default;
JsonInput::JsonInput(JsonInput&&) noexcept = default;

const nlohmann::json* JsonInput::present(const char* field) const {
    const auto found = m_json->find(field);
    return found == m_json->end() || found->is_null() ? nullptr : &*found;
}

const nlohmann::json& JsonInput::required(const char* field) const {
    const auto found = m_json->find(field);
    if (found == m_json->end())
        refuse("The field \"" + std::string(field) + "\" is missing.");
    return *found;
}

std::string JsonInput::text(const char* field) const {
    const nlohmann::json& value = required(field);
    if (!value.is_string())
        mistyped(field, "a text");
    return value.get<std::string>();
}

std::string JsonInput::textOr(const char* field, std::string fallback) const {
    return present(field) != nullptr ? text(field) : std::move(fallback);
}

std::int64_t JsonInput::wholeNumber(const char* field, std::int64_t least, std::int64_t most) const {
    const nlohmann::json& value = required(field);
    const bool huge =
        value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(most);
    if (!value.is_number_integer() || huge || value.get<std::int64_t>() < least ||
        value.get<std::int64_t>() > most)
        mistyped(field,
                 ("a whole number from " + std::to_string(least) + " to " + std::to_string(most)).c_str());
    return value.get<std::int64_t>();
}

std::optional<std::int64_t> JsonInput::optionalWholeNumber(const char* field, std::int64_t least,
                                                           std::int64_t most) const {
    if (present(field) == nullptr)
        return std::nullopt;
    return wholeNumber(field, least, most);
}

std::optional<std::int64_t> JsonInput::optionalTime(const char* field) const {
    if (present(field) == nullptr)
        return std::nullopt;
    const auto time = parseIso(text(field));
    if (!time)
        mistyped(field, "a UTC time such as \"2026-03-01T12:00:00.000Z\"");
    return time;
}

std::vector<std::int64_t> JsonInput::idListOrEmpty(const char* field) const {
    const nlohmann::json* list = present(field);
    std::vector<std::int64_t> ids;
    if (list == nullptr)
        return ids;
    if (!list->is_array())
        mistyped(field, "a list of ids");
    for (const nlohmann::json& value : *list) {
        if (!value.is_number_unsigned() || value.get<std::uint64_t>() - 1 >= 0x7FFFFFFFu)
            mistyped(field, "a list of ids");
        ids.push_back(value.get<std::int64_t>());
    }
    return ids;
}

std::vector<std::pair<std::string, std::string>> JsonInput::keyValueList(const char* field) const {
    const nlohmann::json& list = required(field);
    std::vector<std::pair<std::string, std::string>> pairs;
    if (!list.is_array())
        mistyped(field, "a list of objects with \"key\" and \"value\"");
    for (const nlohmann::json& value : list) {
        const bool fits = value.is_object() && value.contains("key") && value["key"].is_string() &&
                          value.contains("value") && value["value"].is_string();
        if (!fits)
            mistyped(field, "a list of objects with \"key\" and \"value\", both texts");
        pairs.emplace_back(value["key"].get<std::string>(), value["value"].get<std::string>());
    }
    return pairs;
}

std::string JsonInput::rawObjectOrEmpty() const {
    if (m_raw.empty() || m_raw == "null")
        return "{}";
    if (!isObjectText(m_raw))
        mistyped(m_rawField.c_str(), "an object");
    return m_raw;
}

} // namespace halvane::server
