#include "http/connection.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

namespace halvane::server {

namespace {

using asio::redirect_error;
using asio::use_awaitable;
using boost::system::error_code;

asio::ip::tcp::endpoint peerOf(const asio::ip::tcp::socket& socket) {
    error_code ignored;
    return socket.remote_endpoint(ignored);
}

// Shuts the socket down rather than closing its descriptor, which a worker may be using; the destructor
// closes it.
void shutDown(asio::ip::tcp::socket& socket) {
    error_code ignored;
    socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    socket.cancel(ignored);
}

class PlainConnection final : public Connection {
public:
    explicit PlainConnection(asio::ip::tcp::socket socket)
        : m_socket(std::move(socket)), m_peer(peerOf(m_socket)) {
        error_code ignored; // only a hint for direct use, which asks per call as well
        m_socket.native_non_blocking(true, ignored);
    }

    asio::awaitable<bool> handshake() override { co_return true; }

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer into) override {
        error_code error;
        const std::size_t got = co_await m_socket.async_read_some(into, redirect_error(use_awaitable, error));
        co_return error ? 0 : got;
    }

    asio::awaitable<bool> write(std::array<asio::const_buffer, 2> data) override {
        error_code error;
        co_await asio::async_write(m_socket, data, redirect_error(use_awaitable, error));
        co_return !error;
    }

    void endWriting() override {
        error_code ignored;
        m_socket.shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
    int directSocket() override { return m_socket.native_handle(); }
    asio::awaitable<void> readable() override {
        error_code ignored; // the next read tells
        co_await m_socket.async_wait(asio::ip::tcp::socket::wait_read,
                                     redirect_error(use_awaitable, ignored));
    }
    asio::awaitable<void> writable() override {
        error_code ignored; // the next write tells
        co_await m_socket.async_wait(asio::ip::tcp::socket::wait_write,
                                     redirect_error(use_awaitable, ignored));
    }
    void close() override { shutDown(m_socket); }
    asio::ip::tcp::endpoint peer() const override { return m_peer; }

private:
    asio::ip::tcp::socket m_socket;
    asio::ip::tcp::endpoint m_peer;
};

class TlsConnection final : public Connection {
public:
    TlsConnection(asio::ip::tcp::socket socket, asio::ssl::context& context)
        : m_peer(peerOf(socket)), m_stream(std::move(socket), context) {}

    asio::awaitable<bool> handshake() override {
        error_code error;
        co_await m_stream.async_handshake(asio::ssl::stream_base::server,
                                          redirect_error(use_awaitable, error));
        co_return !error;
    }

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer into) override {
        error_code error;
        const std::size_t got = co_await m_stream.async_read_some(into, redirect_error(use_awaitable, error));
        co_return error ? 0 : got;
    }

    asio::awaitable<bool> write(std::array<asio::const_buffer, 2> data) override {
        error_code error;
        co_await asio::async_write(m_stream, data, redirect_error(use_awaitable, error));
        co_return !error;
    }

    void endWriting() override {
        error_code ignored;
        m_stream.next_layer().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
    int directSocket() override { return -1; }
    asio::awaitable<void> readable() override { co_return; }
    asio::awaitable<void> writable() override { co_return; }
    void close() override { shutDown(m_stream.next_layer()); }
    asio::ip::tcp::endpoint peer() const override { return m_peer; }

private:
    asio::ip::tcp::endpoint m_peer;
    asio::ssl::stream<asio::ip::tcp::socket> m_stream;
};

} // namespace

std::shared_ptr<Connection> makePlainConnection(asio::ip::tcp::socket socket) {
    return std::make_shared<PlainConnection>(std::move(socket));
}

std::shared_ptr<Connection> makeTlsConnection(asio::ip::tcp::socket socket, asio::ssl::context& context) {
    return std::make_shared<TlsConnection>(std::move(socket), context);
}

} // namespace halvane::server
