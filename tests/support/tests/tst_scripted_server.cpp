// The scripted server's faults do what they say; its plain answers are the contract suite's subject.
#include "../RealServer.h"
#include "../ScriptedHalvaneServer.h"

#include <HalvaneConnection.h>

#include <gtest/gtest.h>

#include <QCoreApplication>

namespace orx::testing {
namespace {

//! Takes a body, refusing pieces while it wants a pause.
class PausingSink : public BodySink {
public:
    Verdict begin(int, const QList<HttpHeader>&) override { return Verdict::Taken; }
    Verdict take(const char* data, qint64 size) override {
        if (paused)
            return Verdict::Pause;
        received.append(data, size);
        paused = pauseAfterEachPiece;
        return abort ? Verdict::Abort : Verdict::Taken;
    }
    QByteArray received;
    bool paused = false;
    bool pauseAfterEachPiece = false;
    bool abort = false;
};

class ScriptedServer : public ::testing::Test {
protected:
    ScriptedServer() { server.connectClient(); }

    NetworkRequest request(const QString& path) const {
        NetworkRequest made;
        made.url = HalvaneConnection::instance().apiUrl();
        made.url.setPath(made.url.path() + path);
        made.setHeader("Authorization", "Bearer " + server.service().token());
        return made;
    }

    std::unique_ptr<TransportCall> send(const NetworkRequest& made) {
        return server.send(made, [this](const NetworkReply& reply) { replies.append(reply); });
    }

    //! What the next request for the root folder gives.
    NetworkReply rootFolder() {
        const auto call = send(request(QStringLiteral("/folders/1")));
        EXPECT_TRUE(waitUntil([&] { return !replies.isEmpty(); }));
        return replies.isEmpty() ? NetworkReply() : replies.takeFirst();
    }

    static void turnTheLoop() {
        for (int i = 0; i < 5; ++i)
            QCoreApplication::processEvents();
    }

    ClientEnvironment client{QUrl(QStringLiteral("http://scripted.invalid"))};
    ScriptedHalvaneServer server;
    QList<NetworkReply> replies;
};

TEST_F(ScriptedServer, RepliesComeFromTheEventLoop) {
    const auto call = send(request(QStringLiteral("/folders/1")));
    EXPECT_TRUE(replies.isEmpty());
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 1; }));
    EXPECT_EQ(replies[0].status, 200);
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /folders/1")});
}

TEST_F(ScriptedServer, ADeletedCallIsNeverAnswered) {
    auto call = send(request(QStringLiteral("/folders/1")));
    EXPECT_EQ(server.inFlightCount(), 1);
    call.reset();
    EXPECT_EQ(server.inFlightCount(), 0);
    turnTheLoop();
    EXPECT_TRUE(replies.isEmpty());
}

TEST_F(ScriptedServer, AFaultMeetsAsManyRequestsAsSaid) {
    server.script(QStringLiteral("GET /folders/*"),
                  ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("no")), 2);
    EXPECT_EQ(rootFolder().status, 403);
    EXPECT_EQ(rootFolder().status, 403);
    EXPECT_EQ(rootFolder().status, 200);
}

TEST_F(ScriptedServer, FaultsOfOtherRequestsDoNotMatter) {
    server.script(QStringLiteral("GET /folders/1/files"), ScriptedFault::html());
    server.script(QStringLiteral("PUT /folders/1"), ScriptedFault::html());
    EXPECT_EQ(rootFolder().status, 200);
}

TEST_F(ScriptedServer, AHeldReplyWaitsForItsRelease) {
    server.script(QStringLiteral("GET *"), ScriptedFault::hold());
    const auto call = send(request(QStringLiteral("/folders/1")));
    turnTheLoop();
    EXPECT_TRUE(replies.isEmpty());
    EXPECT_EQ(server.heldCount(), 1);
    server.release();
    EXPECT_EQ(server.heldCount(), 0);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 1; }));
}

TEST_F(ScriptedServer, AHangingRequestIsNotReleased) {
    server.script(QStringLiteral("GET *"), ScriptedFault::hang());
    const auto call = send(request(QStringLiteral("/folders/1")));
    server.release();
    turnTheLoop();
    EXPECT_TRUE(replies.isEmpty());
    EXPECT_EQ(server.inFlightCount(), 1);
}

TEST_F(ScriptedServer, TruncatedRepliesAreHalfAsLong) {
    const qsizetype whole = rootFolder().body.size();
    server.script(QStringLiteral("GET *"), ScriptedFault::truncatedJson());
    const NetworkReply reply = rootFolder();
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body.size(), whole / 2);
}

TEST_F(ScriptedServer, ALostReplyWasActedOnAndANetworkErrorWasNot) {
    NetworkRequest create = request(QStringLiteral("/folders"));
    create.method = NetworkRequest::Method::Post;
    create.body = std::make_shared<const QByteArray>(R"({"name": "raw", "parent_id": 1})");
    server.script(QStringLiteral("POST /folders"), ScriptedFault::replyLost());
    server.script(QStringLiteral("POST /folders"),
                  ScriptedFault::networkError(NetworkErrorCode::ConnectionFailed));
    const auto lost = send(create);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 1; }));
    EXPECT_TRUE(replies[0].error.is(ErrorDomain::Network, int(NetworkErrorCode::ConnectionLost)));
    EXPECT_EQ(server.service().folders().size(), 2);
    const auto refused = send(create);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 2; }));
    EXPECT_TRUE(replies[1].error.is(ErrorDomain::Network, int(NetworkErrorCode::ConnectionFailed)));
    EXPECT_EQ(server.service().folders().size(), 2);
}

TEST_F(ScriptedServer, ContentsGoToTheSinkAndWaitForIt) {
    const QByteArray content(100, 'x');
    const int file = server.service().addFile(QStringLiteral("run.raw"), content);
    const auto sink = std::make_shared<PausingSink>();
    sink->pauseAfterEachPiece = true;
    NetworkRequest made = request(QStringLiteral("/files/%1/versions/1/content").arg(file));
    made.sink = sink;
    const auto call = send(made);
    while (waitUntil([&] { return sink->paused || !replies.isEmpty(); }) && replies.isEmpty()) {
        sink->paused = false;
        call->resume();
    }
    EXPECT_EQ(sink->received, content);
    EXPECT_TRUE(replies[0].body.isEmpty());
}

TEST_F(ScriptedServer, ATruncatedBodyEndsWithALostConnection) {
    const int file = server.service().addFile(QStringLiteral("run.raw"), QByteArray(100, 'x'));
    server.script(QStringLiteral("GET */content"), ScriptedFault::truncatedBody(40));
    const auto sink = std::make_shared<PausingSink>();
    NetworkRequest made = request(QStringLiteral("/files/%1/versions/1/content").arg(file));
    made.sink = sink;
    const auto call = send(made);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 1; }));
    EXPECT_EQ(sink->received.size(), 40);
    EXPECT_TRUE(replies[0].error.is(ErrorDomain::Network, int(NetworkErrorCode::ConnectionLost)));
}

TEST_F(ScriptedServer, ARefusedBodyEndsTheCall) {
    const int file = server.service().addFile(QStringLiteral("run.raw"), QByteArray(100, 'x'));
    const auto sink = std::make_shared<PausingSink>();
    sink->abort = true;
    NetworkRequest made = request(QStringLiteral("/files/%1/versions/1/content").arg(file));
    made.sink = sink;
    const auto call = send(made);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 1; }));
    EXPECT_TRUE(replies[0].error.isCanceled());
}

TEST_F(ScriptedServer, RequestsInFlightAreCounted) {
    const auto first = send(request(QStringLiteral("/folders/1")));
    const auto second = send(request(QStringLiteral("/folders/1/files")));
    EXPECT_EQ(server.inFlightCount(), 2);
    EXPECT_TRUE(waitUntil([&] { return replies.size() == 2; }));
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_EQ(server.peakInFlight(), 2);
    EXPECT_EQ(server.count(QStringLiteral("GET /folders/*")), 2);
    EXPECT_EQ(server.count(QStringLiteral("GET /folders/1")), 1);
}

} // namespace
} // namespace orx::testing
