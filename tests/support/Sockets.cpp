#include "Sockets.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace orx::testing {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void setNoDelay(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void bindToLoopback(int fd) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        fail("bind");
}

} // namespace

Socket::~Socket() {
    close();
}

Socket::Socket(Socket&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other) {
        close();
        m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
}

Socket Socket::connected(const std::string& host, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
        throw std::runtime_error("unknown host " + host);
    Socket socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int result = ::connect(socket.m_fd, found->ai_addr, found->ai_addrlen);
    ::freeaddrinfo(found);
    if (result != 0)
        fail("connect");
    setNoDelay(socket.m_fd);
    return socket;
}

Socket Socket::listening() {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    bindToLoopback(socket.m_fd);
    if (::listen(socket.m_fd, 128) != 0)
        fail("listen");
    return socket;
}

Socket Socket::reserved() {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (::setsockopt(socket.m_fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        fail("setsockopt");
    bindToLoopback(socket.m_fd);
    return socket;
}

std::uint16_t Socket::port() const {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        fail("getsockname");
    return ntohs(address.sin_port);
}

Socket Socket::accept() const {
    for (;;) {
        const int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            setNoDelay(fd);
            return Socket(fd);
        }
        if (errno != EINTR && errno != ECONNABORTED)
            return Socket();
    }
}

size_t Socket::receive(char* buffer, size_t size) const {
    for (;;) {
        const ssize_t count = ::recv(m_fd, buffer, size, 0);
        if (count >= 0)
            return size_t(count);
        if (errno != EINTR)
            return 0;
    }
}

bool Socket::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t count = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count > 0)
            bytes.remove_prefix(size_t(count));
        else if (count < 0 && errno != EINTR)
            return false;
    }
    return true;
}

void Socket::shutdown() const {
    ::shutdown(m_fd, SHUT_RDWR);
}

void Socket::shutdownSending() const {
    ::shutdown(m_fd, SHUT_WR);
}

void Socket::close() {
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

void Socket::reset() {
    const linger abort{1, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close();
}

} // namespace orx::testing
