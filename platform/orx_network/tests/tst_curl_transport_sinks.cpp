#include "Exchange.h"

#include <gtest/gtest.h>

#include <QTimer>

#include <atomic>

using namespace orx;
using namespace orx::testing;
using namespace std::chrono_literals;
using Method = NetworkRequest::Method;
using Request = LoopbackConnection::Request;
using Verdict = BodySink::Verdict;

namespace {

//! Notes what it is offered and answers what the test says.
struct RecordingSink : BodySink {
    std::function<Verdict(int)> onBegin;
    std::function<Verdict(const QByteArray&)> onTake;
    int begun = 0;
    int offered = 0;
    int status = 0;
    QByteArray type;
    QByteArray taken;

    Verdict begin(int replyStatus, const QList<HttpHeader>& headers) override {
        ++begun;
        status = replyStatus;
        type = NetworkRequest::header(headers, "content-type");
        return onBegin ? onBegin(replyStatus) : Verdict::Taken;
    }
    Verdict take(const char* data, qint64 size) override {
        ++offered;
        const QByteArray piece(data, qsizetype(size));
        const Verdict verdict = onTake ? onTake(piece) : Verdict::Taken;
        if (verdict == Verdict::Taken)
            taken += piece;
        return verdict;
    }
};

std::string pattern(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + i / 255) & 0xff);
    return bytes;
}

class CurlTransportSinks : public ::testing::Test {
protected:
    const std::string content = pattern(3 * 1024 * 1024 + 17);
    LoopbackServer server{
        LoopbackServer::answering([this](LoopbackConnection& connection, const Request& request) {
            if (request.target() == "/missing")
                connection.reply(404, "not here");
            else
                connection.reply(200, request.target() == "/empty" ? std::string() : content,
                                 "Content-Type: x/y\r\n");
        })};
    CurlTransport transport;
    std::shared_ptr<RecordingSink> sink = std::make_shared<RecordingSink>();

    NetworkRequest request(const std::string& path = "/content") {
        NetworkRequest made = requestTo(server, path);
        made.sink = sink;
        made.maxReplySize = 1000;
        return made;
    }
};

TEST_F(CurlTransportSinks, GiveTheWholeBodyToTheSinkWhateverItsSize) {
    const NetworkReply reply = exchange(transport, request());
    EXPECT_FALSE(reply.error.hasError()) << qPrintable(reply.error.errorMessage());
    EXPECT_EQ(sink->begun, 1);
    EXPECT_EQ(sink->status, 200);
    EXPECT_EQ(sink->type, "x/y");
    EXPECT_TRUE(sink->taken == QByteArray::fromStdString(content));
    EXPECT_TRUE(reply.body.isEmpty());
}

TEST_F(CurlTransportSinks, BeginTheSinkOfAnEmptyBody) {
    const NetworkReply reply = exchange(transport, request("/empty"));
    EXPECT_FALSE(reply.error.hasError());
    EXPECT_EQ(sink->begun, 1);
    EXPECT_EQ(sink->offered, 0);
}

TEST_F(CurlTransportSinks, KeepTheBodyOfAFailureFromTheSink) {
    const NetworkReply reply = exchange(transport, request("/missing"));
    EXPECT_EQ(reply.status, 404);
    EXPECT_EQ(reply.body, "not here");
    EXPECT_EQ(sink->begun, 0);
}

TEST_F(CurlTransportSinks, PauseAtEveryPieceAndLoseNothing) {
    std::unique_ptr<TransportCall> call;
    std::optional<NetworkReply> reply;
    bool refused = false;
    sink->onTake = [&](const QByteArray&) {
        refused = !refused;
        if (!refused)
            return Verdict::Taken;
        QTimer::singleShot(0, [&] {
            if (call)
                call->resume();
        });
        return Verdict::Pause;
    };
    call = transport.send(request(), [&](const NetworkReply& came) { reply = came; });
    runUntil([&] { return reply.has_value(); });
    EXPECT_FALSE(reply->error.hasError()) << qPrintable(reply->error.errorMessage());
    EXPECT_EQ(sink->begun, 1);
    EXPECT_TRUE(sink->taken == QByteArray::fromStdString(content));
}

TEST_F(CurlTransportSinks, ResumeFromWithinTheSinkItself) {
    std::unique_ptr<TransportCall> call;
    std::optional<NetworkReply> reply;
    int pauses = 0;
    sink->onTake = [&](const QByteArray&) {
        if (++pauses > 3)
            return Verdict::Taken;
        call->resume();
        return Verdict::Pause;
    };
    call = transport.send(request(), [&](const NetworkReply& came) { reply = came; });
    runUntil([&] { return reply.has_value(); });
    EXPECT_TRUE(sink->taken == QByteArray::fromStdString(content));
}

TEST_F(CurlTransportSinks, PauseAlreadyWhenTheyBegin) {
    std::unique_ptr<TransportCall> call;
    std::optional<NetworkReply> reply;
    sink->onBegin = [&](int) {
        QTimer::singleShot(0, [&] { call->resume(); });
        return Verdict::Pause;
    };
    call = transport.send(request(), [&](const NetworkReply& came) { reply = came; });
    runUntil([&] { return reply.has_value(); });
    EXPECT_EQ(sink->begun, 1);
    EXPECT_TRUE(sink->taken == QByteArray::fromStdString(content));
}

TEST_F(CurlTransportSinks, DoNotLetASlowConsumerCountAsASilentServer) {
    // As short as what the server sends at once: from its first byte on nothing depends on the server.
    const LoopbackServer brief(LoopbackServer::answering(
        [](LoopbackConnection& connection, const Request&) { connection.reply(200, "short content"); }));
    const LoopbackServer silent([](LoopbackConnection& connection) { connection.waitForClient(); });
    constexpr auto allowed = 1000ms;
    std::unique_ptr<TransportCall> call;
    std::optional<NetworkReply> reply;
    std::unique_ptr<Exchange> measure;
    sink->onTake = [&](const QByteArray&) { return measure ? Verdict::Taken : Verdict::Pause; };
    NetworkRequest slow = requestTo(brief);
    slow.sink = sink;
    slow.silenceTimeout = allowed;
    call = transport.send(slow, [&](const NetworkReply& came) { reply = came; });
    runUntil([&] { return sink->offered > 0 || reply; });
    // The consumer takes its time until the same silence has ended a request that began later.
    NetworkRequest unanswered = requestTo(silent);
    unanswered.silenceTimeout = allowed;
    measure = std::make_unique<Exchange>(transport, unanswered);
    EXPECT_EQ(networkCode(measure->wait().error), int(NetworkErrorCode::TimedOut));
    EXPECT_FALSE(reply);
    call->resume();
    runUntil([&] { return reply.has_value(); });
    EXPECT_FALSE(reply->error.hasError()) << qPrintable(reply->error.errorMessage());
    EXPECT_EQ(sink->taken, "short content");
}

TEST_F(CurlTransportSinks, AbortTheRequest) {
    sink->onTake = [](const QByteArray&) { return Verdict::Abort; };
    EXPECT_TRUE(exchange(transport, request()).error.isCanceled());
    EXPECT_EQ(sink->offered, 1);
    sink->onTake = nullptr;
    sink->onBegin = [](int) { return Verdict::Abort; };
    EXPECT_TRUE(exchange(transport, request()).error.isCanceled());
    EXPECT_TRUE(exchange(transport, request("/empty")).error.isCanceled());
    EXPECT_EQ(sink->offered, 1);
}

TEST_F(CurlTransportSinks, AbortAfterAPause) {
    std::unique_ptr<TransportCall> call;
    std::optional<NetworkReply> reply;
    bool paused = false;
    sink->onTake = [&](const QByteArray&) {
        if (std::exchange(paused, true))
            return Verdict::Abort;
        QTimer::singleShot(0, [&] { call->resume(); });
        return Verdict::Pause;
    };
    call = transport.send(request(), [&](const NetworkReply& came) { reply = came; });
    runUntil([&] { return reply.has_value(); });
    EXPECT_TRUE(reply->error.isCanceled());
    EXPECT_EQ(sink->offered, 2);
}

// Aborting: the call is deleted in each phase; afterwards the transport serves the next request, and neither
// handler nor sink is called.

class CurlTransportAbort : public CurlTransportSinks {
protected:
    std::unique_ptr<TransportCall> call;
    int handled = 0;

    void send(const NetworkRequest& made) {
        call = transport.send(made, [this](const NetworkReply&) { ++handled; });
    }
    void expectOnlyTheNextRequestIsServed() {
        const int offered = sink->offered;
        EXPECT_EQ(exchange(transport, requestTo(server, "/missing")).body, "not here");
        EXPECT_EQ(handled, 0);
        EXPECT_EQ(sink->offered, offered);
    }
};

TEST_F(CurlTransportAbort, RightAfterSending) {
    send(request());
    call.reset();
    expectOnlyTheNextRequestIsServed();
    EXPECT_EQ(sink->begun, 0);
}

TEST_F(CurlTransportAbort, WhenTheHandlerOfAnImpossibleRequestIsDue) {
    NetworkRequest impossible;
    impossible.url = QUrl(QStringLiteral("nonsense:"));
    send(impossible);
    call.reset();
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, DuringNameResolution) {
    NetworkRequest unknown = request();
    unknown.url = QUrl(QStringLiteral("http://no-such-host.invalid/"));
    send(unknown);
    QEventLoop().processEvents();
    call.reset();
    handled = 0; // the resolver may have been quicker
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, WhileTheServerThinks) {
    Gate over;
    std::atomic<bool> arrived = false;
    const LoopbackServer thinking([&](LoopbackConnection& connection) {
        connection.readRequest();
        arrived = true;
        over.wait();
    });
    NetworkRequest made = request();
    made.url = QUrl(QString::fromStdString(thinking.url()));
    send(made);
    QTimer turns; // keeps the loop looking
    turns.start(1);
    runUntil([&] { return arrived.load(); });
    call.reset();
    expectOnlyTheNextRequestIsServed();
    over.open();
}

TEST_F(CurlTransportAbort, FromTheSinkAtItsBeginAndInTheMiddleAndForAnEmptyBody) {
    sink->onBegin = [this](int) {
        call.reset();
        return Verdict::Taken;
    };
    for (const char* path : {"/content", "/empty"}) {
        send(request(path));
        runUntil([this] { return !call; });
        expectOnlyTheNextRequestIsServed();
        EXPECT_EQ(sink->offered, 0);
    }
    sink->onBegin = nullptr;
    for (const Verdict verdict : {Verdict::Taken, Verdict::Pause, Verdict::Abort}) {
        sink->onTake = [&](const QByteArray&) {
            call.reset();
            return verdict;
        };
        send(request());
        runUntil([this] { return !call; });
        expectOnlyTheNextRequestIsServed();
    }
}

TEST_F(CurlTransportAbort, WhilePaused) {
    bool paused = false;
    sink->onTake = [&](const QByteArray&) {
        paused = true;
        return Verdict::Pause;
    };
    send(request());
    runUntil([&] { return paused; });
    call.reset();
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, AfterResumingButBeforeTheEventLoopRuns) {
    bool paused = false;
    sink->onTake = [&](const QByteArray&) {
        paused = true;
        return Verdict::Pause;
    };
    send(request());
    runUntil([&] { return paused; });
    call->resume();
    call.reset();
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, FromTheProgressOfAnUpload) {
    NetworkRequest upload = requestTo(server, "/missing", Method::Put);
    upload.body = std::make_shared<const QByteArray>(QByteArray::fromStdString(content));
    int reports = 0;
    upload.onBytesSent = [&](qint64) {
        ++reports;
        call.reset();
    };
    send(upload);
    runUntil([this] { return !call; });
    expectOnlyTheNextRequestIsServed();
    EXPECT_EQ(reports, 1);
}

TEST_F(CurlTransportAbort, FromItsOwnHandler) {
    call = transport.send(request(), [this](const NetworkReply& reply) {
        EXPECT_EQ(reply.status, 200);
        call.reset();
    });
    runUntil([this] { return !call; });
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, FromTheHandlerOfAnother) {
    sink->onTake = [](const QByteArray&) { return Verdict::Pause; }; // never ends by itself
    const std::unique_ptr<TransportCall> other =
        transport.send(requestTo(server, "/missing"), [this](const NetworkReply&) { call.reset(); });
    send(request());
    runUntil([this] { return !call; });
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, OfTheTransportItselfWithRequestsOnTheirWay) {
    auto own =
        std::make_unique<CurlTransport>(CurlTransport::Options{.maxRequestsInFlight = 1, .caFile = {}});
    const auto running = own->send(request(), [this](const NetworkReply&) { ++handled; });
    const auto queued = own->send(request(), [this](const NetworkReply&) { ++handled; });
    QEventLoop().processEvents();
    own.reset();
    running->resume();
    expectOnlyTheNextRequestIsServed();
}

TEST_F(CurlTransportAbort, OfTheTransportItselfFromAHandler) {
    auto own = std::make_unique<CurlTransport>();
    bool done = false;
    const auto first = own->send(requestTo(server, "/missing"), [&](const NetworkReply&) {
        own.reset();
        done = true;
    });
    runUntil([&] { return done; });
    expectOnlyTheNextRequestIsServed();
}

TEST(CurlTransportReentrancy, SendsFromASinkAndFromAHandler) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(200, request.target());
        }));
    CurlTransport transport;
    QList<QByteArray> bodies;
    std::vector<std::unique_ptr<TransportCall>> calls;
    const auto sink = std::make_shared<RecordingSink>();
    sink->onTake = [&](const QByteArray&) {
        calls.push_back(transport.send(requestTo(server, "/from-sink"), [&](const NetworkReply& reply) {
            bodies.append(reply.body);
            calls.push_back(transport.send(requestTo(server, "/from-handler"),
                                           [&](const NetworkReply& last) { bodies.append(last.body); }));
        }));
        return Verdict::Taken;
    };
    NetworkRequest request = requestTo(server, "/first");
    request.sink = sink;
    calls.push_back(transport.send(request, [&](const NetworkReply&) { bodies.append(sink->taken); }));
    runUntil([&] { return bodies.size() == 3; });
    EXPECT_EQ(bodies, (QList<QByteArray>{"/first", "/from-sink", "/from-handler"}));
}

TEST(CurlTransportReentrancy, DeliversToTheOthersThatHaveEndedWhileAHandlerWaitsForThem) {
    CurlTransport transport;
    NetworkRequest impossible;
    impossible.url = QUrl(QStringLiteral("nonsense:"));
    std::unique_ptr<Exchange> second;
    bool done = false;
    const auto first = transport.send(impossible, [&](const NetworkReply&) {
        second->wait();
        done = true;
    });
    second = std::make_unique<Exchange>(transport, impossible);
    runUntil([&] { return done; });
    EXPECT_EQ(networkCode(second->reply->error), int(NetworkErrorCode::InvalidRequest));
}

TEST(CurlTransportReentrancy, ServesTheOthersWhileAHandlerRunsAnEventLoop) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(200, request.target());
        }));
    CurlTransport transport;
    QByteArray inner;
    bool done = false;
    Exchange second(transport, requestTo(server, "/second"));
    const auto first = transport.send(requestTo(server, "/first"), [&](const NetworkReply&) {
        second.wait();
        inner = exchange(transport, requestTo(server, "/inner")).body;
        done = true;
    });
    runUntil([&] { return done; });
    EXPECT_EQ(inner, "/inner");
    EXPECT_EQ(second.reply->body, "/second");
}

} // namespace
