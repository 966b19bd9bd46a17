#include "HalvaneTaskFixture.h"

#include <GetDuplicateUploadPolicyTask.h>
#include <GroupTask.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace orx;
using namespace orx::testing;

namespace {

using Answer = DuplicateUploadAnswer;
using ItemType = UploadedFileData::ItemType;
using Input = DuplicateUploadPolicyRequest::Input;

//! Keeps the requests for the test to answer.
class LatePolicy : public DuplicateUploadPolicyInterface {
public:
    void decide(const DuplicateUploadPolicyRequestPtr& request) override { requests << request; }
    QList<DuplicateUploadPolicyRequestPtr> requests;
};

class DuplicateUpload : public HalvaneTaskFixture {
protected:
    void SetUp() override {
        HalvaneTaskFixture::SetUp();
        static int nextFolder = 1'000; // names stay given for the life of the process
        m_folder = m_server.service().addFolder(QStringLiteral("measurements"),
                                                ScriptedHalvaneService::RootFolder, nextFolder++);
        m_file = m_server.service().addFile(QStringLiteral("run.mzML"), "old", m_folder);
    }
    QString makeFile(const QString& name) const {
        QFile file(m_dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        return file.fileName();
    }
    Input input(const QString& path, bool isMsData = false) const {
        return {path, m_file, m_folder, QStringLiteral("measurements"), isMsData};
    }
    static Error runTask(BaseTask& task) {
        task.exec();
        return task.waitForFinished();
    }
    UploadedFileData decided(const Input& question, Answer answer) {
        GetDuplicateUploadPolicyTask task(question, std::make_shared<FixedDuplicateUploadPolicy>(answer));
        EXPECT_TRUE(succeeded(runTask(task)));
        return task.uploadedFileData();
    }

    QTemporaryDir m_dir;
    int m_folder = 0;
    int m_file = 0;
};

} // namespace

TEST(UploadedFileDataValue, FromAPathAloneNamesNothingToUploadAndAFolder) {
    const UploadedFileData data(QStringLiteral("/data/run.mzML"));
    EXPECT_EQ(data.id(), -1);
    EXPECT_EQ(data.itemType(), ItemType::Folder);
    EXPECT_EQ(data.localPath(), QStringLiteral("/data/run.mzML"));
    EXPECT_FALSE(data.name().has_value());
    EXPECT_EQ(UploadedFileData(7, QStringLiteral("/p")).itemType(), ItemType::Folder);
}

TEST_F(DuplicateUpload, ANewVersionGoesToTheExistingFile) {
    const QString path = makeFile(QStringLiteral("run.mzML"));
    EXPECT_EQ(decided(input(path), Answer::NewVersion),
              UploadedFileData(m_file, ItemType::File, path, std::nullopt));
}

TEST_F(DuplicateUpload, TheDefaultIsANewVersionAlsoWithoutAPolicy) {
    const QString path = makeFile(QStringLiteral("run.mzML"));
    for (const auto& policy : {std::shared_ptr<DuplicateUploadPolicyInterface>(),
                               std::shared_ptr<DuplicateUploadPolicyInterface>(
                                   std::make_shared<DefaultDuplicateUploadPolicy>())}) {
        GetDuplicateUploadPolicyTask task(input(path), policy);
        EXPECT_TRUE(succeeded(runTask(task)));
        EXPECT_EQ(task.uploadedFileData(), UploadedFileData(m_file, ItemType::File, path, std::nullopt));
    }
    EXPECT_EQ(m_server.requests().size(), 0);
}

TEST_F(DuplicateUpload, KeepingBothGivesAFreeNameThatNobodyElseGets) {
    m_server.service().addFile(QStringLiteral("run (2).mzML"), "taken on the server", m_folder);
    makeFile(QStringLiteral("run (3).mzML")); // will be uploaded under its own name
    const QString path = makeFile(QStringLiteral("run.mzML"));
    EXPECT_EQ(decided(input(path), Answer::KeepBoth),
              UploadedFileData(m_folder, ItemType::Folder, path, QStringLiteral("run (4).mzML")));
    EXPECT_EQ(decided(input(path), Answer::KeepBoth).name(), QStringLiteral("run (5).mzML"));
}

TEST_F(DuplicateUpload, KeepingBothGivesRawDataAFreeNameOfAPackedAcquisition) {
    m_server.service().addFile(QStringLiteral("run.raw.vonk"), "packed", m_folder);
    makeFile(QStringLiteral("run.raw (2)")); // would be packed to run.raw (2).vonk
    const QString path = makeFile(QStringLiteral("run.raw"));
    EXPECT_EQ(decided(input(path, true), Answer::KeepBoth).name(), QStringLiteral("run.raw (3).vonk"));
}

TEST_F(DuplicateUpload, KeepingBothFailsWhenTheFolderCannotBeListed) {
    m_server.script(QStringLiteral("GET /folders/*"),
                    ScriptedFault::failure(500, HalvaneServerErrorCode(1), QStringLiteral("no listing")),
                    ScriptedHalvaneServer::Always);
    GetDuplicateUploadPolicyTask task(input(makeFile(QStringLiteral("run.mzML"))),
                                      std::make_shared<FixedDuplicateUploadPolicy>(Answer::KeepBoth));
    EXPECT_EQ(runTask(task).errorMessage(), QStringLiteral("no listing"));
    EXPECT_EQ(task.uploadedFileData().id(), -1);
}

TEST_F(DuplicateUpload, WhatIsSkippedHasNoId) {
    const QString path = makeFile(QStringLiteral("run.mzML"));
    EXPECT_EQ(decided(input(path), Answer::Skip), UploadedFileData(path));
}

TEST_F(DuplicateUpload, CancelCancelsTheTask) {
    GetDuplicateUploadPolicyTask task(input(makeFile(QStringLiteral("run.mzML"))),
                                      std::make_shared<FixedDuplicateUploadPolicy>(Answer::Cancel));
    EXPECT_EQ(runTask(task).code(), int(ErrorCode::Canceled));
    EXPECT_TRUE(task.isCanceled());
    EXPECT_EQ(task.uploadedFileData().id(), -1);
}

TEST_F(DuplicateUpload, FailNamesTheFileAndTheFolder) {
    const QString path = makeFile(QStringLiteral("run.mzML"));
    GetDuplicateUploadPolicyTask task(input(path),
                                      std::make_shared<FixedDuplicateUploadPolicy>(Answer::Fail));
    const Error error = runTask(task);
    EXPECT_TRUE(error.is(ErrorDomain::General, int(ErrorCode::AlreadyExists)));
    EXPECT_TRUE(error.errorMessage().contains(path));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("\"measurements\"")));
}

TEST_F(DuplicateUpload, APlainDirectoryIsNotAskedAbout) {
    const auto policy = std::make_shared<LatePolicy>();
    GetDuplicateUploadPolicyTask task(input(m_dir.path()), policy);
    EXPECT_TRUE(succeeded(runTask(task)));
    EXPECT_EQ(task.uploadedFileData(), UploadedFileData(m_folder, m_dir.path()));
    EXPECT_TRUE(policy->requests.isEmpty());
}

TEST_F(DuplicateUpload, ADirectoryOfRawDataIsAskedAboutAndThePolicySeesEverything) {
    const auto policy = std::make_shared<LatePolicy>();
    GetDuplicateUploadPolicyTask task(input(m_dir.path(), true), policy);
    task.exec();
    ASSERT_EQ(policy->requests.size(), 1);
    const Input seen = policy->requests.first()->input();
    EXPECT_EQ(seen.localPath, m_dir.path());
    EXPECT_EQ(seen.existingFileId, m_file);
    EXPECT_EQ(seen.folderId, m_folder);
    EXPECT_EQ(seen.folderName, QStringLiteral("measurements"));
    EXPECT_TRUE(seen.isValidMsData);
    policy->requests.first()->answer(Answer::Skip);
    EXPECT_TRUE(task.isSuccessful());
    policy->requests.first()->answer(Answer::NewVersion); // too late
    EXPECT_EQ(task.uploadedFileData().id(), -1);
}

TEST_F(DuplicateUpload, WhileAPolicyDoesNotAnswerTheSlotServesOthers) {
    const auto policy = std::make_shared<LatePolicy>();
    GroupTask group;
    group.setBreadth(1);
    for (int i = 0; i < 3; ++i)
        group.addTask(std::make_unique<GetDuplicateUploadPolicyTask>(input(QStringLiteral("/p")), policy));
    group.exec();
    ASSERT_EQ(policy->requests.size(), 3);
    for (const auto& request : policy->requests)
        request->answer(Answer::Skip);
    EXPECT_TRUE(group.isSuccessful());
}

TEST_F(DuplicateUpload, ACancelledOrDestroyedTaskWithdrawsItsQuestion) {
    const auto policy = std::make_shared<LatePolicy>();
    int withdrawn = 0;
    auto first = std::make_unique<GetDuplicateUploadPolicyTask>(input(QStringLiteral("/p")), policy);
    auto second = std::make_unique<GetDuplicateUploadPolicyTask>(input(QStringLiteral("/p")), policy);
    first->exec();
    second->exec();
    for (const auto& request : policy->requests)
        request->setOnWithdrawn([&withdrawn] { ++withdrawn; });
    first->cancel();
    EXPECT_TRUE(first->isFinished());
    second.reset();
    EXPECT_EQ(withdrawn, 2);
    for (const auto& request : policy->requests) {
        EXPECT_FALSE(request->isOpen());
        request->answer(Answer::NewVersion);
    }
}

namespace {

//! A person who is asked, and the tasks that wait.
class AskedPerson : public DuplicateUpload {
protected:
    void SetUp() override {
        DuplicateUpload::SetUp();
        QObject::connect(policy.get(), &AskingDuplicateUploadPolicy::asked, policy.get(),
                         [this](const DuplicateUploadPolicyRequest& request) {
                             events << QStringLiteral("asked ") + request.input().localPath;
                         });
        QObject::connect(policy.get(), &AskingDuplicateUploadPolicy::withdrawn, policy.get(),
                         [this] { events << QStringLiteral("withdrawn"); });
        for (const char* path : {"a", "b", "c"}) {
            tasks.push_back(
                std::make_unique<GetDuplicateUploadPolicyTask>(input(QString::fromLatin1(path)), policy));
            tasks.back()->exec();
        }
    }
    std::string log() {
        const QString text = events.join(u", ");
        events.clear();
        return text.toStdString();
    }
    int id(size_t task) const { return tasks.at(task)->uploadedFileData().id(); }

    QStringList events; // outlives who tells it
    const std::shared_ptr<AskingDuplicateUploadPolicy> policy =
        std::make_shared<AskingDuplicateUploadPolicy>();
    std::vector<std::unique_ptr<GetDuplicateUploadPolicyTask>> tasks;
    using Scope = AskingDuplicateUploadPolicy::Scope;
};

} // namespace

TEST_F(AskedPerson, IsAskedOneQuestionAtATime) {
    EXPECT_EQ(log(), "asked a");
    policy->answer(Answer::Skip, Scope::ThisOne);
    EXPECT_EQ(log(), "asked b");
    policy->answer(Answer::NewVersion, Scope::ThisOne);
    EXPECT_EQ(log(), "asked c");
    EXPECT_EQ(id(0), -1);
    EXPECT_EQ(id(1), m_file);
    EXPECT_TRUE(tasks.at(2)->isRunning());
}

TEST_F(AskedPerson, AnswersForAllThatFollow) {
    (void)log();
    policy->answer(Answer::NewVersion, Scope::All);
    EXPECT_EQ(log(), "");
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(id(i), m_file);
    GetDuplicateUploadPolicyTask later(input(QStringLiteral("later")), policy);
    later.exec();
    EXPECT_TRUE(later.isSuccessful());
}

TEST_F(AskedPerson, IsToldOfTheCancellation) {
    (void)log();
    policy->cancel();
    EXPECT_EQ(log(), "withdrawn");
    for (const auto& task : tasks)
        EXPECT_TRUE(task->isCanceled());
    GetDuplicateUploadPolicyTask later(input(QStringLiteral("later")), policy);
    later.exec();
    EXPECT_TRUE(later.isCanceled());
}

TEST_F(AskedPerson, IsToldWhenTheQuestionIsOfNoInterestAnyMore) {
    (void)log();
    tasks.at(1)->cancel(); // was not put yet
    EXPECT_EQ(log(), "");
    tasks.at(0)->cancel();
    EXPECT_EQ(log(), "withdrawn, asked c");
    tasks.at(2)->cancel();
    EXPECT_EQ(log(), "withdrawn");
}
