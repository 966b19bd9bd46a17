#include "LoopbackServer.h"

#include <array>

namespace orx::testing {

void Gate::open() {
    const std::lock_guard lock(m_mutex);
    m_isOpen = true;
    m_opened.notify_all();
}

void Gate::wait() {
    std::unique_lock lock(m_mutex);
    m_opened.wait(lock, [this] { return m_isOpen; });
}

std::optional<HttpHead> LoopbackConnection::readHead() {
    std::array<char, 65536> buffer{};
    for (;;) {
        if (auto head = HttpHead::parse(m_buffer)) {
            m_buffer.erase(0, head->text.size());
            return head;
        }
        const size_t count = m_socket.receive(buffer.data(), buffer.size());
        if (count == 0)
            return std::nullopt;
        m_buffer.append(buffer.data(), count);
    }
}

std::optional<LoopbackConnection::Request> LoopbackConnection::readRequest() {
    const auto head = readHead();
    if (!head)
        return std::nullopt;
    Request request{*head, {}};
    HttpBodyFraming framing = HttpBodyFraming::ofRequest(*head);
    std::array<char, 65536> buffer{};
    for (;;) {
        const size_t used = framing.consume(m_buffer);
        request.body.append(m_buffer, 0, used);
        m_buffer.erase(0, used);
        if (framing.isComplete())
            return request;
        const size_t count = m_socket.receive(buffer.data(), buffer.size());
        if (count == 0)
            return std::nullopt;
        m_buffer.append(buffer.data(), count);
    }
}

bool LoopbackConnection::reply(int status, std::string_view body, std::string_view extraHeaders) {
    std::string text = "HTTP/1.1 " + std::to_string(status) +
                       " Status\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    text += extraHeaders;
    text += "\r\n";
    text += body;
    return send(text);
}

void LoopbackConnection::reset() {
    const std::lock_guard lock(m_socketMutex);
    m_socket.reset();
}

void LoopbackConnection::waitForClient() {
    std::array<char, 65536> buffer{};
    while (m_socket.isOpen() && m_socket.receive(buffer.data(), buffer.size()) > 0) {
    }
}

LoopbackServer::LoopbackServer(Script script)
    : m_script(std::move(script))
    , m_listener(Socket::listening())
    , m_port(m_listener.port())
    , m_thread([this] { run(); }) {}

LoopbackServer::~LoopbackServer() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_listener.shutdown();
        for (const Served& served : m_served)
            served.socket.shutdown();
    }
    m_thread.join();
    for (Served& served : m_served)
        served.thread.join();
}

std::string LoopbackServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

int LoopbackServer::acceptedConnections() const {
    const std::lock_guard lock(m_mutex);
    return int(m_served.size());
}

void LoopbackServer::run() {
    for (;;) {
        Socket accepted = m_listener.accept();
        const std::lock_guard lock(m_mutex);
        if (m_stopping || !accepted.isOpen())
            return;
        Served& served = m_served.emplace_back();
        served.socket = std::move(accepted);
        const int index = int(m_served.size()) - 1;
        served.thread = std::thread([this, &served, index] {
            LoopbackConnection connection(served.socket, m_mutex, index);
            m_script(connection);
            // The mutex: the destructor must not shut down a number that belongs to another socket already.
            const std::lock_guard guard(m_mutex);
            served.socket.close();
        });
    }
}

LoopbackServer::Script LoopbackServer::answering(
    std::function<void(LoopbackConnection&, const LoopbackConnection::Request&)> answer) {
    return [answer = std::move(answer)](LoopbackConnection& connection) {
        while (const auto request = connection.readRequest())
            answer(connection, *request);
    };
}

} // namespace orx::testing
