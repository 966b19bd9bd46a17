// One accepted connection, plain or TLS. Everything on the I/O thread, unless it says otherwise.
#pragma once

#include <utility>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>

#include <array>
#include <memory>

namespace halvane::server {

namespace asio = boost::asio;

class Connection {
public:
    virtual ~Connection() = default;

    // False when the peer failed.
    virtual asio::awaitable<bool> handshake() = 0;
    // The bytes read; 0 at the end and on every failure.
    virtual asio::awaitable<std::size_t> readSome(asio::mutable_buffer into) = 0;
    // False on failure.
    virtual asio::awaitable<bool> write(std::array<asio::const_buffer, 2> data) = 0;
    // No byte follows; the peer may still send.
    virtual void endWriting() = 0;
    // The socket for direct, non-blocking use on a worker while the I/O thread waits for that worker; -1
    // under TLS.
    virtual int directSocket() = 0;
    // Waits until a direct read or write can go on.
    virtual asio::awaitable<void> readable() = 0;
    virtual asio::awaitable<void> writable() = 0;
    // Ends every wait; the connection is of no use afterwards.
    virtual void close() = 0;
    virtual asio::ip::tcp::endpoint peer() const = 0;
};

std::shared_ptr<Connection> makePlainConnection(asio::ip::tcp::socket socket);
std::shared_ptr<Connection> makeTlsConnection(asio::ip::tcp::socket socket, asio::ssl::context& context);

} // namespace halvane::server
