#include "support/http_client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace halvane::server {

int Reply::errorCode() const {
    const auto envelope = nlohmann::json::parse(body, nullptr, false);
    if (!envelope.is_object() || envelope.value("status", "") != "error")
        return 0;
    return envelope.at("error").at("code").get<int>();
}

std::string Reply::errorMessage() const {
    return json().at("error").at("message").get<std::string>();
}

HttpClient::HttpClient(std::uint16_t port) {
    m_socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const timeval patience{60, 0};
    ::setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(
            m_socket); // no destructor runs; who tries until the server is back would run out of descriptors
        throw std::runtime_error("cannot connect");
    }
}

HttpClient::~HttpClient() {
    ::close(m_socket);
}

void HttpClient::abort() {
    const linger hard{1, 0};
    ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(m_socket);
    m_socket = -1;
}

void HttpClient::sendRaw(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = ::send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            throw std::runtime_error("the server closed the connection while it was sent to");
        sent += static_cast<std::size_t>(count);
    }
}

// What recv() says.
ssize_t HttpClient::receive() {
    char piece[64 * 1024];
    const ssize_t count = ::recv(m_socket, piece, sizeof piece, 0);
    if (count > 0)
        m_buffer.append(piece, static_cast<std::size_t>(count));
    return count;
}

bool HttpClient::fill() {
    return receive() > 0;
}

std::string HttpClient::readUntil(const std::string& mark) {
    std::size_t found = m_buffer.find(mark);
    while (found == std::string::npos) {
        if (!fill())
            throw std::runtime_error("the connection ended inside a reply: '" + m_buffer + "'");
        found = m_buffer.find(mark);
    }
    std::string text = m_buffer.substr(0, found);
    m_buffer.erase(0, found + mark.size());
    return text;
}

std::string HttpClient::readBytes(std::size_t count) {
    while (m_buffer.size() < count)
        if (!fill())
            throw std::runtime_error("the connection ended inside a body");
    std::string text = m_buffer.substr(0, count);
    m_buffer.erase(0, count);
    return text;
}

bool HttpClient::readToEnd() {
    ssize_t count = 0;
    do
        count = receive();
    while (count > 0);
    return count == 0 || errno == ECONNRESET;
}

Reply HttpClient::readReply(bool hasBody) {
    Reply reply;
    std::string head = readUntil("\r\n\r\n") + "\r\n";
    reply.status = std::stoi(head.substr(9, 3));
    std::size_t at = head.find("\r\n") + 2;
    while (at < head.size()) {
        const std::size_t end = head.find("\r\n", at);
        const std::size_t colon = head.find(':', at);
        std::string name = head.substr(at, colon - at);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        reply.headers[name] = head.substr(colon + 2, end - colon - 2);
        at = end + 2;
    }
    if (hasBody && reply.headers.contains("content-length"))
        reply.body = readBytes(std::stoul(reply.headers["content-length"]));
    return reply;
}

Reply HttpClient::request(const std::string& method, const std::string& path, const std::string& body,
                          const ClientHeaders& headers) {
    std::string text = method + ' ' + path + " HTTP/1.1\r\nHost: test\r\n";
    for (const auto& [name, value] : headers)
        text += name + ": " + value + "\r\n";
    if (!body.empty() || method == "PUT" || method == "POST")
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    sendRaw(text + "\r\n" + body);
    return readReply(method != "HEAD");
}

} // namespace halvane::server
