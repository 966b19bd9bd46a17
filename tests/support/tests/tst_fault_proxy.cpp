#include <FaultProxy.h>
#include <LoopbackServer.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <future>
#include <system_error>
#include <vector>

using namespace orx::testing;
using Request = LoopbackConnection::Request;
using Match = FaultProxy::Match;

namespace {

struct Reply {
    int status = 0;
    std::string type;
    std::string body;
    //! Whether the whole body came.
    bool isComplete = false;
};

//! A client with one connection. Replies come back as far as they came.
class Client {
public:
    explicit Client(const FaultProxy& proxy) : m_socket(Socket::connected("127.0.0.1", proxy.port())) {}

    Reply ask(const std::string& method, const std::string& target, const std::string& body = {}) {
        send(method, target, body);
        return read(method);
    }
    void send(const std::string& method, const std::string& target, const std::string& body = {}) {
        m_socket.send(method + " " + target + " HTTP/1.1\r\nHost: h\r\nContent-Length: " +
                      std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    void sendRaw(const std::string& bytes) { m_socket.send(bytes); }
    Reply read(const std::string& method = "GET") {
        Reply reply;
        std::optional<HttpHead> head;
        while (!(head = HttpHead::parse(m_buffer))) {
            if (!receive())
                return reply;
        }
        m_buffer.erase(0, head->text.size());
        reply.status = head->status();
        reply.type = head->header("content-type");
        HttpBodyFraming framing = HttpBodyFraming::ofReply(*head, method);
        for (;;) {
            const size_t used = framing.consume(m_buffer);
            reply.body += m_buffer.substr(0, used);
            m_buffer.erase(0, used);
            reply.isComplete = framing.isComplete();
            if (reply.isComplete || !receive())
                return reply;
        }
    }
    bool isClosed() { return !receive(); }

private:
    bool receive() {
        std::array<char, 4096> buffer{};
        const size_t size = m_socket.receive(buffer.data(), buffer.size());
        m_buffer.append(buffer.data(), size);
        return size > 0;
    }
    Socket m_socket;
    std::string m_buffer;
};

class FaultProxyTest : public ::testing::Test {
protected:
    std::atomic<int> served = 0;
    LoopbackServer server{
        LoopbackServer::answering([this](LoopbackConnection& connection, const Request& request) {
            ++served;
            if (request.target() == "/chunked")
                connection.send(
                    "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
            else if (request.method() == "HEAD")
                connection.send("HTTP/1.1 200 OK\r\nContent-Length: 77\r\n\r\n");
            else
                connection.reply(200, request.method() + " " + request.target() + " " + request.body);
        })};
    FaultProxy proxy{"127.0.0.1", server.port()};
    Client client{proxy};
};

TEST_F(FaultProxyTest, PassesRequestsAndRepliesOfEveryFramingOverOneConnection) {
    EXPECT_EQ(client.ask("GET", "/a?x=1").body, "GET /a?x=1 ");
    EXPECT_EQ(client.ask("PUT", "/b", "body").body, "PUT /b body");
    EXPECT_EQ(client.ask("GET", "/chunked").body, "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
    EXPECT_TRUE(client.ask("HEAD", "/").isComplete);
    const std::string large(5'000'000, 'x');
    EXPECT_EQ(client.ask("PUT", "/large", large).body, "PUT /large " + large);
    client.sendRaw("POST /c HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nmore\r\n0\r\n\r\n");
    EXPECT_EQ(client.read().status, 200);
    EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST_F(FaultProxyTest, CountsRequestsRepliesAndBytesByMethodAndPath) {
    client.ask("PUT", "/a?x=1", "12345");
    client.ask("PUT", "/a", "1");
    client.ask("GET", "/b");
    const auto put = proxy.traffic("PUT", "/a");
    EXPECT_EQ(put.requests, 2);
    EXPECT_EQ(put.replies, 2);
    EXPECT_EQ(put.requestBytes, 6u);
    EXPECT_EQ(put.replyBytes, std::string("PUT /a?x=1 12345PUT /a 1").size());
    EXPECT_EQ(proxy.traffic("GET", "/a").requests, 0);
    EXPECT_EQ(proxy.traffic({}, "/[ab]").requests, 3);
    EXPECT_EQ(proxy.traffic().requests, 3);
}

TEST_F(FaultProxyTest, HoldsAReplyUntilItIsReleasedWhileOthersGoOn) {
    const auto hold = proxy.holdReply({.method = "POST", .path = "/finalize"});
    EXPECT_FALSE(hold->isAnswered());
    client.send("POST", "/finalize", "x");
    hold->waitUntilAnswered();
    EXPECT_TRUE(hold->isAnswered());
    EXPECT_EQ(served, 1);
    EXPECT_EQ(Client(proxy).ask("POST", "/finalize").body, "POST /finalize ") << "only the first is held";
    EXPECT_EQ(proxy.traffic("POST", "/finalize").replies, 2);
    hold->release();
    EXPECT_EQ(client.read().body, "POST /finalize x");
    EXPECT_EQ(client.ask("GET", "/next").body, "GET /next ");
}

TEST_F(FaultProxyTest, DropsAHeldReply) {
    const auto hold = proxy.holdReply({});
    client.send("POST", "/finalize");
    hold->waitUntilAnswered();
    hold->drop();
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(served, 1);
}

TEST_F(FaultProxyTest, EndsWhileAReplyIsHeld) {
    auto own = std::make_unique<FaultProxy>("127.0.0.1", server.port());
    Client waiting(*own);
    const auto hold = own->holdReply({});
    waiting.send("GET", "/");
    hold->waitUntilAnswered();
    own.reset();
    EXPECT_TRUE(waiting.isClosed());
}

TEST_F(FaultProxyTest, DropsTheConnectionBeforeOrAfterTheServerSeesTheRequest) {
    proxy.dropBeforeForwarding({.path = "/before"});
    proxy.dropAfterForwarding({.path = "/after"});
    EXPECT_EQ(client.ask("PUT", "/before", "x").status, 0);
    EXPECT_EQ(served, 0);
    Client second(proxy);
    EXPECT_EQ(second.ask("PUT", "/after", "x").status, 0);
    EXPECT_EQ(served, 1);
    Client third(proxy);
    EXPECT_EQ(third.ask("PUT", "/before", "x").status, 200) << "only once";
    EXPECT_EQ(third.ask("PUT", "/after", "x").status, 200) << "only once";
}

TEST(FaultProxyCuts, TheBodyOfARequestAndTheServerSeesTheConnectionEnd) {
    std::promise<std::string> came;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        std::string bytes(1000, '\0');
        size_t filled = 0;
        while (const size_t count = connection.socket().receive(bytes.data() + filled, bytes.size() - filled))
            filled += count;
        came.set_value(bytes.substr(0, filled));
    });
    FaultProxy proxy("127.0.0.1", server.port());
    proxy.cutRequestBody({.method = "PUT"}, 3);
    EXPECT_EQ(Client(proxy).ask("PUT", "/a", "123456").status, 0);
    EXPECT_EQ(proxy.traffic("PUT", "/a").requestBytes, 3u);
    const std::string seen = came.get_future().get();
    EXPECT_TRUE(seen.ends_with("\r\n\r\n123")) << seen;
}

TEST_F(FaultProxyTest, CutsTheBodyOfAReply) {
    proxy.cutReplyBody({}, 5);
    const Reply reply = client.ask("GET", "/a");
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "GET /");
    EXPECT_FALSE(reply.isComplete);
}

TEST_F(FaultProxyTest, ReplacesAReply) {
    proxy.replaceReply({.path = "/a"}, 502, "text/html", "<html>");
    const Reply reply = client.ask("GET", "/a");
    EXPECT_EQ(reply.status, 502);
    EXPECT_EQ(reply.type, "text/html");
    EXPECT_EQ(reply.body, "<html>");
    EXPECT_EQ(served, 1);
    EXPECT_EQ(client.ask("GET", "/a").body, "GET /a ");
}

TEST_F(FaultProxyTest, CorruptsOneByteOfARequestOrAReply) {
    proxy.corruptRequestBody({.path = "/in"}, 2);
    proxy.corruptReplyBody({.path = "/out"}, 1);
    EXPECT_EQ(client.ask("PUT", "/in", "abcd").body, std::string("PUT /in ab") + char(~'c') + "d");
    EXPECT_EQ(client.ask("GET", "/out").body, std::string("G") + char(~'E') + "T /out ");
}

TEST_F(FaultProxyTest, CorruptsAByteFarIntoABody) {
    std::string body(3'000'000, 'x');
    proxy.corruptRequestBody({}, 2'345'678);
    const std::string came = client.ask("PUT", "/", body).body;
    body[2'345'678] = char(~'x');
    EXPECT_EQ(came, "PUT / " + body);
}

TEST_F(FaultProxyTest, SkipsRequestsAndRepeatsRulesAsTold) {
    proxy.replaceReply({.method = "GET", .path = "/a/[0-9]+", .skip = 1, .times = 2}, 500, "t", "broken");
    std::vector<int> status;
    for (const char* target : {"/a/1", "/b", "/a/x", "/a/2", "/a/3?y", "/a/4"})
        status.push_back(client.ask("GET", target).status);
    EXPECT_EQ(status, (std::vector<int>{200, 200, 200, 500, 500, 200}));
}

TEST_F(FaultProxyTest, RepeatsARuleWithoutEndUntilItIsCleared) {
    proxy.replaceReply({.times = -1}, 503, "t", "busy");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(client.ask("GET", "/").status, 503);
    proxy.clearRules();
    EXPECT_EQ(client.ask("GET", "/").status, 200);
}

TEST_F(FaultProxyTest, EndsTheClientsConnectionWhenTheServerIsGoneAndFindsTheNextOne) {
    {
        LoopbackServer mortal(LoopbackServer::answering(
            [](LoopbackConnection& connection, const Request&) { connection.reply(200, "old"); }));
        proxy.setTarget("127.0.0.1", mortal.port());
        EXPECT_EQ(client.ask("GET", "/").body, "old");
    }
    const Socket nobody = Socket::reserved();
    proxy.setTarget("127.0.0.1", nobody.port());
    EXPECT_EQ(client.ask("GET", "/").status, 0);
    proxy.setTarget("127.0.0.1", server.port());
    EXPECT_EQ(Client(proxy).ask("GET", "/").body, "GET / ");
}

TEST_F(FaultProxyTest, DropsAllConnections) {
    EXPECT_EQ(client.ask("GET", "/").status, 200);
    proxy.dropConnections();
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(Client(proxy).ask("GET", "/").status, 200);
}

TEST_F(FaultProxyTest, LetsATestWaitForTraffic) {
    std::thread other([this] {
        Client own(proxy);
        for (int i = 0; i < 3; ++i)
            own.ask("PUT", "/chunk", "12");
    });
    proxy.waitForTraffic("PUT", "/chunk",
                         [](const FaultProxy::Traffic& traffic) { return traffic.requestBytes >= 6; });
    other.join();
    EXPECT_EQ(served, 3);
}

TEST(FaultProxyEarlyReplies, PassOnAnAnswerThatComesBeforeTheEndOfTheRequest) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        connection.readHead();
        connection.reply(413, "too large");
        connection.waitForClient();
    });
    const FaultProxy proxy("127.0.0.1", server.port());
    Client client(proxy);
    client.sendRaw("PUT / HTTP/1.1\r\nHost: h\r\nContent-Length: 1000\r\n\r\nsome");
    EXPECT_EQ(client.read().body, "too large");
    EXPECT_TRUE(client.isClosed());
}

TEST(FaultProxyEarlyReplies, PassOnTheGoAheadForABody) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        connection.readHead();
        connection.send("HTTP/1.1 100 Continue\r\n\r\n");
        connection.waitForClient();
    });
    const FaultProxy proxy("127.0.0.1", server.port());
    Client client(proxy);
    client.sendRaw("PUT / HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
    EXPECT_EQ(client.read().status, 100);
}

//! A socket bound to \a port of 127.0.0.1 (0: to any); not open when it is refused.
Socket boundTo(std::uint16_t port, bool reuseAddress, std::uint16_t onlyPort = 0) {
    Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int reuse = reuseAddress ? 1 : 0;
    EXPECT_EQ(::setsockopt(socket.fd(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse), 0);
    if (onlyPort != 0) {
        constexpr int portRange = 51; // IP_LOCAL_PORT_RANGE, which older headers do not name
        const std::uint32_t range = std::uint32_t(onlyPort) << 16 | onlyPort;
        if (::setsockopt(socket.fd(), IPPROTO_IP, portRange, &range, sizeof range) != 0) {
            EXPECT_EQ(errno, ENOPROTOOPT); // a kernel that cannot be asked
            return {};
        }
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        EXPECT_EQ(errno, EADDRINUSE);
        return {};
    }
    return socket;
}

TEST(ReservedPort, IsRefusedToClientsWheneverNoServerListensThere) {
    const Socket reserved = Socket::reserved();
    for (int run = 0; run < 2; ++run) {
        EXPECT_THROW(Socket::connected("127.0.0.1", reserved.port()), std::system_error);
        const Socket server = boundTo(reserved.port(), true);
        ASSERT_TRUE(server.isOpen());
        ASSERT_EQ(::listen(server.fd(), 1), 0);
        EXPECT_TRUE(Socket::connected("127.0.0.1", reserved.port()).isOpen());
        EXPECT_TRUE(server.accept().isOpen());
    }
    EXPECT_THROW(Socket::connected("127.0.0.1", reserved.port()), std::system_error);
}

TEST(ReservedPort, IsGivenToNobodyWhoAsksForAnyPort) {
    const Socket reserved = Socket::reserved();
    EXPECT_FALSE(boundTo(reserved.port(), false).isOpen());
    // Even when no other port may be given.
    for (const bool reuse : {false, true})
        EXPECT_FALSE(boundTo(0, reuse, reserved.port()).isOpen());
}

TEST(HttpBodyFraming, FindsTheEndOfBodiesHoweverTheyAreCut) {
    struct Row {
        const char* head;
        const char* method;
        std::string body;
        bool ends;
    };
    const Row rows[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "GET", "12345", true},
        {"HTTP/1.1 200 OK\r\ncontent-length: 0\r\n\r\n", "GET", "", true},
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "HEAD", "", true},
        {"HTTP/1.1 304 Not Modified\r\nContent-Length: 5\r\n\r\n", "GET", "", true},
        {"HTTP/1.1 204 No Content\r\n\r\n", "GET", "", true},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\n\r\n", "GET",
         "a\r\n0123456789\r\n1;x\r\nz\r\n0\r\n\r\n", true},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "GET", "1\r\nz\r\n0\r\nTrailer: 1\r\n\r\n",
         true},
        {"HTTP/1.1 200 OK\r\n\r\n", "GET", "until the end", false},
    };
    for (const Row& row : rows) {
        for (size_t step = 1; step <= row.body.size() + 9; ++step) {
            HttpBodyFraming framing = HttpBodyFraming::ofReply(*HttpHead::parse(row.head), row.method);
            const std::string bytes = row.body + (row.ends ? "HTTP/1.1 " : "");
            size_t used = 0;
            while (used < bytes.size()) {
                const size_t taken = framing.consume(std::string_view(bytes).substr(used, step));
                used += taken;
                if (taken < std::min(step, bytes.size() - used + taken))
                    break;
            }
            EXPECT_EQ(used, row.body.size()) << row.head << row.body << " by " << step;
            EXPECT_EQ(framing.isComplete(), row.ends);
            EXPECT_EQ(framing.endsWithConnection(), !row.ends);
        }
    }
}

} // namespace
