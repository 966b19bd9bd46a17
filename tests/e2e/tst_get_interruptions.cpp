// Downloads that are interrupted in every way: what was at the target is there, or the new content is, whole;
// and the next run fetches what is missing, and nothing else.
#include "Client.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <csignal>
#include <numeric>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

constexpr int fileCount = 20;
constexpr int atATime = 8;
const std::string contentPath = ".*/content";
const QByteArray before = "what was there";

QByteArray contentOfFile(int number) {
    QByteArray content;
    while (content.size() < 20'000 + 100 * number)
        content += QByteArray::number(number) + ' ' + QByteArray::number(content.size()) + '\n';
    return content;
}

QString nameOfFile(int number) {
    return QStringLiteral("f%1.mzML").arg(number, 2, 10, QChar(u'0'));
}

//! A file that is cheap to make, and in which no part may stand for another.
void makeMarkedFile(const QString& path, qint64 size) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.resize(size));
    for (qint64 at = 0; at < size; at += 1'000'000) {
        ASSERT_TRUE(file.seek(at));
        ASSERT_GT(file.write(QByteArray::number(at)), 0);
    }
}

bool areSame(const QString& one, const QString& other) {
    QFile a(one);
    QFile b(other);
    if (!a.open(QIODevice::ReadOnly) || !b.open(QIODevice::ReadOnly) || a.size() != b.size())
        return false;
    while (!a.atEnd()) {
        if (a.read(1 << 20) != b.read(1 << 20))
            return false;
    }
    return true;
}

//! One server with /tree, a folder of 20 files, and /large, for all tests: none of them changes what is
//! there.
class GetInterrupted : public ::testing::Test {
protected:
    static constexpr qint64 mediumSize = 10'000'000;

    static void SetUpTestSuite() {
        server = new RealServer;
        owner = new Client;
        ASSERT_TRUE(server->start());
        ASSERT_TRUE(owner->login(server->url()));
        owner->mustRun({"mkdir", "/tree"});
        owner->mustRun({"mkdir", "/large"});
        makeMarkedFile(owner->path("medium.raw"), mediumSize);
        owner->mustRun({"put", "--no-cache", "medium.raw", "--to", "/large"});
        for (int first = 0; first < fileCount; first += 4)
            putFiles(first, 4);
    }
    static void putFiles(int first, int count) {
        std::vector<std::unique_ptr<QProcess>> running;
        for (int i = first; i < first + count; ++i) {
            const QString file = owner->makeFile(nameOfFile(i), contentOfFile(i));
            running.push_back(owner->start({"put", "--no-cache", file, "--to", "/tree"}));
        }
        for (const auto& process : running) {
            const Outcome outcome = Client::finish(*process);
            ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        }
    }
    static void TearDownTestSuite() {
        delete std::exchange(owner, nullptr);
        delete std::exchange(server, nullptr);
    }

    void SetUp() override {
        ASSERT_TRUE(server->isRunning());
        proxy = std::make_unique<FaultProxy>("127.0.0.1", server->port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy->url()))));
        server->clearRequests();
    }

    // ---- what the server sent

    static QList<RealServer::Request> contentReplies() {
        QList<RealServer::Request> replies = server->requests();
        replies.removeIf([](const RealServer::Request& request) {
            return !request.path.endsWith("/content") || request.status >= 300;
        });
        return replies;
    }
    //! The log may be behind the client.
    static void expectContentReplies(qsizetype count) {
        EXPECT_TRUE(waitUntil([count] { return contentReplies().size() >= count; }));
        EXPECT_EQ(contentReplies().size(), count);
    }
    static qint64 contentBytes() {
        const auto replies = contentReplies();
        return std::accumulate(
            replies.begin(), replies.end(), qint64(0),
            [](qint64 sum, const RealServer::Request& request) { return sum + request.bytesOut; });
    }

    // ---- one file

    QStringList getMedium() const {
        return {"--json",      "get",      "/large/medium.raw", "--to", client.path("back"),
                "--if-exists", "overwrite"};
    }
    //! Starts a get that has brought \a bytes of the file, and whose next request is answered and held.
    std::unique_ptr<QProcess> startAndHoldAfter(qint64 bytes) {
        client.makeFile("back", before);
        held = {proxy->holdReply({"GET", contentPath, 1})};
        proxy->cutReplyBody({"GET", contentPath}, quint64(bytes));
        auto process = client.start(getMedium());
        held[0]->waitUntilAnswered();
        return process;
    }
    //! What the held request asks for is what is missing of the file.
    static qint64 bytesMissing() {
        expectContentReplies(2);
        const auto replies = contentReplies();
        return std::find_if(replies.begin(), replies.end(),
                            [](const auto& reply) { return reply.status == 206; })
            ->bytesOut;
    }

    // ---- the tree

    QStringList getTree() const {
        return {"--json", "get", "/tree", "--to", client.path("out"), "--if-exists", "overwrite"};
    }
    QString treePath(int number) const { return client.path("out/tree/" + nameOfFile(number)); }
    void makeOldTree() {
        ASSERT_TRUE(QDir().mkpath(client.path("out/tree")));
        for (int i = 0; i < fileCount; ++i)
            client.makeFile("out/tree/" + nameOfFile(i), before);
    }
    //! Files that have come; any other must be what was there before.
    QList<int> filesThatCame() const {
        QList<int> came;
        for (int i = 0; i < fileCount; ++i) {
            const QByteArray content = Client::contentOf(treePath(i));
            if (content == contentOfFile(i))
                came.append(i);
            else
                EXPECT_TRUE(content == before) << i;
        }
        return came;
    }
    //! Starts a get of the tree of which \a whole files have come, and as many more as are fetched at a time
    //! are answered and held.
    std::unique_ptr<QProcess> startTreeAndHoldAfter(int whole) {
        makeOldTree();
        for (int i = 0; i < atATime; ++i)
            held.append(proxy->holdReply({"GET", contentPath, whole}));
        auto process = client.start(getTree());
        for (const auto& hold : held)
            hold->waitUntilAnswered();
        EXPECT_TRUE(waitUntil([&] { return filesThatCame().size() == whole; }));
        return process;
    }
    void dropHeld() {
        for (const auto& hold : held)
            hold->drop();
    }
    //! Another run brings exactly the files that are not in \a came.
    void expectOnlyTheOthersAreFetched(const QList<int>& came) {
        qint64 missing = 0;
        for (int i = 0; i < fileCount; ++i)
            missing += came.contains(i) ? 0 : contentOfFile(i).size();
        server->clearRequests();
        const Outcome outcome = client.run(getTree());
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        expectContentReplies(fileCount - came.size());
        EXPECT_EQ(contentBytes(), missing);
        expectWholeTree();
    }
    void expectWholeTree() {
        EXPECT_EQ(filesThatCame().size(), fileCount);
        EXPECT_EQ(client.filesIn("out/tree").size(), fileCount);
    }

    static inline RealServer* server = nullptr;
    static inline Client* owner = nullptr;
    std::unique_ptr<FaultProxy> proxy;
    Client client;
    QList<std::shared_ptr<FaultProxy::Hold>> held;
};

TEST_F(GetInterrupted, ALargeFileWhoseConnectionIsLostAfterEveryTenthComesDownInOneRun) {
    constexpr qint64 size = 200'000'000;
    const QString large = owner->path("large.raw");
    makeMarkedFile(large, size);
    owner->mustRun({"put", "--no-cache", large, "--to", "/large"});
    client.makeFile("back", before);
    const auto last = proxy->holdReply({"GET", contentPath, 9});
    proxy->cutReplyBody({"GET", contentPath, 0, 9}, size / 10);
    const auto process = client.start(
        {"--json", "get", "/large/large.raw", "--to", client.path("back"), "--if-exists", "overwrite"});
    last->waitUntilAnswered();
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    last->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_TRUE(areSame(client.path("back"), large));
    EXPECT_EQ(proxy->traffic("GET", contentPath).requests, 10);
    // A cut lets all go that went before it, and nothing of that is asked for again.
    EXPECT_EQ(proxy->traffic("GET", contentPath).replyBytes, quint64(size));
    // By the server's log, too: the last reply, which was not cut, was the last tenth.
    EXPECT_TRUE(waitUntil([] { return contentReplies().size() == 10; }));
    EXPECT_EQ(contentReplies().last().bytesOut, size / 10);
    ASSERT_TRUE(QFile::remove(large));
}

class GetInterruptedAt : public GetInterrupted, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Percent, GetInterruptedAt, ::testing::Values(10, 50, 90));

TEST_P(GetInterruptedAt, AClientThatIsKilledGoesOnWithWhatIsMissing) {
    const auto process = startAndHoldAfter(mediumSize * GetParam() / 100);
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    EXPECT_EQ(client.filesIn(), QStringList{"back"});
    const qint64 missing = bytesMissing();
    EXPECT_LT(missing, mediumSize);
    dropHeld();

    server->clearRequests();
    const Outcome outcome = client.mustRun(getMedium());
    EXPECT_EQ(outcome.object()["outcome"], "downloaded");
    expectContentReplies(1);
    EXPECT_EQ(contentBytes(), missing);
    EXPECT_TRUE(areSame(client.path("back"), owner->path("medium.raw")));
    EXPECT_EQ(client.filesIn(), QStringList{"back"});
}

TEST_P(GetInterruptedAt, AServerThatIsKilledSendsWhatIsMissingWhenItIsBack) {
    const auto process = startAndHoldAfter(mediumSize * GetParam() / 100);
    const qint64 missing = bytesMissing();
    server->kill();
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    ASSERT_TRUE(server->start());
    dropHeld();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    expectContentReplies(1);
    EXPECT_EQ(contentBytes(), missing);
    EXPECT_TRUE(areSame(client.path("back"), owner->path("medium.raw")));
}

TEST_F(GetInterrupted, AStalledConnectionIsGivenUpForAnotherOne) {
    client.setEnvironment("HALVANE_TIMEOUT", "3s");
    client.makeFile("back", before);
    held = {proxy->holdReply({"GET", contentPath, 1})};
    proxy->cutReplyBody({"GET", contentPath}, mediumSize / 2);
    // The held reply is never let through.
    const auto process = client.start(getMedium());
    held[0]->waitUntilAnswered();
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_GE(proxy->traffic("GET", contentPath).requests, 3);
    EXPECT_TRUE(areSame(client.path("back"), owner->path("medium.raw")));
    client.setEnvironment("HALVANE_TIMEOUT", "soon");
    EXPECT_EQ(client.run(getMedium()).exitCode, 2);
}

TEST_F(GetInterrupted, AVersionThatComesHalfWayIsNotMixedIn) {
    owner->mustRun({"mkdir", "-p", "/changing"});
    makeMarkedFile(owner->path("changing.raw"), 3'000'000);
    owner->mustRun({"put", "--no-cache", "changing.raw", "--to", "/changing"});
    client.makeFile("back", before);
    const QStringList get{"--json",      "get",      "/changing/changing.raw", "--to", client.path("back"),
                          "--if-exists", "overwrite"};
    const auto start = [&] {
        held = {proxy->holdReply({"GET", contentPath, 1})};
        proxy->cutReplyBody({"GET", contentPath}, 1'000'000);
        auto process = client.start(get);
        held[0]->waitUntilAnswered();
        return process;
    };
    const QString second = owner->makeLargeFile("second.raw", 2'500'000);
    const auto putSecond = [&] {
        owner->mustRun(
            {"put", "--no-cache", second, "--to", "/changing", "--as", "changing.raw", "--new-version"});
    };

    // Killed: the next run takes the new version, and nothing of the old one.
    const auto killed = start();
    putSecond();
    killed->kill();
    ASSERT_TRUE(killed->waitForFinished());
    dropHeld();
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    server->clearRequests();
    EXPECT_EQ(client.mustRun(get).object()["version"], 2);
    expectContentReplies(1);
    EXPECT_EQ(contentBytes(), 2'500'000);
    EXPECT_TRUE(areSame(client.path("back"), second));

    // Going on: the version that it began with comes, whole.
    client.makeFile("back", before);
    client.mustRun({"cache", "prune", "--max-size", "0"});
    const auto going = start();
    owner->mustRun({"put", "--no-cache", "changing.raw", "--to", "/changing", "--new-version"});
    EXPECT_EQ(Client::contentOf(client.path("back")), before);
    held[0]->release();
    const Outcome outcome = Client::finish(*going);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["version"], 2);
    EXPECT_TRUE(areSame(client.path("back"), second));
}

TEST_F(GetInterrupted, AClientThatIsKilledInTheMiddleOfATree) {
    const auto process = startTreeAndHoldAfter(4);
    process->kill();
    ASSERT_TRUE(process->waitForFinished());
    dropHeld();
    const QList<int> came = filesThatCame();
    EXPECT_EQ(came.size(), 4);
    expectOnlyTheOthersAreFetched(came);
}

TEST_F(GetInterrupted, CtrlCInTheMiddleOfATreeSaysHowToGoOn) {
    const auto process = startTreeAndHoldAfter(4);
    ASSERT_EQ(::kill(pid_t(process->processId()), SIGINT), 0);
    const Outcome interrupted = Client::finish(*process);
    dropHeld();
    EXPECT_EQ(interrupted.exitCode, 130);
    EXPECT_EQ(interrupted.objects().last()["error"], "Canceled");
    EXPECT_THAT(interrupted.err.toStdString(), HasSubstr("Run the same command again"));
    EXPECT_EQ(client.filesIn("out/tree").size(), fileCount);
    const QList<int> came = filesThatCame();
    EXPECT_EQ(came.size(), 4);
    expectOnlyTheOthersAreFetched(came);
}

TEST_F(GetInterrupted, AServerThatIsKilledInTheMiddleOfATree) {
    const auto process = startTreeAndHoldAfter(4);
    server->kill();
    EXPECT_EQ(filesThatCame().size(), 4);
    ASSERT_TRUE(server->start());
    dropHeld();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    expectContentReplies(fileCount - 4);
    expectWholeTree();
}

TEST_F(GetInterrupted, ADamagedFileFailsAloneAndIsFetchedByTheNextRun) {
    makeOldTree();
    const QJsonObject third = client.mustRun({"--json", "ls", "/tree/" + nameOfFile(3)}).object();
    const std::string its = ".*/files/" + std::to_string(third["id"].toInt()) + "/versions/1/content";
    proxy->corruptReplyBody({"GET", its, 0, -1}, 12'345);
    const Outcome damaged = client.run(getTree());
    EXPECT_EQ(damaged.exitCode, 14);
    QList<QJsonObject> failures = damaged.objects();
    failures.removeIf([](const QJsonObject& object) { return object["type"] != "failure"; });
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0]["error"], "ChecksumMismatch");
    EXPECT_EQ(failures[0]["path"].toString(), QFileInfo(treePath(3)).canonicalFilePath());
    const QList<int> came = filesThatCame();
    EXPECT_EQ(came.size(), fileCount - 1);
    EXPECT_FALSE(came.contains(3));
    proxy->clearRules();
    expectOnlyTheOthersAreFetched(came);
}

} // namespace
} // namespace orx::testing
