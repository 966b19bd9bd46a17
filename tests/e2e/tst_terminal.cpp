// What people see on a terminal: questions without echo, progress on one line, names that cannot drive it.
#include "Terminal.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class OnATerminal : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    RealServer server;
    Client client;
};

TEST_F(OnATerminal, PasswordsAreNotEchoed) {
    Terminal terminal(client, {"login", server.url().toString(), "--user", "admin"});
    ASSERT_TRUE(terminal.waitFor("Password of admin at "));
    EXPECT_FALSE(terminal.echoes());
    terminal.type(std::string(RealServer::AdminPassword) + "\n");
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("admin at http://127.0.0.1:"));
    EXPECT_THAT(terminal.seen(), Not(HasSubstr(RealServer::AdminPassword)));
}

TEST_F(OnATerminal, CtrlCAtTheQuestionRestoresTheTerminal) {
    Terminal terminal(client, {"login", server.url().toString(), "--user", "admin"});
    ASSERT_TRUE(terminal.waitFor("Password of admin at "));
    terminal.type("half a pass\x03");
    EXPECT_EQ(terminal.finish(), 130) << terminal.seen();
    EXPECT_TRUE(server.requests().isEmpty());
}

TEST_F(OnATerminal, ProgressIsOneLineThatIsRewritten) {
    constexpr qint64 chunkSize = 256 * 1024;
    ASSERT_TRUE(server.stop());
    server.setArguments({"--chunk-size", QString::number(chunkSize)});
    ASSERT_TRUE(server.start());
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    const QString file = client.makeLargeFile("run.mzML", 8 * chunkSize);
    const auto hold = proxy.holdReply({"POST", ".*/uploads/finalize"});
    Terminal terminal(client, {"put", file, "--to", "/"});
    EXPECT_TRUE(terminal.waitFor("run.mzML  100 %  2.0 MiB of 2.0 MiB")) << terminal.seen();
    hold->release();
    EXPECT_EQ(terminal.finish(), 0) << terminal.seen();
    EXPECT_THAT(terminal.seen(), HasSubstr("\r\x1b[K"));
    EXPECT_THAT(terminal.seen(), HasSubstr("-> file:1@1 as run.mzML, 2.0 MiB in "));
    EXPECT_EQ(std::count(terminal.seen().begin(), terminal.seen().end(), '\n'), 1);
}

TEST_F(OnATerminal, NamesCannotTurnTheWritingDirection) {
    ASSERT_TRUE(client.login(server.url()));
    const QString name = QStringLiteral("run\u202Elmzm.exe");
    client.mustRun({"put", client.makeFile("x", "x"), "--to", "/", "--as", name});
    Terminal terminal(client, {"ls"});
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_THAT(terminal.seen(), HasSubstr("run\\u{202E}lmzm.exe"));
    EXPECT_EQ(client.mustRun({"ls"}).out, name.toUtf8() + '\n');
}

} // namespace
} // namespace orx::testing
