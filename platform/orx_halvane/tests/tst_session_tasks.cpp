#include "HalvaneError.h"
#include "HalvaneSessionTasks.h"
#include "HalvaneTaskFixture.h"

using namespace orx;
using namespace orx::testing;

namespace {

class SessionTasksTest : public HalvaneTaskFixture {
protected:
    Error loginOn(const QByteArray& data) {
        m_server.script(QStringLiteral("POST /login"),
                        ScriptedFault::raw(200, "{\"status\": \"success\", \"data\": " + data + '}'));
        HalvaneLoginTask task(QStringLiteral("anna"), QStringLiteral("hush hush"));
        const Error error = run(task);
        EXPECT_TRUE(!error.hasError() || task.token().isEmpty());
        return error;
    }
};

} // namespace

TEST_F(SessionTasksTest, LoginGivesATokenAndLeavesTheConnectionAsItIs) {
    HalvaneConnection::instance().setCredentials(QString(), QByteArray());
    HalvaneLoginTask task(m_server.service().userName(), m_server.service().password());
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(task.token(), m_server.service().token());
    EXPECT_EQ(task.user().name, QStringLiteral("anna"));
    EXPECT_GE(task.user().id, 1);
    EXPECT_TRUE(task.expiresAt().isValid());
    EXPECT_FALSE(HalvaneConnection::instance().isAuthenticated());
}

TEST_F(SessionTasksTest, LoginSendsNoTokenOfAnEarlierSession) {
    HalvaneLoginTask task(m_server.service().userName(), m_server.service().password());
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_TRUE(m_server.requests().front().header("Authorization").isEmpty());
}

TEST_F(SessionTasksTest, AWrongPasswordIsTheServersErrorAndAppearsNowhere) {
    HalvaneLoginTask task(QStringLiteral("anna"), QStringLiteral("hush hush"));
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_FALSE(error.traceText().contains(QStringLiteral("hush")));
    EXPECT_FALSE(task.name().contains(QStringLiteral("hush")));
    EXPECT_TRUE(task.token().isEmpty());
}

TEST_F(SessionTasksTest, ALoginReplyIsCheckedStrictly) {
    const QByteArray rest =
        R"(, "expires_at": "2026-03-01T12:00:00.000Z", "user": {"id": 1, "name": "anna"}})";
    EXPECT_TRUE(succeeded(loginOn(R"({"token": "abc")" + rest)));
    for (const char* token : {"\"\"", "7", "null", "\"a b\"", R"("a\r\nX-Evil: 1")", R"("\u00e4")"})
        EXPECT_TRUE(isNetworkError(loginOn("{\"token\": " + QByteArray(token) + rest),
                                   NetworkErrorCode::InvalidReply))
            << token;
    for (
        const char* data :
        {"{}", R"({"token": "abc", "user": {"id": 1, "name": "anna"}})",
         R"({"token": "abc", "expires_at": "soon", "user": {"id": 1, "name": "anna"}})",
         R"({"token": "abc", "expires_at": "2026-03-01T12:00:00.000Z"})",
         R"({"token": "abc", "expires_at": "2026-03-01T12:00:00.000Z", "user": {"id": 0, "name": "anna"}})",
         R"({"token": "abc", "expires_at": "2026-03-01T12:00:00.000Z", "user": {"id": 1, "name": "a", "groups": [1]}})"})
        EXPECT_TRUE(isNetworkError(loginOn(data), NetworkErrorCode::InvalidReply)) << data;
}

TEST_F(SessionTasksTest, WhoAmITellsTheUserItsGroupsAndTheTokensEnd) {
    m_server.script(QStringLiteral("GET /whoami"),
                    ScriptedFault::raw(
                        200, R"({"status": "success", "data": {"token_expires_at": "2026-03-01T12:00:00.000Z",
            "user": {"id": 4, "name": "bert", "is_admin": true, "groups": [{"id": 3, "name": "lab"}]}}})"));
    HalvaneWhoAmITask task;
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(task.user().id, 4);
    EXPECT_TRUE(task.user().isAdmin);
    ASSERT_EQ(task.user().groups.size(), 1);
    EXPECT_EQ(task.user().groups.front().id, 3);
    EXPECT_EQ(task.user().groups.front().name, QStringLiteral("lab"));
    EXPECT_EQ(task.tokenExpiresAt(), QDateTime(QDate(2026, 3, 1), QTime(12, 0), Qt::UTC));
}

TEST_F(SessionTasksTest, AnExpiredTokenIsTheServersError) {
    HalvaneConnection::instance().setCredentials(QStringLiteral("anna"), "an old token");
    m_server.script(QStringLiteral("*"), ScriptedFault::failure(401, HalvaneServerErrorCode::NotAuthenticated,
                                                                QStringLiteral("The token has expired.")));
    HalvaneWhoAmITask task;
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_FALSE(error.traceText().contains(QStringLiteral("an old token")));
}

TEST_F(SessionTasksTest, LogoutVoidsTheTokenAtTheServer) {
    HalvaneLogoutTask task;
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(m_server.log(), QStringList{QStringLiteral("POST /logout")});
    EXPECT_FALSE(m_server.requests().front().header("Authorization").isEmpty());
}
