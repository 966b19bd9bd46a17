#include "../src/tasks/ExistingFile.h"
#include "LogProbe.h"
#include "UploadFixture.h"

#include <HalvaneVerifyUploadedContentTask.h>
#include <HalvaneVerifyUploadedFileTask.h>
#include <UploadFileInputValidation.h>

#include <QDir>

#include <algorithm>

using namespace orx;
using namespace orx::testing;

namespace {

using Answer = DuplicateUploadAnswer;

//! Answers as the test says and keeps what it was asked.
class RecordingPolicy : public DuplicateUploadPolicyInterface {
public:
    void decide(const DuplicateUploadPolicyRequestPtr& request) override {
        requests << request;
        if (answer)
            request->answer(*answer);
    }
    std::optional<Answer> answer = Answer::NewVersion;
    QList<DuplicateUploadPolicyRequestPtr> requests;
};

class UploadVerification : public UploadTest {
protected:
    UploadVerification() : folder(server.service().addFolder(QStringLiteral("target"))) {}
    ~UploadVerification() override { UploadFileInputValidation::setFilters(UploadFilters()); }

    HalvaneVerifyUploadedFileTask::Input input(const QString& path) const {
        return {UploadedFileData(folder, path), QStringLiteral("target")};
    }
    UploadedFileData verified(const QString& path) {
        HalvaneVerifyUploadedFileTask task(input(path), policy);
        EXPECT_FALSE(run(task).hasError());
        return task.uploadedFileData();
    }
    QString makeRawData(const QString& name) const {
        const QString path =
            makeFile(name, "BEGIN IONS\nTITLE=1\nPEPMASS=500.5\n100.1 5\n200.2 7\nEND IONS\n");
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadWrite));
        EXPECT_TRUE(
            file.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        return path;
    }
    QString listing() const { return QStringLiteral("GET /folders/%1/files").arg(folder); }
    void breakListing() {
        server.script(QStringLiteral("GET /folders/*"),
                      ScriptedFault::failure(500, HalvaneServerErrorCode(1), QStringLiteral("no listing")),
                      ScriptedHalvaneServer::Always);
    }

    LogProbe log;
    const int folder;
    const std::shared_ptr<RecordingPolicy> policy = std::make_shared<RecordingPolicy>();
};

} // namespace

TEST_F(UploadVerification, BeforeItHasFinishedNothingIsToBeUploaded) {
    const QString path = makeFile(QStringLiteral("run.txt"));
    const HalvaneVerifyUploadedFileTask task(input(path), policy);
    EXPECT_EQ(task.uploadedFileData(), UploadedFileData(path));
    EXPECT_EQ(task.parent(), nullptr);
}

TEST_F(UploadVerification, ValidatesThePathBeforeItAsksTheServer) {
    HalvaneVerifyUploadedFileTask task(input(makeFile(QStringLiteral("run.txt"))), policy);
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(server.log(), QStringList(listing()));
}

TEST_F(UploadVerification, ARefusedPathIsLeftOutWithoutARequest) {
    const QString path = makeFile(QStringLiteral("run.tmp"));
    EXPECT_EQ(verified(path), UploadedFileData(path));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_TRUE(policy->requests.isEmpty());
}

TEST_F(UploadVerification, ANameThatIsFreeBecomesANewFileInTheFolder) {
    server.service().addFile(QStringLiteral("Run.txt"), "another", folder); // letter case counts
    const QString path = makeFile(QStringLiteral("run.txt"));
    EXPECT_EQ(verified(path), UploadedFileData(folder, ItemType::Folder, path, std::nullopt));
    EXPECT_TRUE(policy->requests.isEmpty());
}

TEST_F(UploadVerification, ANameThatIsTakenIsPutToThePolicyWhoseAnswerIsTheResult) {
    server.service().addFile(QStringLiteral("run.txt"), "older", folder);
    const int existing = server.service().addFile(QStringLiteral("run.txt"), "newer", folder);
    const QString path = makeFile(QStringLiteral("run.txt"));
    EXPECT_EQ(verified(path), UploadedFileData(existing, ItemType::File, path, std::nullopt));
    ASSERT_EQ(policy->requests.size(), 1);
    const auto& asked = policy->requests.first()->input();
    EXPECT_EQ(asked.localPath, path);
    EXPECT_EQ(asked.existingFileId, existing);
    EXPECT_EQ(asked.folderId, folder);
    EXPECT_EQ(asked.folderName, QStringLiteral("target"));
    EXPECT_FALSE(asked.isValidMsData);
}

TEST_F(UploadVerification, RawDataIsMatchedAgainstItsPackedName) {
    server.service().addFile(QStringLiteral("run.mgf"), "not this one", folder);
    const int packed = server.service().addFile(QStringLiteral("run.mgf.vonk"), "this one", folder);
    const QString path = makeRawData(QStringLiteral("run.mgf"));
    EXPECT_EQ(verified(path).id(), packed);
    ASSERT_EQ(policy->requests.size(), 1);
    EXPECT_TRUE(policy->requests.first()->input().isValidMsData);
}

TEST_F(UploadVerification, RawDataWithoutAPackedFileOfItsNameIsNew) {
    server.service().addFile(QStringLiteral("run.mgf"), "not packed", folder);
    EXPECT_EQ(verified(makeRawData(QStringLiteral("run.mgf"))).id(), folder);
    EXPECT_TRUE(policy->requests.isEmpty());
}

TEST_F(UploadVerification, ADirectoryIsNewUnlessAFileHasItsName) {
    ASSERT_TRUE(QDir(filePath(QString())).mkpath(QStringLiteral("series")));
    const QString path = filePath(QStringLiteral("series"));
    EXPECT_EQ(verified(path), UploadedFileData(folder, path));
    server.service().addFile(QStringLiteral("series"), "a file", folder);
    EXPECT_EQ(verified(path), UploadedFileData(folder, path)); // a directory takes no version
}

TEST_F(UploadVerification, AFailedListingFailsTheTask) {
    breakListing();
    const QString path = makeFile(QStringLiteral("run.txt"));
    HalvaneVerifyUploadedFileTask task(input(path), policy);
    EXPECT_EQ(run(task).errorMessage(), QStringLiteral("no listing"));
    EXPECT_EQ(task.uploadedFileData(), UploadedFileData(path));
}

TEST_F(UploadVerification, AFailedPolicyFailsTheTask) {
    server.service().addFile(QStringLiteral("run.txt"), "old", folder);
    policy->answer = Answer::Fail;
    HalvaneVerifyUploadedFileTask task(input(makeFile(QStringLiteral("run.txt"))), policy);
    EXPECT_EQ(run(task).code(), int(ErrorCode::AlreadyExists));
    EXPECT_EQ(task.uploadedFileData().id(), -1);
}

TEST_F(UploadVerification, ACancelledQuestionFailsTheTaskWithTheCancelCode) {
    server.service().addFile(QStringLiteral("run.txt"), "old", folder);
    policy->answer = Answer::Cancel;
    HalvaneVerifyUploadedFileTask task(input(makeFile(QStringLiteral("run.txt"))), policy);
    EXPECT_EQ(run(task).code(), int(ErrorCode::Canceled));
}

TEST_F(UploadVerification, WaitsForAPolicyThatAnswersLater) {
    server.service().addFile(QStringLiteral("run.txt"), "old", folder);
    policy->answer = std::nullopt;
    HalvaneVerifyUploadedFileTask task(input(makeFile(QStringLiteral("run.txt"))), policy);
    task.exec();
    while (policy->requests.isEmpty() && task.isRunning())
        (void)task.waitForFinished(1);
    ASSERT_EQ(policy->requests.size(), 1);
    EXPECT_TRUE(task.isRunning());
    policy->requests.first()->answer(Answer::Skip);
    EXPECT_TRUE(task.isSuccessful());
    EXPECT_EQ(task.uploadedFileData().id(), -1);
}

TEST_F(UploadVerification, ALookupThatFailedIsLoggedWithTheNameInBothPlacesAndLeavesTheEntryOut) {
    const Result<int> lookup = Error(ErrorCode::General, QStringLiteral("the reason"));
    EXPECT_FALSE(existingFileId(lookup, QStringLiteral("run.txt"), __FILE__, __func__).has_value());
    EXPECT_EQ(log.lines(),
              QStringList(QStringLiteral("warning|Cannot check if run.txt file already exists in the target "
                                         "folder.\nError: run.txt")));
    EXPECT_TRUE(log.file.endsWith(QStringLiteral("tst_upload_verification.cpp")));
    EXPECT_TRUE(log.function.contains(QStringLiteral("TestBody"))) << "who looked it up";
    EXPECT_EQ(existingFileId(Result<int>(12), QStringLiteral("run.txt"), __FILE__, __func__), 12);
    EXPECT_EQ(existingFileId(Result<int>(-1), QStringLiteral("run.txt"), __FILE__, __func__), -1);
}

TEST_F(UploadVerification, TheLookupWarningIsTranslatedInTheContextOfTheTask) {
    const ContextTranslator translator;
    (void)existingFileId(Result<int>(Error(ErrorCode::General, QStringLiteral("r"))), QStringLiteral("n"),
                         __FILE__, __func__);
    EXPECT_TRUE(log.lines().value(0).startsWith(
        QStringLiteral("warning|orx::HalvaneVerifyUploadedFileTask|Cannot check if n file")));
}

namespace {

class ContentVerification : public UploadVerification {
protected:
    std::unique_ptr<HalvaneVerifyUploadedContentTask> make(const QStringList& files) {
        return std::make_unique<HalvaneVerifyUploadedContentTask>(
            HalvaneVerifyUploadedContentTask::Input{files, folder, QStringLiteral("target")}, policy);
    }
    static QStringList names(const QList<UploadedFileData>& data) {
        QStringList result;
        for (const UploadedFileData& entry : data)
            result << QFileInfo(entry.localPath()).fileName();
        return result;
    }
};

} // namespace

TEST_F(ContentVerification, AnEmptyListFailsAndNamesTheFolder) {
    const auto task = make({});
    task->exec();
    EXPECT_TRUE(task->isFinished());
    EXPECT_EQ(task->error().code(), 2);
    EXPECT_EQ(task->error().errorMessage(),
              QStringLiteral("There is no file to verify inside of target folder"));
    EXPECT_TRUE(task->uploadedFilesData().isEmpty());
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(ContentVerification, TheMessageIsTranslatedInTheContextOfTheTask) {
    const ContextTranslator translator;
    const auto task = make({});
    task->exec();
    EXPECT_TRUE(
        task->error().errorMessage().startsWith(QStringLiteral("orx::HalvaneVerifyUploadedContentTask|")));
}

TEST_F(ContentVerification, CollectsWhatIsToBeUploadedAndLeavesTheRestOut) {
    const int existing = server.service().addFile(QStringLiteral("taken.txt"), "old", folder);
    const auto task = make({makeFile(QStringLiteral("new.txt")), makeFile(QStringLiteral("refused.tmp")),
                            makeFile(QStringLiteral("taken.txt"))});
    EXPECT_FALSE(run(*task).hasError());
    QMap<QString, UploadedFileData> found;
    for (const UploadedFileData& data : task->uploadedFilesData())
        found.insert(QFileInfo(data.localPath()).fileName(), data);
    ASSERT_EQ(found.keys(), QStringList({QStringLiteral("new.txt"), QStringLiteral("taken.txt")}));
    EXPECT_EQ(found.value(QStringLiteral("new.txt"), UploadedFileData(QString())).id(), folder);
    EXPECT_EQ(
        found.value(QStringLiteral("taken.txt"), UploadedFileData(QString())),
        UploadedFileData(existing, ItemType::File, filePath(QStringLiteral("taken.txt")), std::nullopt));
}

TEST_F(ContentVerification, AnEntryThatThePolicySkipsDoesNotAppear) {
    server.service().addFile(QStringLiteral("taken.txt"), "old", folder);
    policy->answer = Answer::Skip;
    const auto task = make({makeFile(QStringLiteral("taken.txt")), makeFile(QStringLiteral("new.txt"))});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(names(task->uploadedFilesData()), QStringList(QStringLiteral("new.txt")));
}

TEST_F(ContentVerification, TheOrderIsThatInWhichTheEntriesEnd) {
    QStringList paths;
    for (const char* name : {"a.txt", "b.txt", "c.txt"}) {
        server.service().addFile(QString::fromLatin1(name), "old", folder);
        paths << makeFile(QString::fromLatin1(name));
    }
    policy->answer = std::nullopt;
    const auto task = make(paths);
    task->exec();
    while (policy->requests.size() < 3 && task->isRunning())
        (void)task->waitForFinished(1);
    ASSERT_EQ(policy->requests.size(), 3);
    for (const char* name : {"c.txt", "a.txt", "b.txt"})
        for (const auto& request : policy->requests)
            if (request->input().localPath == filePath(QString::fromLatin1(name)))
                request->answer(Answer::NewVersion);
    EXPECT_TRUE(task->isSuccessful());
    EXPECT_EQ(names(task->uploadedFilesData()).join(u' '), QStringLiteral("c.txt a.txt b.txt"));
}

TEST_F(ContentVerification, AllEntriesAreAskedAboutTogetherAndShareThePolicy) {
    policy->answer = std::nullopt;
    QStringList paths;
    for (int i = 0; i < 40; ++i) {
        const QString name = QStringLiteral("run %1.txt").arg(i);
        server.service().addFile(name, "old", folder);
        paths << makeFile(name);
    }
    const auto task = make(paths);
    task->exec();
    while (policy->requests.size() < 40 && task->isRunning())
        (void)task->waitForFinished(1);
    EXPECT_EQ(policy->requests.size(), 40);
    task->cancel();
    EXPECT_TRUE(task->isFinished());
}

TEST_F(ContentVerification, AFailingEntryFailsTheTask) {
    breakListing();
    const auto task = make({makeFile(QStringLiteral("a.txt")), makeFile(QStringLiteral("b.txt"))});
    EXPECT_EQ(run(*task).errorMessage(), QStringLiteral("no listing"));
    while (!task->isIdle()) // the other entry goes on
        (void)task->waitForFinished(1);
    EXPECT_TRUE(task->uploadedFilesData().isEmpty());
}

TEST_F(ContentVerification, ALevelCostsOneListingAndSmallConfirmations) {
    for (int i = 0; i < 100; ++i)
        server.service().addFile(QStringLiteral("there %1").arg(i), "x", folder);
    QStringList paths;
    for (int i = 0; i < 100; ++i)
        paths << makeFile(QStringLiteral("new %1.txt").arg(i));
    const auto task = make(paths);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(task->uploadedFilesData().size(), 100);
    EXPECT_EQ(server.count(listing()), int(server.requests().size()));
    EXPECT_LE(server.count(listing()), 100);
    const auto requests = server.requests();
    EXPECT_LE(std::count_if(requests.begin(), requests.end(),
                            [](const ScriptedRequest& request) {
                                return request.header("If-None-Match").isEmpty(); // none kept from before
                            }),
              1);
}

TEST_F(ContentVerification, MayBeDestroyedWhileItRuns) {
    auto task = make({makeFile(QStringLiteral("a.txt")), makeFile(QStringLiteral("b.txt"))});
    task->exec();
    task.reset();
    EXPECT_TRUE(server.log().isEmpty());
}
