// Reading the JSON of requests: strict, bounded, with errors that name the field.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace halvane::server {

inline constexpr int maximumJsonDepth = 64;

// Checks that the text is one well-formed JSON value of at most maximumJsonDepth levels, without building it.
// Throws ApiError(BadRequest).
void requireJson(std::string_view text);

// One object of a request. Every getter throws ApiError(BadRequest) naming the field when it is missing or
// has another type.
class JsonInput {
public:
    // Parses the body of a request. The value of the top-level member `rawField`, when given, is kept as text
    // and never built, so that a large one costs its own size only.
    explicit JsonInput(std::string_view body, std::string_view rawField = {});
    ~JsonInput();
    JsonInput(JsonInput&&) noexcept;

    std::string text(const char* field) const;
    std::string textOr(const char* field, std::string fallback) const;
    std::int64_t wholeNumber(const char* field, std::int64_t least, std::int64_t most) const;
    std::optional<std::int64_t> optionalWholeNumber(const char* field, std::int64_t least,
                                                    std::int64_t most) const;
    // A missing or null time is nothing.
    std::optional<std::int64_t> optionalTime(const char* field) const;
    // A list of whole numbers from 1; missing or null is empty.
    std::vector<std::int64_t> idListOrEmpty(const char* field) const;
    // A list of {"key", "value"} objects.
    std::vector<std::pair<std::string, std::string>> keyValueList(const char* field) const;
    // The text of the raw field, which must be an object when present; "{}" when it is missing or null.
    std::string rawObjectOrEmpty() const;

private:
    const nlohmann::json& required(const char* field) const;
    const nlohmann::json* present(const char* field) const;

    std::unique_ptr<nlohmann::json> m_json;
    std::string m_rawField;
    std::string m_raw;
};

} // namespace halvane::server
