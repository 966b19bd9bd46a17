// The blocking calls from the body of a task on a worker: a thread of the pool without an event loop.
#include "HalvaneConnection.h"
#include "HalvaneConnectionUtils.h"

#include <LoopbackServer.h>
#include <RealServer.h>
#include <Task.h>
#include <WorkerPool.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace orx::testing {
namespace {

constexpr std::string_view FileReply =
    R"({"status":"success","data":{"id":12,"folder_id":7,"name":"run1.mzML","last_version":3,"size":5}})";
constexpr std::string_view FilesReply =
    R"({"status":"success","data":{"files":[{"id":12,"folder_id":7,"name":"run1.mzML","last_version":3,"size":5}]}})";

//! Runs a function on a worker.
class WorkerTask final : public Task {
public:
    explicit WorkerTask(std::function<Error()> body)
        : Task(QStringLiteral("worker")), m_body(std::move(body)) {
        setExecutionMode(ExecutionMode::Worker);
    }
    ~WorkerTask() override { stopBody(); }

protected:
    Error doExec() override { return m_body(); }

private:
    std::function<Error()> m_body;
};

//! This process is logged in at a server that the test scripts.
struct Client {
    explicit Client(const LoopbackServer& server) : environment(QUrl(QString::fromStdString(server.url()))) {
        HalvaneConnection::instance().setCredentials(QStringLiteral("anna"), "token");
    }
    ClientEnvironment environment;
};

//! Answers nothing, and tells that a request is there.
struct SilentServer {
    Gate asked;
    std::atomic<int> requests = 0;
    LoopbackServer server{[this](LoopbackConnection& connection) {
        if (!connection.readRequest())
            return;
        ++requests;
        asked.open();
        connection.waitForClient();
    }};
};

TEST(BlockingCallsOnAWorker, ReturnWhatTheServerSays) {
    const LoopbackServer server(
        LoopbackServer::answering([](LoopbackConnection& connection, const auto& request) {
            connection.reply(200, request.target().find("/files/12") != std::string::npos ? FileReply
                                                                                          : FilesReply);
        }));
    const Client client(server);
    const std::thread::id owner = std::this_thread::get_id();
    std::thread::id body;
    // Twice as often as there are workers, so that one that made a call before makes another.
    for (int i = 0; i < 2 * WorkerPool::instance().threadCount(); ++i) {
        WorkerTask task([&body] {
            body = std::this_thread::get_id();
            const auto item = HalvaneConnectionUtils::getFileItem(12);
            ORX_RETURN_ON_ERROR(item.error());
            EXPECT_EQ(item->lastVersion(), 3);
            const auto files = HalvaneConnectionUtils::files(item->folderId());
            ORX_RETURN_ON_ERROR(files.error());
            EXPECT_EQ(files->size(), 1);
            return Error();
        });
        task.exec();
        const Error error = task.waitForFinished();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
        EXPECT_NE(body, owner);
    }
}

TEST(BlockingCallsOnAWorker, EndWhenTheTaskIsCancelled) {
    SilentServer silent;
    const Client client(silent.server);
    Error seen;
    WorkerTask task([&seen] {
        seen = HalvaneConnectionUtils::getFileItem(12).error();
        return Error();
    });
    task.exec();
    silent.asked.wait();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(seen.isCanceled()) << qPrintable(seen.traceText());
    EXPECT_EQ(silent.requests, 1);
}

TEST(BlockingCallsOnAWorker, EndWhenTheTaskIsDestroyed) {
    SilentServer silent;
    const Client client(silent.server);
    Error seen;
    auto task = std::make_unique<WorkerTask>([&seen] {
        seen = HalvaneConnectionUtils::files(7).error();
        return Error();
    });
    task->exec();
    silent.asked.wait();
    task.reset();
    EXPECT_TRUE(seen.isCanceled()) << qPrintable(seen.traceText());
}

TEST(BlockingCallsOnAWorker, AfterACancellationTheNextOneEndsTooAndOtherTasksAreNotConcerned) {
    SilentServer silent;
    const Client client(silent.server);
    Error second;
    WorkerTask task([&second] {
        const auto first = HalvaneConnectionUtils::getFileItem(12);
        second = HalvaneConnectionUtils::files(7).error();
        return first.error();
    });
    task.exec();
    silent.asked.wait();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(second.isCanceled());
    EXPECT_EQ(silent.requests, 1) << "the second call does not get to the server";

    const LoopbackServer answering(LoopbackServer::answering(
        [](LoopbackConnection& connection, const auto&) { connection.reply(200, FileReply); }));
    const Client other(answering);
    for (int i = 0; i < WorkerPool::instance().threadCount(); ++i) {
        WorkerTask next([] { return HalvaneConnectionUtils::getFileItem(12).error(); });
        next.exec();
        const Error error = next.waitForFinished();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    }
}

TEST(BlockingCallsOnAWorker, WorkOnAPlainThreadWithoutADispatcher) {
    const LoopbackServer server(LoopbackServer::answering(
        [](LoopbackConnection& connection, const auto&) { connection.reply(200, FileReply); }));
    const Client client(server);
    Error error;
    std::thread([&error] { error = HalvaneConnectionUtils::getFileItem(12).error(); }).join();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
}

} // namespace
} // namespace orx::testing
