#include "core/logging.h"

#include "core/errors.h"
#include "core/json_text.h"
#include "core/times.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace halvane::server {

Log::~Log() {
    if (m_descriptor > 2)
        ::close(m_descriptor);
}

void Log::openFile(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (descriptor < 0)
        throw systemError("open the log file '" + path + "'", errno);
    m_descriptor = descriptor;
}

void Log::write(std::string line) {
    line += '\n';
    // A log that cannot be written must not take the service down with it, and there is nowhere else to say
    // so.
    [[maybe_unused]] const auto written = ::write(m_descriptor, line.data(), line.size());
}

void Log::line(std::string_view level, std::string_view event, std::string_view message) {
    std::string text;
    {
        JsonObject object(text);
        object.field("time", isoText(currentTime())).field("level", level).field("event", event);
        if (!message.empty())
            object.field("message", message);
    }
    write(std::move(text));
}

} // namespace halvane::server
