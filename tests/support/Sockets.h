#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace orx::testing {

//! An owned TCP socket of the loopback interface. Blocking. Thread: shutdown() any, the rest one at a time.
class Socket {
public:
    Socket() = default;
    explicit Socket(int fd) : m_fd(fd) {}
    ~Socket();
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;

    //! Throws std::system_error when nobody listens there.
    static Socket connected(const std::string& host, std::uint16_t port);
    //! On an ephemeral port of 127.0.0.1.
    static Socket listening();
    //! Keeps an ephemeral port of 127.0.0.1 and does not listen: who connects is refused, nobody else is
    //! given the port, and a server that asks for it with SO_REUSEADDR gets it, again and again.
    static Socket reserved();

    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }
    std::uint16_t port() const;
    //! Not open when the listening socket was shut down.
    Socket accept() const;
    //! 0 at the end of the connection, also when it was reset.
    size_t receive(char* buffer, size_t size) const;
    //! False when the other side is gone.
    bool send(std::string_view bytes) const;
    //! Ends both directions at once and wakes whoever waits in receive() or accept().
    void shutdown() const;
    void shutdownSending() const;
    void close();
    //! Closes so that the other side gets a reset instead of an end.
    void reset();

private:
    int m_fd = -1;
};

} // namespace orx::testing
