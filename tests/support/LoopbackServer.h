#pragma once

#include "HttpFraming.h"
#include "Sockets.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace orx::testing {

//! A door that a test opens for threads of a server that wait at it.
class Gate {
public:
    void open();
    void wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_opened;
    bool m_isOpen = false;
};

//! The server's side of one connection, for scripts.
class LoopbackConnection {
public:
    struct Request {
        HttpHead head;
        std::string body;
        const std::string& method() const { return head.first; }
        const std::string& target() const { return head.second; }
    };

    LoopbackConnection(Socket& socket, std::mutex& socketMutex, int index)
        : m_socket(socket), m_socketMutex(socketMutex), m_index(index) {}

    const Socket& socket() const { return m_socket; }
    //! Which accepted connection this is, from 0.
    int index() const { return m_index; }
    //! Nothing when the client has closed.
    std::optional<Request> readRequest();
    //! The head of a request alone; its body stays in the connection.
    std::optional<HttpHead> readHead();
    bool send(std::string_view bytes) { return m_socket.send(bytes); }
    //! A reply with Content-Length.
    bool reply(int status, std::string_view body, std::string_view extraHeaders = {});
    //! Ends the connection with a reset.
    void reset();
    //! Blocks until the client has closed its side; what it sends meanwhile is dropped.
    void waitForClient();

private:
    Socket& m_socket;
    std::mutex& m_socketMutex;
    int m_index;
    std::string m_buffer;
};

//! A server on the loopback interface that does with each connection what the test's script says, on a thread
//! of that connection. The connection is closed when the script returns.
class LoopbackServer {
public:
    using Script = std::function<void(LoopbackConnection&)>;

    explicit LoopbackServer(Script script);
    //! Ends all connections; a script that waits for a gate must be let through before.
    ~LoopbackServer();

    std::uint16_t port() const { return m_port; }
    std::string url(const std::string& path = "/") const;
    //! Thread: any.
    int acceptedConnections() const;

    //! A script that answers every request of a connection with what \a answer says, until the client closes.
    static Script
    answering(std::function<void(LoopbackConnection&, const LoopbackConnection::Request&)> answer);

private:
    struct Served {
        Socket socket;
        std::thread thread;
    };
    void run();

    Script m_script;
    Socket m_listener;
    std::uint16_t m_port;
    mutable std::mutex m_mutex;
    bool m_stopping = false;
    std::list<Served> m_served;
    std::thread m_thread;
};

} // namespace orx::testing
