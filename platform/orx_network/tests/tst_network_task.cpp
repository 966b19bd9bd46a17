#include "Exchange.h"
#include "ScriptedTransport.h"

#include <NetworkTask.h>
#include <RetryPolicy.h>

#include <gtest/gtest.h>

#include <atomic>

using namespace orx;
using namespace orx::testing;
using namespace std::chrono_literals;
using Method = NetworkRequest::Method;
using Request = LoopbackConnection::Request;

namespace {

RetryPolicy withoutWaiting() {
    RetryPolicy policy;
    policy.baseDelay = 0ms;
    policy.maxRetryAfter = 0ms;
    return policy;
}

RetryPolicy waitingForHours() {
    RetryPolicy policy;
    policy.baseDelay = policy.maxDelay = 24h;
    return policy;
}

//! Notes everything that happens to it in one log.
class TestTask : public NetworkTask {
public:
    explicit TestTask(QStringList& events) : NetworkTask(QStringLiteral("test")), log(events) {
        setRetryPolicy(withoutWaiting());
        connect(this, &BaseTask::started, this, [this] { log += QStringLiteral("started"); });
        connect(this, &BaseTask::finished, this, [this] { log += QStringLiteral("finished"); });
        connect(this, &ErrorCancelable::canceled, this, [this] { log += QStringLiteral("canceled"); });
    }

    using NetworkTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& url) const override {
        log += QStringLiteral("prepared");
        Result<NetworkRequest> request = prepareRequest(url, path, method);
        if (request) {
            request->idempotent = idempotent;
            request->body = body;
            request->sink = sink;
        }
        return request;
    }
    QUrl baseUrl() const override { return base; }
    Error handleReply(const NetworkReply& reply) override {
        log += QStringLiteral("reply %1 %2").arg(reply.status).arg(QString::fromUtf8(reply.body));
        return onReply ? onReply() : Error();
    }
    void aboutToRetry(const NetworkReply& failed) override {
        log += QStringLiteral("retry after %1")
                   .arg(failed.error.hasError() ? -failed.error.code() : failed.status);
        if (onRetry)
            onRetry();
    }

    QStringList& log;
    QUrl base{QStringLiteral("http://server:81/api/v1")};
    QString path = QStringLiteral("/things/7");
    Method method = Method::Get;
    bool idempotent = false;
    std::shared_ptr<const QByteArray> body;
    std::shared_ptr<BodySink> sink;
    std::function<Error()> onReply;
    std::function<void()> onRetry;
};

class NetworkTasks : public ::testing::Test {
protected:
    QStringList log;
    ScriptedTransport transport;
    std::unique_ptr<TestTask> task = std::make_unique<TestTask>(log);

    Error run() {
        task->exec();
        return task->waitForFinished();
    }
    //! Lets everything happen that is due.
    static void processEvents() {
        for (int i = 0; i < 20; ++i)
            QCoreApplication::processEvents();
    }
    static Error failure(NetworkErrorCode code) {
        return Error(ErrorDomain::Network, int(code), QStringLiteral("broken"));
    }
};

TEST_F(NetworkTasks, SendOneRequestAndEndWithWhatTheReplyMeans) {
    transport.thenStatus(404, "gone");
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(log, (QStringList{QStringLiteral("started"), QStringLiteral("prepared"),
                                QStringLiteral("reply 404 gone"), QStringLiteral("finished")}));
    ASSERT_EQ(transport.log.size(), 1);
    EXPECT_EQ(transport.log[0].url, QUrl(QStringLiteral("http://server:81/api/v1/things/7")));
    EXPECT_EQ(transport.openCalls, 0);
}

TEST_F(NetworkTasks, EndWithTheErrorOfTheReply) {
    transport.thenStatus(200);
    task->onReply = [] { return Error(ErrorCode::ParseError, QStringLiteral("odd")); };
    EXPECT_TRUE(run().is(ErrorCode::ParseError));
}

TEST_F(NetworkTasks, SendTheTokenAsABearerAndNoHeaderWithoutOne) {
    transport.thenStatus(200);
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(NetworkRequest::header(transport.log[0].headers, "Authorization"), QByteArray());

    task = std::make_unique<TestTask>(log);
    task->setAuthenticationToken("s3cret");
    transport.thenStatus(200);
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(NetworkRequest::header(transport.log[1].headers, "Authorization"), "Bearer s3cret");
}

TEST_F(NetworkTasks, KeepTheTokenOutOfTheirErrors) {
    task->setAuthenticationToken("s3cret\r\n");
    Transport::setOverride(nullptr);
    task->base = QUrl(QStringLiteral("http://127.0.0.1:1/"));
    const Error error = run();
    EXPECT_EQ(networkCode(error), int(NetworkErrorCode::InvalidRequest));
    EXPECT_FALSE(error.traceText().contains(QStringLiteral("s3cret"))) << qPrintable(error.traceText());
}

TEST_F(NetworkTasks, SendTheSameRequestAgainUntilItIsAnswered) {
    transport.thenError(failure(NetworkErrorCode::ConnectionLost));
    transport.thenStatus(503);
    transport.thenStatus(200, "fine");
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(log, (QStringList{QStringLiteral("started"), QStringLiteral("prepared"),
                                QStringLiteral("retry after -2"), QStringLiteral("retry after 503"),
                                QStringLiteral("reply 200 fine"), QStringLiteral("finished")}));
    EXPECT_EQ(transport.log.size(), 3);
    EXPECT_EQ(transport.log[2].url, transport.log[0].url);
}

TEST_F(NetworkTasks, GiveUpAfterTheLastAttemptWithTheErrorOrTheReplyOfIt) {
    task->setMaxAttempts(3);
    for (int i = 0; i < 3; ++i)
        transport.thenError(failure(NetworkErrorCode::TimedOut));
    EXPECT_EQ(networkCode(run()), int(NetworkErrorCode::TimedOut));
    EXPECT_EQ(transport.log.size(), 3);

    task = std::make_unique<TestTask>(log);
    task->setMaxAttempts(2);
    transport.thenStatus(503, "first");
    transport.thenStatus(503, "second");
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(log.filter(QStringLiteral("reply")), QStringList{QStringLiteral("reply 503 second")});
}

TEST_F(NetworkTasks, RepeatAnUnsafeRequestOnlyWhenItIsIdempotent) {
    task->method = Method::Post;
    transport.thenStatus(503, "busy");
    EXPECT_FALSE(run().hasError());
    EXPECT_EQ(transport.log.size(), 1);

    task = std::make_unique<TestTask>(log);
    task->method = Method::Post;
    task->idempotent = true;
    task->body = std::make_shared<const QByteArray>("body");
    transport.thenStatus(503);
    transport.thenStatus(200);
    EXPECT_FALSE(run().hasError());
    ASSERT_EQ(transport.log.size(), 3);
    EXPECT_EQ(transport.log[2].body, task->body);
}

TEST_F(NetworkTasks, LetGoOfTheBodyWhenTheyEnd) {
    task->method = Method::Put;
    task->body = std::make_shared<const QByteArray>("body");
    const std::weak_ptr<const QByteArray> body = task->body;
    transport.thenStatus(200);
    task->onReply = [&] {
        transport.log.clear();
        task->body.reset();
        EXPECT_TRUE(body.expired());
        return Error();
    };
    EXPECT_FALSE(run().hasError());
}

TEST_F(NetworkTasks, WaitAsLongAsTheServerAsks) {
    RetryPolicy policy = withoutWaiting();
    policy.maxRetryAfter = 24h;
    task->setRetryPolicy(policy);
    transport.thenStatus(429, {}, {{"Retry-After", "3600"}});
    transport.thenStatus(200);
    task->exec();
    processEvents();
    EXPECT_EQ(transport.log.size(), 1);
    EXPECT_TRUE(task->isRunning());
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
}

TEST_F(NetworkTasks, RefuseAnAddressThatIsNone) {
    for (const char* url : {"", "server", "ftp://server/", "http://"}) {
        task = std::make_unique<TestTask>(log);
        task->base = QUrl(QString::fromLatin1(url));
        EXPECT_EQ(networkCode(run()), int(NetworkErrorCode::InvalidRequest)) << url;
    }
    EXPECT_TRUE(transport.log.isEmpty());
}

TEST_F(NetworkTasks, AppendThePathToThatOfTheServerAndKeepItsEncoding) {
    struct Row {
        const char* base;
        const char16_t* path;
        const char* url;
    };
    const Row rows[] = {
        {"http://h:1", u"/a", "http://h:1/a"},
        {"http://h:1/", u"/a", "http://h:1/a"},
        {"http://h:1/api/v1", u"/a/b", "http://h:1/api/v1/a/b"},
        {"http://h:1/api/v1///", u"/a/", "http://h:1/api/v1/a/"},
        {"https://h/api?x=1#y", u"/a", "https://h/api/a"},
        {"http://h/p%2Fq", u"/a", "http://h/p%2Fq/a"},
        {"http://[::1]:8", u"/a", "http://[::1]:8/a"},
        {"http://h", u"/a%2Fb", "http://h/a%2Fb"},
        {"http://h", u"/a%252Fb", "http://h/a%252Fb"},
        {"http://h", u"/a%3Fb%23c", "http://h/a%3Fb%23c"},
        {"http://h", u"/a?b#c", "http://h/a%3Fb%23c"},
        {"http://h", u"/a b", "http://h/a%20b"},
        {"http://h", u"/100%", "http://h/100%25"},
        {"http://h", u"/ü/\U0001F600", "http://h/%C3%BC/%F0%9F%98%80"},
        {"http://h", u"/a+b&c=d;e,f@g:h", "http://h/a+b&c=d;e,f@g:h"},
    };
    for (const Row& row : rows) {
        const QString path = QString::fromUtf16(row.path);
        const auto request = task->prepareRequest(QUrl(QString::fromLatin1(row.base)), path, Method::Put);
        ASSERT_TRUE(request) << row.base;
        EXPECT_EQ(request->url.toEncoded(), row.url);
        EXPECT_EQ(request->method, Method::Put);
    }
}

TEST_F(NetworkTasks, StopWhenCancelledDuringTheRequest) {
    task->exec();
    processEvents();
    EXPECT_EQ(transport.openCalls, 1);
    task->cancel();
    EXPECT_TRUE(task->hasError());
    EXPECT_EQ(transport.openCalls, 0);
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(log.mid(2), (QStringList{QStringLiteral("canceled"), QStringLiteral("finished")}));
}

TEST_F(NetworkTasks, StopWhenCancelledDuringTheWaitForAnotherAttempt) {
    task->setRetryPolicy(waitingForHours());
    transport.thenStatus(503);
    task->exec();
    processEvents();
    ASSERT_EQ(transport.log.size(), 1);
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    processEvents();
    EXPECT_EQ(transport.log.size(), 1);
    EXPECT_EQ(log.count(QStringLiteral("finished")), 1);
}

TEST_F(NetworkTasks, ForgetAnAttemptThatIsDueAlreadyWhenTheyAreCancelled) {
    transport.thenStatus(503);
    task->exec();
    runUntil([this] { return transport.openCalls == 0; });
    ASSERT_TRUE(log.filter(QStringLiteral("retry")).isEmpty());
    task->cancel();
    processEvents();
    EXPECT_TRUE(log.filter(QStringLiteral("retry")).isEmpty());
    EXPECT_EQ(transport.log.size(), 1);
}

TEST_F(NetworkTasks, StopWhenCancelledWhileTheReplyIsHandledOrAnAttemptIsPrepared) {
    transport.thenStatus(200);
    task->onReply = [this] {
        task->cancel();
        return Error();
    };
    EXPECT_TRUE(run().isCanceled());

    task = std::make_unique<TestTask>(log);
    task->onRetry = [this] { task->cancel(); };
    transport.thenStatus(503);
    transport.thenStatus(200);
    EXPECT_TRUE(run().isCanceled());
    EXPECT_EQ(transport.log.size(), 2);
    EXPECT_EQ(log.count(QStringLiteral("finished")), 2);
}

TEST_F(NetworkTasks, SendNothingWhenCancelledBeforeTheyStart) {
    task->cancel();
    EXPECT_TRUE(run().isCanceled());
    EXPECT_TRUE(transport.log.isEmpty());
}

TEST_F(NetworkTasks, LeaveNothingBehindWhenDestroyedDuringTheRequestOrTheWait) {
    task->exec();
    processEvents();
    task.reset();
    EXPECT_EQ(transport.openCalls, 0);

    task = std::make_unique<TestTask>(log);
    transport.thenStatus(200);
    task->exec();
    task.reset();
    processEvents();

    task = std::make_unique<TestTask>(log);
    task->setRetryPolicy(waitingForHours());
    transport.thenStatus(503);
    task->exec();
    processEvents();
    task.reset();
    processEvents();
    EXPECT_EQ(transport.openCalls, 0);
    EXPECT_FALSE(log.contains(QStringLiteral("finished")));
    EXPECT_TRUE(log.filter(QStringLiteral("reply")).isEmpty());
}

TEST_F(NetworkTasks, MayBeDestroyedWhileTheirReplyIsHandled) {
    transport.thenStatus(200);
    bool handled = false;
    task->onReply = [&] {
        handled = true;
        task.release()->deleteLater();
        return Error();
    };
    task->exec();
    runUntil([&] { return handled; });
    processEvents();
    EXPECT_EQ(log.count(QStringLiteral("finished")), 1);
}

// With the real transport and a server on the loopback interface.

class NetworkTasksOnLoopback : public ::testing::Test {
protected:
    QStringList log;

    std::unique_ptr<TestTask> taskFor(const LoopbackServer& server) {
        auto task = std::make_unique<TestTask>(log);
        task->base = QUrl(QString::fromStdString(server.url()));
        return task;
    }
};

TEST_F(NetworkTasksOnLoopback, RunWithoutAnEventLoop) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(200, request.target());
        }));
    const auto task = taskFor(server);
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(log[2], QStringLiteral("reply 200 /things/7"));
}

TEST_F(NetworkTasksOnLoopback, RunOnAThreadOfTheirOwn) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const Request& request) {
            connection.reply(200, request.target());
        }));
    std::thread thread([&] {
        for (int i = 0; i < 20; ++i) {
            const auto task = taskFor(server);
            task->exec();
            EXPECT_FALSE(task->waitForFinished().hasError());
        }
    });
    thread.join();
    EXPECT_EQ(log.count(QStringLiteral("reply 200 /things/7")), 20);
    EXPECT_EQ(server.acceptedConnections(), 1);
}

TEST_F(NetworkTasksOnLoopback, MayBeCancelledOrDestroyedByTheirOwnSink) {
    const LoopbackServer server(LoopbackServer::answering([](LoopbackConnection& connection, const Request&) {
        connection.reply(200, std::string(1'000'000, 'x'));
    }));
    struct Sink : BodySink {
        explicit Sink(std::function<void()> function) : act(std::move(function)) {}
        Verdict begin(int, const QList<HttpHeader>&) override { return Verdict::Taken; }
        Verdict take(const char*, qint64) override {
            ++taken;
            act();
            return Verdict::Taken;
        }
        std::function<void()> act;
        int taken = 0;
    };
    auto task = taskFor(server);
    const auto cancelling = std::make_shared<Sink>([&] { task->cancel(); });
    task->sink = cancelling;
    task->exec();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(cancelling->taken, 1);

    task = taskFor(server);
    const auto destroying = std::make_shared<Sink>([&] { task.reset(); });
    task->sink = destroying;
    task->exec();
    runUntil([&] { return !task; });
    QCoreApplication::processEvents();
    EXPECT_EQ(destroying->taken, 1);
    EXPECT_TRUE(log.filter(QStringLiteral("reply")).isEmpty());
}

TEST_F(NetworkTasksOnLoopback, BeginTheirSinkAnewWithEachAttempt) {
    const LoopbackServer server([&](LoopbackConnection& connection) {
        connection.readRequest();
        if (connection.index() < 2)
            connection.send("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabc");
        else
            connection.reply(200, "abcdef");
    });
    struct Sink : BodySink {
        Verdict begin(int, const QList<HttpHeader>&) override {
            ++begun;
            content.clear();
            return Verdict::Taken;
        }
        Verdict take(const char* data, qint64 size) override {
            content.append(data, qsizetype(size));
            return Verdict::Taken;
        }
        int begun = 0;
        QByteArray content;
    };
    const auto sink = std::make_shared<Sink>();
    const auto task = taskFor(server);
    task->sink = sink;
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(sink->begun, 3);
    EXPECT_EQ(sink->content, "abcdef");
}

TEST_F(NetworkTasksOnLoopback, PutALargeBodyOverConnectionsThatTheServerClosesAfterEachReply) {
    // The client learns of the end of a kept connection only when it uses it again.
    std::atomic<int> complete = 0;
    const LoopbackServer server([&](LoopbackConnection& connection) {
        const auto request = connection.readRequest();
        if (!request)
            return;
        ++complete;
        connection.reply(200, std::to_string(request->body.size()));
    });
    const auto body = std::make_shared<const QByteArray>(8 * 1024 * 1024, 'x');
    for (int i = 0; i < 5; ++i) {
        const auto task = taskFor(server);
        task->method = Method::Put;
        task->idempotent = true;
        task->body = body;
        task->exec();
        const Error error = task->waitForFinished();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    }
    EXPECT_EQ(log.count(QStringLiteral("reply 200 8388608")), 5);
    EXPECT_EQ(complete, 5);
}

TEST_F(NetworkTasksOnLoopback, PutALargeBodyAgainWhenTheConnectionBreaksInTheMiddleOfIt) {
    const LoopbackServer server([&](LoopbackConnection& connection) {
        if (connection.index() < 2) {
            connection.readHead();
            connection.reset();
            return;
        }
        while (const auto request = connection.readRequest())
            connection.reply(200, std::to_string(request->body.size()));
    });
    const auto task = taskFor(server);
    task->method = Method::Put;
    task->idempotent = true;
    task->body = std::make_shared<const QByteArray>(8 * 1024 * 1024, 'x');
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(log.mid(2, 3), (QStringList{QStringLiteral("retry after -2"), QStringLiteral("retry after -2"),
                                          QStringLiteral("reply 200 8388608")}));
}

} // namespace
