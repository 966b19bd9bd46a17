// What becomes of a taken name, in the order in which it is decided.
#include <LocalStamp.h>
#include <UploadPolicy.h>

#include <UploadFixture.h>

#include <GetDuplicateUploadPolicyTask.h>

#include <gtest/gtest.h>

namespace halvane::host {
namespace {

using orx::DuplicateUploadAnswer;
using orx::ErrorCode;
using orx::GetDuplicateUploadPolicyTask;
using orx::HalvaneServerErrorCode;
using orx::testing::ScriptedFault;
using orx::testing::ScriptedHalvaneServer;
using orx::testing::waitUntil;
using Scope = UploadPolicy::Scope;

constexpr IfTaken everyOption[] = {IfTaken::Ask, IfTaken::NewVersion, IfTaken::KeepBoth, IfTaken::Skip,
                                   IfTaken::Fail};

//! Files whose names are taken in the root folder of a scripted server.
class Policy : public orx::testing::UploadTest {
protected:
    //! A local file, and one of its name on the server with another content unless \a there is given.
    QString taken(const QString& name, const QByteArray& there = "of the server") {
        ids.insert(name, server.service().addFile(name, there));
        return makeFile(name, "of this machine");
    }
    void make(const UploadPolicy::Options& options) {
        policy = std::make_shared<UploadPolicy>(options);
        told.clear();
        const auto tell = [this](const char* word, const QString& path) {
            told.append(QLatin1String(word) + u' ' + QFileInfo(path).fileName());
        };
        QObject::connect(policy.get(), &UploadPolicy::unchanged,
                         [tell](const QString& path, const RemoteItem&) { tell("unchanged", path); });
        QObject::connect(policy.get(), &UploadPolicy::skipped,
                         [tell](const QString& path, const RemoteItem&) { tell("skipped", path); });
        QObject::connect(policy.get(), &UploadPolicy::asked,
                         [tell](const QString& path, const RemoteItem&) { tell("asked", path); });
        QObject::connect(policy.get(), &UploadPolicy::withdrawn,
                         [this] { told.append(QStringLiteral("withdrawn")); });
        QObject::connect(policy.get(), &UploadPolicy::failed,
                         [this, tell](const QString& path, const orx::Error& error) {
                             tell("failed", path);
                             failures.append(error);
                         });
    }
    void make(IfTaken ifTaken, bool keepGoing = false, bool canAsk = false) {
        make(ifTaken, {QFileInfo(filePath(QStringLiteral("."))).absolutePath()}, keepGoing, canAsk);
    }
    void make(IfTaken ifTaken, const QStringList& sources, bool keepGoing = false, bool canAsk = false) {
        UploadPolicy::Options options;
        options.sources = sources;
        options.ifTaken = ifTaken;
        options.keepGoing = keepGoing;
        options.canAsk = canAsk;
        make(options);
    }
    std::unique_ptr<GetDuplicateUploadPolicyTask> question(const QString& path) const {
        const orx::DuplicateUploadPolicyRequest::Input input{path, ids.value(QFileInfo(path).fileName()), 1,
                                                             QStringLiteral("root"), false};
        auto task = std::make_unique<GetDuplicateUploadPolicyTask>(input, policy);
        return task;
    }
    //! What came of it, in a word or two.
    static QString decided(const GetDuplicateUploadPolicyTask& task) {
        const orx::UploadedFileData data = task.uploadedFileData();
        if (task.isCanceled())
            return QStringLiteral("canceled");
        if (task.hasError())
            return QStringLiteral("error");
        if (data.id() == -1)
            return QStringLiteral("left out");
        return data.name().value_or(QStringLiteral("new version"));
    }
    QString ask(const QString& path) const {
        const auto task = question(path);
        (void)run(*task);
        return decided(*task);
    }
    static QStringList list(const char* words) {
        return QString::fromLatin1(words).split(u',', Qt::SkipEmptyParts);
    }

    QHash<QString, int> ids;
    std::shared_ptr<UploadPolicy> policy;
    QStringList told;
    QList<orx::Error> failures;
};

// ---- what comes first

TEST_F(Policy, TheVeryContentIsUnchangedWhateverElseWasAskedFor) {
    const QString path = taken(QStringLiteral("run"), "of this machine");
    for (const IfTaken ifTaken : everyOption) {
        for (const bool keepGoing : {false, true}) {
            make(ifTaken, keepGoing, true);
            EXPECT_EQ(ask(path), QStringLiteral("left out"));
            EXPECT_EQ(told, list("unchanged run"));
        }
    }
}

TEST_F(Policy, AnotherContentIsWhatWasAskedFor) {
    struct Case {
        IfTaken ifTaken;
        bool keepGoing;
        const char* decided;
        const char* told;
    };
    const Case cases[] = {
        {IfTaken::NewVersion, false, "new version", ""},  {IfTaken::NewVersion, true, "new version", ""},
        {IfTaken::KeepBoth, false, "run (2)", ""},        {IfTaken::Skip, false, "left out", "skipped run"},
        {IfTaken::Skip, true, "left out", "skipped run"}, {IfTaken::Fail, false, "error", "failed run"},
        {IfTaken::Fail, true, "left out", "failed run"},  {IfTaken::Ask, false, "error", "failed run"},
        {IfTaken::Ask, true, "left out", "failed run"}};
    const QString path = taken(QStringLiteral("run"));
    for (const Case& one : cases) {
        make(one.ifTaken, one.keepGoing);
        EXPECT_EQ(ask(path), QLatin1String(one.decided)) << int(one.ifTaken) << one.keepGoing;
        EXPECT_EQ(told, list(one.told)) << int(one.ifTaken) << one.keepGoing;
    }
    for (const orx::Error& refused : std::as_const(failures)) {
        EXPECT_TRUE(refused.is(ErrorCode::AlreadyExists));
        EXPECT_TRUE(refused.errorMessage().contains(QStringLiteral("--if-exists new-version")));
    }
}

TEST_F(Policy, WhatCannotBeComparedFailsAndNobodyIsAsked) {
    const QString path = taken(QStringLiteral("run"));
    server.script(
        QStringLiteral("GET /files/*"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")),
        ScriptedHalvaneServer::Always);
    for (const IfTaken ifTaken : everyOption) {
        for (const bool keepGoing : {false, true}) {
            make(ifTaken, keepGoing, true);
            EXPECT_EQ(ask(path), keepGoing ? QStringLiteral("left out") : QStringLiteral("error"));
            EXPECT_EQ(told, list("failed run"));
            EXPECT_EQ(failures.last().errorMessage(), QStringLiteral("not yours"));
        }
    }
}

// ---- where else the content may be

TEST_F(Policy, ToKeepBothTheContentIsLookedForUnderTheNamesThatItMadeEarlier) {
    const QString path = taken(QStringLiteral("run"));
    server.service().addFile(QStringLiteral("run (2)"), "another one");
    const int same = server.service().addFile(QStringLiteral("run (3)"), "of this machine");
    make(IfTaken::KeepBoth);
    int found = -1;
    QObject::connect(policy.get(), &UploadPolicy::unchanged,
                     [&found](const QString&, const RemoteItem& item) { found = item.id; });
    EXPECT_EQ(ask(path), QStringLiteral("left out"));
    EXPECT_EQ(found, same);
    make(IfTaken::NewVersion);
    EXPECT_EQ(ask(path), QStringLiteral("new version"));
}

// Both are on the server under one name: each is compared with both.
TEST_F(Policy, OfTwoThatGoUpUnderOneNameNoneIsSentAgain) {
    const QString packed = taken(QStringLiteral("run.mgf.vonk"), "of this machine");
    const int same = ids.value(QStringLiteral("run.mgf.vonk"));
    ids.insert(QStringLiteral("run.mgf.vonk"),
               server.service().addFile(QStringLiteral("run.mgf.vonk"), "packed raw data"));
    make(IfTaken::NewVersion);
    int found = -1;
    QObject::connect(policy.get(), &UploadPolicy::unchanged,
                     [&found](const QString&, const RemoteItem& item) { found = item.id; });
    EXPECT_EQ(ask(packed), QStringLiteral("new version")) << "what else has its name is none of its business";
    ASSERT_TRUE(
        QFile::copy(QStringLiteral(ORX_TEST_DATA_DIR "/small.mgf"), filePath(QStringLiteral("run.mgf"))));
    EXPECT_EQ(ask(packed), QStringLiteral("left out"));
    EXPECT_EQ(found, same);
}

// The file that has the name may be what became of the other one.
TEST_F(Policy, OfTwoThatGoUpUnderOneNameNoneBecomesAVersionOfTheOther) {
    const QString packed = taken(QStringLiteral("run.mgf.vonk"));
    ASSERT_TRUE(
        QFile::copy(QStringLiteral(ORX_TEST_DATA_DIR "/small.mgf"), filePath(QStringLiteral("run.mgf"))));
    make(IfTaken::NewVersion, true);
    EXPECT_EQ(ask(packed), QStringLiteral("left out"));
    ASSERT_EQ(told, list("failed run.mgf.vonk"));
    EXPECT_TRUE(failures.first().is(ErrorCode::AlreadyExists));
    for (const char* part : {"run.mgf.vonk\"", "run.mgf\"", "file:", "keep-both"})
        EXPECT_TRUE(failures.first().errorMessage().contains(QLatin1String(part))) << part;
    make(IfTaken::NewVersion, {packed});
    EXPECT_EQ(ask(packed), QStringLiteral("new version")) << "the other one does not go up";
    make(IfTaken::KeepBoth);
    EXPECT_NE(ask(packed), QStringLiteral("left out"));
    make(IfTaken::Skip);
    EXPECT_EQ(ask(packed), QStringLiteral("left out"));
    EXPECT_EQ(told, list("skipped run.mgf.vonk"));
}

TEST_F(Policy, WhatGoesUpOfADirectoryLiesBelowAndIsTakenByTheRules) {
    TreeUploadRequest request;
    ASSERT_TRUE(QDir().mkpath(filePath(QStringLiteral("tree"))));
    request.paths = {QFileInfo(makeFile(QStringLiteral("tree/run"), "a")).path() + u'/',
                     makeFile(QStringLiteral("named"), "b")};
    const UploadPolicy::Options options = UploadPolicy::optionsOf(request, true, {});
    const auto goesUp = [&](const char* name) { return options.goesUp(filePath(QString::fromLatin1(name))); };
    EXPECT_TRUE(goesUp("tree/run"));
    EXPECT_FALSE(goesUp("named")) << "it is the only one of its name";
    (void)makeFile(QStringLiteral("tree/.hidden"), "c");
    (void)makeFile(QStringLiteral("trees"), "d");
    EXPECT_FALSE(goesUp("tree/.hidden"));
    EXPECT_FALSE(goesUp("trees")) << "lies beside it";
    EXPECT_FALSE(goesUp("tree/gone"));
    EXPECT_FALSE(options.goesUp(QString()));
}

TEST_F(Policy, WhatIsKnownIsNotReadUnlessItWasTouched) {
    const QString path = taken(QStringLiteral("run"));
    const QString sha256 = QString::fromLatin1(orx::testing::sha256Hex("of the server"));
    UploadPolicy::Options options;
    options.known.insert(path, {LocalStamp::of(path, false).text, sha256});
    make(options);
    EXPECT_EQ(ask(path), QStringLiteral("left out"));
    EXPECT_EQ(told, list("unchanged run"));
    options.known.insert(path, {"the stamp of another time", sha256});
    make(options);
    EXPECT_EQ(ask(path), QStringLiteral("new version"));
    options.known.insert(path, {LocalStamp::of(path, false).text, QStringLiteral("of an older version")});
    make(options);
    EXPECT_EQ(ask(path), QStringLiteral("new version"));
}

TEST(PolicyOptions, OnlyARetryReliesOnWhatIsKnown) {
    const KnownContents::ByPath known{{QStringLiteral("/a"), {"stamp", QStringLiteral("hash")}}};
    TreeUploadRequest request;
    EXPECT_FALSE(UploadPolicy::optionsOf(request, true, known).knownOf(QStringLiteral("/a")));
    request.onlyMissing = true;
    EXPECT_TRUE(UploadPolicy::optionsOf(request, true, known).knownOf(QStringLiteral("/a")));
    EXPECT_FALSE(UploadPolicy::optionsOf(request, true, known).knownOf(QStringLiteral("/b")));
}

// ---- the end in the middle

//! Several whose comparisons do not come to an end.
class PolicyUnderWay : public Policy {
protected:
    static constexpr int atATime = 3;
    void begin(int count) {
        server.script(QStringLiteral("GET /files/*"), ScriptedFault::hold(), ScriptedHalvaneServer::Always);
        for (int i = 0; i < count; ++i) {
            questions.push_back(question(taken(QStringLiteral("run%1").arg(i))));
            questions.back()->exec();
        }
        ASSERT_TRUE(waitUntil([&] { return server.heldCount() == std::min(count, atATime); }));
    }
    std::vector<std::unique_ptr<GetDuplicateUploadPolicyTask>> questions;
};

TEST_F(PolicyUnderWay, CancelEndsAllComparisonsAndAnswersForGood) {
    make(IfTaken::NewVersion);
    begin(atATime + 2);
    EXPECT_EQ(server.count(QStringLiteral("GET /files/*")), atATime) << "no more at a time";
    policy->cancel();
    for (const auto& each : questions) {
        EXPECT_TRUE(waitUntil([&] { return each->isIdle(); }));
        EXPECT_EQ(decided(*each), QStringLiteral("canceled"));
    }
    EXPECT_EQ(server.inFlightCount(), 0);
    EXPECT_EQ(ask(taken(QStringLiteral("later"))), QStringLiteral("canceled"));
    EXPECT_EQ(server.count(QStringLiteral("GET /files/*")), atATime) << "nothing is asked any more";
    EXPECT_EQ(told, QStringList()) << "what was not compared is no failure, and nobody left it out";
}

TEST_F(PolicyUnderWay, OneThatNobodyWaitsForMakesRoomForTheNext) {
    make(IfTaken::NewVersion);
    begin(atATime + 1);
    questions.front()->cancel();
    EXPECT_TRUE(waitUntil([&] { return server.count(QStringLiteral("GET /files/*")) == atATime + 1; }));
    server.release();
    for (const auto& each : questions)
        EXPECT_TRUE(waitUntil([&] { return each->isIdle(); }));
    EXPECT_EQ(decided(*questions.front()), QStringLiteral("canceled"));
    EXPECT_EQ(decided(*questions.back()), QStringLiteral("new version"));
    EXPECT_EQ(told, QStringList());
}

// ---- a person is asked

class PolicyAsking : public Policy {
protected:
    void SetUp() override {
        make(IfTaken::Ask, true, true);
        for (const char* const name : {"a", "b", "c"}) {
            questions.push_back(question(taken(QLatin1String(name))));
            questions.back()->exec();
            // One after the other, so that the order of the questions is that of the names.
            const auto compared = qsizetype(questions.size());
            ASSERT_TRUE(waitUntil([&] { return server.count(QStringLiteral("GET /files/*")) == compared; }));
            ASSERT_TRUE(waitUntil([&] { return !told.isEmpty(); }));
        }
        ASSERT_EQ(told, list("asked a"));
    }
    QStringList answers() {
        QStringList found;
        for (const auto& each : questions) {
            EXPECT_TRUE(waitUntil([&] { return each->isIdle(); }));
            found.append(decided(*each));
        }
        return found;
    }
    //! The questions after the first come in the order in which their comparisons end.
    bool waitForQuestion(int number) {
        return waitUntil([&] { return told.filter(QStringLiteral("asked")).size() == number; });
    }
    std::vector<std::unique_ptr<GetDuplicateUploadPolicyTask>> questions;
};

TEST_F(PolicyAsking, AnAnswerHoldsForOneQuestion) {
    policy->answer(DuplicateUploadAnswer::Skip, Scope::ThisOne);
    ASSERT_TRUE(waitForQuestion(2));
    policy->answer(DuplicateUploadAnswer::NewVersion, Scope::ThisOne);
    ASSERT_TRUE(waitForQuestion(3));
    policy->answer(DuplicateUploadAnswer::NewVersion, Scope::ThisOne);
    EXPECT_EQ(answers(), list("left out,new version,new version"));
    EXPECT_EQ(told.filter(QStringLiteral("skipped")), list("skipped a"));
}

TEST_F(PolicyAsking, AnAnswerForAllHoldsForWhatComesLaterToo) {
    policy->answer(DuplicateUploadAnswer::Skip, Scope::All);
    EXPECT_EQ(answers(), list("left out,left out,left out"));
    EXPECT_EQ(ask(taken(QStringLiteral("d"))), QStringLiteral("left out"));
    EXPECT_EQ(ask(taken(QStringLiteral("e"), "of this machine")), QStringLiteral("left out"));
    QStringList skipped = told.filter(QStringLiteral("skipped"));
    skipped.sort();
    EXPECT_EQ(skipped, list("skipped a,skipped b,skipped c,skipped d"));
    EXPECT_EQ(told.filter(QStringLiteral("unchanged")), list("unchanged e")) << "it is compared all the same";
}

TEST_F(PolicyAsking, WhatNobodyWaitsForIsNotSkipped) {
    questions.front()->cancel();
    ASSERT_TRUE(waitForQuestion(2));
    EXPECT_TRUE(told.contains(QStringLiteral("withdrawn")));
    policy->answer(DuplicateUploadAnswer::Skip, Scope::All);
    EXPECT_EQ(answers(), list("canceled,left out,left out"));
    EXPECT_FALSE(told.contains(QStringLiteral("skipped a")));
}

TEST_F(PolicyAsking, ACancelledRunTakesTheQuestionBackAndSkipsNothing) {
    policy->cancel();
    EXPECT_EQ(answers(), list("canceled,canceled,canceled"));
    EXPECT_EQ(told, list("asked a,withdrawn"));
}

} // namespace
} // namespace halvane::host
