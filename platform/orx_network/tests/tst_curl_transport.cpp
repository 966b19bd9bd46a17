#include "Exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QCryptographicHash>

#include <atomic>
#include <thread>

using namespace orx;
using namespace orx::testing;
using namespace std::chrono_literals;
using Method = NetworkRequest::Method;
using Request = LoopbackConnection::Request;

namespace {

const auto* const environment = ::testing::AddGlobalTestEnvironment(new WithoutProxies);

//! Answers with what it was asked: "METHOD target size sha256" of each request.
LoopbackServer::Script describing() {
    return LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
        const QByteArray hash =
            QCryptographicHash::hash(QByteArray::fromStdString(request.body), QCryptographicHash::Sha256)
                .toHex();
        connection.reply(200, request.method() + " " + request.target() + " " +
                                  std::to_string(request.body.size()) + " " + hash.toStdString());
    });
}

std::shared_ptr<const QByteArray> pattern(qsizetype size) {
    QByteArray bytes(size, Qt::Uninitialized);
    for (qsizetype i = 0; i < size; ++i)
        bytes[i] = char((i * 31 + i / 4096) & 0xff);
    return std::make_shared<const QByteArray>(bytes);
}

TEST(CurlTransport, BringsStatusHeadersAndBodyOfAReply) {
    const LoopbackServer server(LoopbackServer::answering([](LoopbackConnection& connection, const Request&) {
        connection.reply(404, "nothing here", "X-Request-Id:  abc \r\nEmpty:\r\n");
    }));
    CurlTransport transport;
    const NetworkReply reply = exchange(transport, requestTo(server));
    EXPECT_FALSE(reply.error.hasError()) << qPrintable(reply.error.errorMessage());
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(reply.header("x-request-id"), "abc");
    EXPECT_EQ(reply.header("Empty"), QByteArray());
    EXPECT_EQ(reply.header("Content-Length"), "12");
    EXPECT_EQ(reply.body, "nothing here");
}

TEST(CurlTransport, SendsTheHeadersGivenAndNoneThatMakeTheServerWait) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(200, request.head.text);
        }));
    CurlTransport transport;
    NetworkRequest request = requestTo(server, "/a%20b/c%2Fd/../e?x=1%262", Method::Put);
    request.body = pattern(2 * 1024 * 1024);
    request.headers = {{"Halvane-Test", "one two"}, {"Empty", ""}};
    const QByteArray head = exchange(transport, request).body;
    EXPECT_TRUE(head.startsWith("PUT /a%20b/c%2Fd/../e?x=1%262 HTTP/1.1\r\n")) << head.constData();
    EXPECT_TRUE(head.contains("\r\nHalvane-Test: one two\r\n"));
    EXPECT_TRUE(head.contains("\r\nEmpty:\r\n"));
    EXPECT_TRUE(head.contains("\r\nContent-Length: 2097152\r\n"));
    EXPECT_TRUE(head.contains("\r\nUser-Agent: orx-network\r\n"));
    EXPECT_FALSE(head.toLower().contains("expect:"));
    EXPECT_FALSE(head.toLower().contains("content-type:"));
}

TEST(CurlTransport, SpeaksEveryMethodWithAndWithoutABody) {
    const LoopbackServer server(describing());
    CurlTransport transport;
    const auto answer = [&](Method method, const std::shared_ptr<const QByteArray>& body) {
        NetworkRequest request = requestTo(server, "/x", method);
        request.body = body;
        request.idempotent = true;
        const NetworkReply reply = exchange(transport, request);
        EXPECT_FALSE(reply.error.hasError()) << qPrintable(reply.error.errorMessage());
        return reply.body.left(reply.body.lastIndexOf(' '));
    };
    const auto body = std::make_shared<const QByteArray>("12345");
    EXPECT_EQ(answer(Method::Get, {}), "GET /x 0");
    EXPECT_EQ(answer(Method::Post, body), "POST /x 5");
    EXPECT_EQ(answer(Method::Post, {}), "POST /x 0");
    EXPECT_EQ(answer(Method::Put, body), "PUT /x 5");
    EXPECT_EQ(answer(Method::Put, std::make_shared<const QByteArray>()), "PUT /x 0");
    EXPECT_EQ(answer(Method::Delete, {}), "DELETE /x 0");
    EXPECT_EQ(answer(Method::Delete, body), "DELETE /x 5");
    EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST(CurlTransport, TakesTheHeadersOfAHeadReplyWithoutWaitingForABody) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nX-Method: " + request.method() +
                            "\r\n\r\n");
        }));
    CurlTransport transport;
    const NetworkReply reply = exchange(transport, requestTo(server, "/", Method::Head));
    EXPECT_FALSE(reply.error.hasError());
    EXPECT_EQ(reply.header("Content-Length"), "1000");
    EXPECT_EQ(reply.header("X-Method"), "HEAD");
    EXPECT_TRUE(reply.body.isEmpty());
}

TEST(CurlTransport, UploadsEightMebibytesUnchangedAndReportsTheRunningSum) {
    const LoopbackServer server(describing());
    CurlTransport transport;
    NetworkRequest request = requestTo(server, "/chunk", Method::Put);
    request.body = pattern(8 * 1024 * 1024);
    QList<qint64> sums;
    request.onBytesSent = [&](qint64 sum) { sums.append(sum); };
    const NetworkReply reply = exchange(transport, request);
    EXPECT_EQ(reply.body, "PUT /chunk 8388608 " +
                              QCryptographicHash::hash(*request.body, QCryptographicHash::Sha256).toHex());
    ASSERT_FALSE(sums.isEmpty());
    EXPECT_TRUE(std::is_sorted(sums.begin(), sums.end()));
    EXPECT_EQ(sums.last(), 8 * 1024 * 1024);
}

TEST(CurlTransport, LetsGoOfTheBodyBeforeTheHandlerIsCalled) {
    const LoopbackServer server(describing());
    CurlTransport transport;
    NetworkRequest request = requestTo(server, "/", Method::Put);
    request.body = pattern(1000);
    const std::weak_ptr<const QByteArray> body = request.body;
    bool handled = false;
    const auto call = transport.send(std::exchange(request, {}), [&](const NetworkReply&) {
        handled = true;
        EXPECT_TRUE(body.expired());
    });
    EXPECT_FALSE(body.expired());
    runUntil([&] { return handled; });
}

TEST(CurlTransport, ReadsChunkedBodiesAndBodiesThatEndWithTheConnection) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        connection.readRequest();
        if (connection.index() == 0) {
            connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n");
            connection.send("5;x=y\r\ndefgh\r\n0\r\nTrailer: t\r\n\r\n");
            connection.readRequest();
        }
        connection.send("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nuntil the end");
    });
    CurlTransport transport;
    EXPECT_EQ(exchange(transport, requestTo(server)).body, "abcdefgh");
    EXPECT_EQ(exchange(transport, requestTo(server)).body, "until the end");
}

TEST(CurlTransport, SkipsInterimReplies) {
    const LoopbackServer server(LoopbackServer::answering([](LoopbackConnection& connection, const Request&) {
        connection.send("HTTP/1.1 102 Processing\r\nX-Interim: 1\r\n\r\n");
        connection.reply(200, "done", "X-Final: 1\r\n");
    }));
    CurlTransport transport;
    const NetworkReply reply = exchange(transport, requestTo(server));
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, "done");
    EXPECT_EQ(reply.header("X-Final"), "1");
    EXPECT_EQ(reply.header("X-Interim"), QByteArray());
}

TEST(CurlTransport, DoesNotFollowRedirects) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(request.target() == "/" ? 302 : 200, "", "Location: /elsewhere\r\n");
        }));
    CurlTransport transport;
    const NetworkReply reply = exchange(transport, requestTo(server));
    EXPECT_EQ(reply.status, 302);
    EXPECT_EQ(reply.header("location"), "/elsewhere");
}

TEST(CurlTransport, KeepsOneConnectionForManySequentialRequests) {
    const LoopbackServer server(describing());
    CurlTransport transport;
    for (int i = 0; i < 300; ++i) {
        const NetworkReply reply = exchange(transport, requestTo(server, "/" + std::to_string(i)));
        ASSERT_TRUE(reply.body.startsWith("GET /" + QByteArray::number(i) + " 0 ")) << reply.body.constData();
    }
    EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST(CurlTransport, KeepsAsManyRequestsAtATimeAsItsBoundAndNeverMore) {
    constexpr int bound = 4;
    std::atomic<int> inFlight = 0;
    std::atomic<int> most = 0;
    Gate full;
    const LoopbackServer server(
        LoopbackServer::answering([&](LoopbackConnection& connection, const Request& request) {
            const int count = ++inFlight;
            int known = most;
            while (count > known && !most.compare_exchange_weak(known, count)) {
            }
            if (count == bound)
                full.open();
            full.wait();
            --inFlight; // before the client can know of the reply
            connection.reply(200, request.target());
        }));
    CurlTransport transport({.maxRequestsInFlight = bound, .caFile = {}});
    std::vector<std::unique_ptr<TransportCall>> calls;
    int right = 0;
    for (int i = 0; i < 400; ++i) {
        const QByteArray path = "/" + QByteArray::number(i);
        calls.push_back(
            transport.send(requestTo(server, path.toStdString()), [&right, path](const NetworkReply& reply) {
                EXPECT_EQ(reply.body, path) << qPrintable(reply.error.errorMessage());
                ++right;
            }));
    }
    EXPECT_EQ(right, 0) << "no handler within send()";
    runUntil([&] { return right == 400; });
    EXPECT_EQ(most, bound);
    EXPECT_EQ(server.acceptedConnections(), bound);
}

TEST(CurlTransport, ServesQueuedRequestsFirstComeFirstServed) {
    const LoopbackServer server(describing());
    CurlTransport transport({.maxRequestsInFlight = 1, .caFile = {}});
    QList<int> order;
    std::vector<std::unique_ptr<TransportCall>> calls;
    for (int i = 0; i < 20; ++i)
        calls.push_back(
            transport.send(requestTo(server), [&order, i](const NetworkReply&) { order.append(i); }));
    calls[7].reset();
    runUntil([&] { return order.size() == 19; });
    EXPECT_EQ(order, (QList<int>{0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}));
}

TEST(CurlTransport, ReconnectsWhenTheServerClosesAfterEachReply) {
    const LoopbackServer server([](LoopbackConnection& connection) {
        if (connection.readRequest())
            connection.reply(200, std::to_string(connection.index()));
    });
    CurlTransport transport;
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(exchange(transport, requestTo(server)).body, QByteArray::number(i));
}

TEST(CurlTransport, RefusesAReplyThatIsLargerThanAgreed) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            if (request.target() == "/announced")
                connection.reply(200, std::string(1001, 'x'));
            else
                connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3e9\r\n" +
                                std::string(1001, 'x') + "\r\n0\r\n\r\n");
        }));
    CurlTransport transport;
    for (const char* path : {"/announced", "/chunked"}) {
        NetworkRequest request = requestTo(server, path);
        request.maxReplySize = 1001;
        EXPECT_EQ(exchange(transport, request).body.size(), 1001) << path;
        request.maxReplySize = 1000;
        const NetworkReply reply = exchange(transport, request);
        EXPECT_EQ(networkCode(reply.error), int(NetworkErrorCode::InvalidReply)) << path;
        EXPECT_TRUE(reply.error.errorMessage().contains(
            QStringLiteral("127.0.0.1:%1 is larger than the 1000 bytes").arg(server.port())))
            << qPrintable(reply.error.errorMessage());
    }
}

TEST(CurlTransport, IsNotHijackedByAProxyOfTheEnvironmentOnLoopback) {
    const LoopbackServer proxy(LoopbackServer::answering(
        [](LoopbackConnection& connection, const Request&) { connection.reply(200, "from the proxy"); }));
    const LoopbackServer server(LoopbackServer::answering(
        [](LoopbackConnection& connection, const Request&) { connection.reply(200, "from the server"); }));
    qputenv("http_proxy", QByteArray::fromStdString(proxy.url()));
    CurlTransport transport;
    const NetworkReply direct = exchange(transport, requestTo(server));
    NetworkRequest elsewhere;
    elsewhere.url = QUrl(QStringLiteral("http://host.invalid/"));
    const NetworkReply proxied = exchange(transport, elsewhere);
    qunsetenv("http_proxy");
    EXPECT_EQ(direct.body, "from the server");
    EXPECT_EQ(proxied.body, "from the proxy");
}

TEST(CurlTransport, WorksOnAThreadThatHasNoEventLoopOfItsOwn) {
    const LoopbackServer server(describing());
    QByteArray body;
    std::thread thread(
        [&] { body = exchange(Transport::ofThisThread(), requestTo(server, "/thread")).body; });
    thread.join();
    EXPECT_TRUE(body.startsWith("GET /thread 0 ")) << body.constData();
}

TEST(Transport, IsOneOfEachThreadAndCanBeReplaced) {
    class Scripted : public Transport {
        std::unique_ptr<TransportCall> send(const NetworkRequest&, ReplyHandler) override { return nullptr; }
    } scripted;
    Transport* real = &Transport::ofThisThread();
    EXPECT_EQ(real, &Transport::ofThisThread());
    Transport::setOverride(&scripted);
    EXPECT_EQ(&Transport::ofThisThread(), &scripted);
    Transport* other = nullptr;
    std::thread([&] { other = &Transport::ofThisThread(); }).join();
    EXPECT_NE(other, &scripted);
    EXPECT_NE(other, real);
    Transport::setOverride(nullptr);
    EXPECT_EQ(&Transport::ofThisThread(), real);
}

} // namespace
