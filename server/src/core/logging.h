// Structured logs: one JSON object a line, to stderr or a file. Never holds a password, a token or a header.
#pragma once

#include <string>
#include <string_view>

namespace halvane::server {

class JsonObject;

class Log {
public:
    // Logs to stderr until a file is given.
    Log() = default;
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Appends to that file from here on. Throws ApiError when it cannot be opened.
    void openFile(const std::string& path);

    void info(std::string_view event, std::string_view message = {}) { line("info", event, message); }
    void warning(std::string_view event, std::string_view message) { line("warning", event, message); }
    void error(std::string_view event, std::string_view message) { line("error", event, message); }

    // One whole line that the caller has built as a JSON object. Thread-safe; the line appears in one write.
    void write(std::string line);

private:
    void line(std::string_view level, std::string_view event, std::string_view message);

    int m_descriptor = 2;
};

} // namespace halvane::server
