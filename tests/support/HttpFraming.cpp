#include "HttpFraming.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <utility>

namespace orx::testing {

namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return text;
}

std::string trimmed(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

} // namespace

std::string HttpHead::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

int HttpHead::status() const {
    return first.starts_with("HTTP/") ? std::atoi(second.c_str()) : 0;
}

std::optional<HttpHead> HttpHead::parse(std::string_view bytes) {
    const size_t end = bytes.find("\r\n\r\n");
    if (end == std::string_view::npos)
        return std::nullopt;
    HttpHead head;
    head.text = std::string(bytes.substr(0, end + 4));
    std::istringstream lines(head.text);
    std::string line;
    std::getline(lines, line);
    std::istringstream(line) >> head.first >> head.second >> head.third;
    while (std::getline(lines, line)) {
        if (const size_t colon = line.find(':'); colon != std::string::npos)
            head.headers[lowered(line.substr(0, colon))] = trimmed(line.substr(colon + 1));
    }
    return head;
}

HttpBodyFraming::HttpBodyFraming(const HttpHead& head) {
    const std::string length = head.header("content-length");
    if (lowered(head.header("transfer-encoding")).find("chunked") != std::string::npos) {
        m_state = State::ChunkSize;
    } else if (!length.empty()) {
        m_left = std::stoull(length);
        m_state = m_left > 0 ? State::Counted : State::Complete;
    }
}

HttpBodyFraming HttpBodyFraming::ofRequest(const HttpHead& head) {
    return HttpBodyFraming(head);
}

HttpBodyFraming HttpBodyFraming::ofReply(const HttpHead& head, const std::string& requestMethod) {
    HttpBodyFraming framing(head);
    const int status = head.status();
    const bool hasNone =
        requestMethod == "HEAD" || status == 204 || status == 304 || (status >= 100 && status < 200);
    const bool isFramed =
        head.headers.contains("content-length") || head.headers.contains("transfer-encoding");
    if (hasNone)
        framing.m_state = State::Complete;
    else if (!isFramed)
        framing.m_state = State::UntilClose;
    return framing;
}

size_t HttpBodyFraming::consume(std::string_view bytes) {
    size_t used = 0;
    while (used < bytes.size() && m_state != State::Complete) {
        const std::string_view rest = bytes.substr(used);
        if (m_state == State::UntilClose)
            return bytes.size();
        if (m_state == State::Counted || m_state == State::ChunkData) {
            const size_t taken = size_t(std::min<unsigned long long>(m_left, rest.size()));
            m_left -= taken;
            used += taken;
            if (m_left == 0)
                m_state = m_state == State::Counted ? State::Complete : State::ChunkEnd;
            continue;
        }
        m_line += rest.front();
        ++used;
        if (m_line.back() == '\n')
            consumeLine(std::exchange(m_line, {}));
    }
    return used;
}

void HttpBodyFraming::consumeLine(std::string_view line) {
    if (m_state == State::ChunkEnd) {
        m_state = State::ChunkSize;
    } else if (m_state == State::ChunkSize) {
        m_left = std::stoull(std::string(line), nullptr, 16);
        m_state = m_left > 0 ? State::ChunkData : State::Trailer;
    } else if (line == "\r\n") {
        m_state = State::Complete;
    }
}

} // namespace orx::testing
