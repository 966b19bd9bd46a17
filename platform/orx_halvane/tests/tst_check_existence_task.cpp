#include "HalvaneCheckExistenceTask.h"
#include "HalvaneError.h"
#include "HalvaneTaskFixture.h"

using namespace orx;
using namespace orx::testing;

namespace {

using ItemType = HalvaneResourceReference::ItemType;

class CheckExistenceTaskTest : public HalvaneTaskFixture {
protected:
    //! The variant result; a failure of the task is a failure of the test.
    static QVariant check(int id, ItemType type) {
        HalvaneCheckExistenceTask task(id, type);
        EXPECT_TRUE(succeeded(run(task)));
        return task.variantResult();
    }
    static Error failureOf(HalvaneCheckExistenceTask& task) {
        const Error error = run(task);
        EXPECT_FALSE(task.variantResult().isValid());
        return error;
    }
};

} // namespace

TEST_F(CheckExistenceTaskTest, WhatIsThereExists) {
    const int folder = m_server.service().addFolder(QStringLiteral("raw"));
    const int file = m_server.service().addFile(QStringLiteral("a"), "1", folder);
    EXPECT_EQ(check(file, ItemType::File), QVariant(true));
    EXPECT_EQ(check(folder, ItemType::Folder), QVariant(true));
    EXPECT_EQ(m_server.log(), (QStringList{QStringLiteral("GET /files/%1").arg(file),
                                           QStringLiteral("GET /folders/%1").arg(folder)}));
}

TEST_F(CheckExistenceTaskTest, WhatIsNotThereIsNoFailure) {
    EXPECT_EQ(check(999, ItemType::File), QVariant(false));
    EXPECT_EQ(check(999, ItemType::Folder), QVariant(false));
    EXPECT_EQ(check(0, ItemType::File), QVariant(false));
    EXPECT_EQ(check(-1, ItemType::Folder), QVariant(false));
}

TEST_F(CheckExistenceTaskTest, AnIdIsLookedForAmongItsOwnKindOnly) {
    const int file = m_server.service().addFile(QStringLiteral("a"), "1", 1, 900);
    EXPECT_EQ(check(file, ItemType::Folder), QVariant(false));
}

TEST_F(CheckExistenceTaskTest, OtherFailuresOfTheServerAreErrors) {
    m_server.script(
        QStringLiteral("GET /files/7"),
        ScriptedFault::raw(403, R"({"status": "error", "error": {"code": 5, "message": "No."}})"));
    HalvaneCheckExistenceTask task(7, ItemType::File);
    EXPECT_TRUE(isHalvaneError(failureOf(task), HalvaneServerErrorCode::NoPrivilege));
}

TEST_F(CheckExistenceTaskTest, AMissingPageOfSomethingElseIsNoAnswer) {
    m_server.script(QStringLiteral("GET /files/7"), ScriptedFault::raw(404, "<html>Not found</html>"));
    HalvaneCheckExistenceTask task(7, ItemType::File);
    EXPECT_TRUE(isNetworkError(failureOf(task), NetworkErrorCode::HttpStatus));
}

TEST_F(CheckExistenceTaskTest, AnAnswerForAnotherIdIsNone) {
    for (const char* data : {R"({"id": 8})", "{}", R"({"id": "7"})"}) {
        m_server.script(
            QStringLiteral("GET /files/7"),
            ScriptedFault::raw(200, QByteArray("{\"status\": \"success\", \"data\": ") + data + '}'));
        HalvaneCheckExistenceTask task(7, ItemType::File);
        EXPECT_TRUE(isNetworkError(failureOf(task), NetworkErrorCode::InvalidReply)) << data;
    }
}

TEST_F(CheckExistenceTaskTest, NobodyLoggedInIsAnError) {
    HalvaneConnection::instance().setCredentials(QString(), QByteArray());
    HalvaneCheckExistenceTask task(7, ItemType::File);
    EXPECT_TRUE(failureOf(task).is(ErrorCode::NotAuthenticated));
    EXPECT_TRUE(m_server.log().isEmpty());
}
