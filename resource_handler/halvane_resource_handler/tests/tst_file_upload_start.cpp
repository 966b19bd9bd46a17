// A file upload from its construction to the point where the upload is opened on the server.
#include "UploadFixture.h"

#include <QCoreApplication>

#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {
namespace {

//! Root may read everything: this thread acts as a user who may not, while the object lives.
class WithoutPrivileges {
public:
    WithoutPrivileges() {
        if (m_user == 0) {
            EXPECT_EQ(::seteuid(65534), 0);
        }
    }
    ~WithoutPrivileges() {
        if (m_user == 0) {
            EXPECT_EQ(::seteuid(0), 0);
        }
    }

private:
    const uid_t m_user = ::geteuid();
};

class FileUploadStart : public UploadTest {
protected:
    FileUploadStart() : path(makeFile(QStringLiteral("run.mzML"))) {}

    //! Target, as the server was asked for it when the upload was opened: "type:id".
    QString openedTarget() const {
        const auto opened = server.requests(QStringLiteral("POST /uploads"));
        if (opened.size() != 1)
            return QStringLiteral("opened %1 times").arg(opened.size());
        const QJsonObject body = opened[0].json();
        return QStringLiteral("%1:%2")
            .arg(body[QStringLiteral("target_type")].toInt(-1))
            .arg(body[QStringLiteral("target_id")].toInt(-1));
    }

    //! Nobody may read the file, but others than its owner may look at it.
    void makeUnreadable() const {
        for (const QString& directory : {client.workDir(), client.workDir() + QStringLiteral("/..")})
            ASSERT_EQ(::chmod(QFile::encodeName(directory).constData(), 0755), 0);
        ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), 0000), 0);
    }

    QString path;
    CacheProbe cache;
};

// Construction

TEST_F(FileUploadStart, TheNameTellsThePath) {
    const HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_EQ(task.name(), QStringLiteral("Upload:File(%1)").arg(path));
}

TEST_F(FileUploadStart, ANewTaskHasSentAndReportedNothing) {
    QObject parent;
    const auto* const task = new HalvaneFileUploadTask(uploadOf(path), &parent);
    EXPECT_EQ(task->parent(), &parent);
    EXPECT_EQ(task->currentProgress(), 0);
    EXPECT_EQ(task->maxProgress(), 102);
    EXPECT_EQ(task->uploadDataType(), HalvaneUploadTask::UploadDataType::RegularFile);
    EXPECT_FALSE(task->uploadedFile().has_value());
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(FileUploadStart, TheMaximumIsFixedAtConstruction) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    HalvaneFileUploadParameters parameters = task.parameters();
    parameters.extendedMetadata.emplace();
    task.setParameters(parameters);
    EXPECT_EQ(task.maxProgress(), 102);
    EXPECT_EQ(HalvaneFileUploadTask(parameters, nullptr).maxProgress(), 103);
}

TEST_F(FileUploadStart, ProgressInitiatedComesOnTheNextTurnOfTheEventLoop) {
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const EventLog events(&task);
    EXPECT_TRUE(events.lines().isEmpty());
    QCoreApplication::processEvents();
    EXPECT_EQ(events.lines(), QStringList{QStringLiteral("progressInitiated 102")});
}

TEST_F(FileUploadStart, ProgressInitiatedIsNotEmittedBecauseTheTaskRuns) {
    server.script(QStringLiteral("*"), ScriptedFault::hang(), ScriptedHalvaneServer::Always);
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const EventLog events(&task);
    task.exec();
    EXPECT_EQ(events.lines(), QStringList{QStringLiteral("started")});
    EXPECT_TRUE(waitUntil([&] { return events.lines().size() == 2; }));
    EXPECT_EQ(events.lines().last(), QStringLiteral("progressInitiated 102"));
}

TEST_F(FileUploadStart, ATaskThatIsGoneBeforeTheLoopTurnsReportsNothing) {
    auto task = std::make_unique<HalvaneFileUploadTask>(uploadOf(path), nullptr);
    const EventLog events(task.get());
    task.reset();
    QCoreApplication::processEvents();
    EXPECT_TRUE(events.lines().isEmpty());
}

TEST_F(FileUploadStart, CreateMakesARegularUploadWithoutAParent) {
    const std::unique_ptr<HalvaneFileUploadTask> task = HalvaneFileUploadTask::create(uploadOf(path, 7));
    ASSERT_TRUE(task);
    EXPECT_EQ(task->metaObject(), &HalvaneFileUploadTask::staticMetaObject);
    EXPECT_EQ(task->parent(), nullptr);
    EXPECT_EQ(task->path(), path);
    EXPECT_EQ(task->targetId(), 7);
}

// initialize, steps 1 and 2

TEST_F(FileUploadStart, AMissingPathFailsBeforeAnyNetworkCall) {
    const QString missing = filePath(QStringLiteral("missing.raw"));
    HalvaneFileUploadTask task(uploadOf(missing), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_EQ(error.code(), 2);
    EXPECT_EQ(error.errorMessage(), QStringLiteral("Path \"%1\" does not point to a file").arg(missing));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(FileUploadStart, ADirectoryFailsBeforeAnyNetworkCall) {
    const QString directory = client.workDir();
    HalvaneFileUploadTask task(uploadOf(directory, 1, ItemType::Folder, ByName), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("Path \"%1\" does not point to a file").arg(directory));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(FileUploadStart, ANamedPipeIsNoFile) {
    const QString pipe = filePath(QStringLiteral("pipe"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    HalvaneFileUploadTask task(uploadOf(pipe), nullptr);
    EXPECT_TRUE(run(task).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(FileUploadStart, AFileThatMayNotBeReadFailsBeforeAnyNetworkCall) {
    ASSERT_NO_FATAL_FAILURE(makeUnreadable());
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    const WithoutPrivileges nobody;
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::FileNotReadable));
    EXPECT_EQ(error.code(), 4);
    EXPECT_EQ(error.errorMessage(), QStringLiteral("Could not read file \"%1\".").arg(path));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(FileUploadStart, TheMessagesAreTranslatedInTheContextOfTheClass) {
    const ContextTranslator translator;
    HalvaneFileUploadTask task(uploadOf(filePath(QStringLiteral("missing"))), nullptr);
    EXPECT_TRUE(run(task).errorMessage().startsWith(QStringLiteral("orx::HalvaneFileUploadTask|Path \"")));

    ASSERT_NO_FATAL_FAILURE(makeUnreadable());
    HalvaneFileUploadTask unreadable(uploadOf(path), nullptr);
    const WithoutPrivileges nobody;
    EXPECT_EQ(run(unreadable).errorMessage(),
              QStringLiteral("orx::HalvaneFileUploadTask|Could not read file \"%1\".").arg(path));
}

TEST_F(FileUploadStart, AnErrorOfInitializeIsStampedThere) {
    HalvaneFileUploadTask task(uploadOf(filePath(QStringLiteral("missing"))), nullptr);
    const auto places = run(task).trace();
    ASSERT_FALSE(places.isEmpty());
    EXPECT_TRUE(places[0].function.contains(QStringLiteral("HalvaneFileUploadTask::initialize")));
    EXPECT_TRUE(places[0].file.endsWith(QStringLiteral("HalvaneFileUploadTask.cpp")));
    EXPECT_GT(places[0].line, 0);
}

TEST_F(FileUploadStart, AFailedStartRunsFromStartedToFinished) {
    HalvaneFileUploadTask task(uploadOf(filePath(QStringLiteral("missing"))), nullptr);
    const EventLog events(&task);
    EXPECT_TRUE(run(task).hasError());
    QCoreApplication::processEvents();
    EXPECT_EQ(events.lines(), (QStringList{QStringLiteral("started"), QStringLiteral("finished"),
                                           QStringLiteral("progressInitiated 102")}));
}

// initialize, step 3, and the search

TEST_F(FileUploadStart, WithTheSearchOptionAFolderIsListedFirst) {
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.log().value(0), QStringLiteral("GET /folders/1/files"));
}

TEST_F(FileUploadStart, WithoutTheSearchOptionNothingIsListed) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    HalvaneFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("GET /folders/*")), 0);
    EXPECT_EQ(openedTarget(), QStringLiteral("1:1"));
}

TEST_F(FileUploadStart, ATargetThatIsAFileIsNotSearchedFor) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("GET /folders/*")), 0);
    EXPECT_EQ(openedTarget(), QStringLiteral("0:7"));
}

TEST_F(FileUploadStart, OfTwoFilesOfTheNameTheOneWithTheLargerIdGetsTheVersion) {
    const int folder = server.service().addFolder(QStringLiteral("raw"));
    server.service().addFile(QStringLiteral("run.mzML"), "twelve", folder, 12);
    server.service().addFile(QStringLiteral("run.mzML"), "seven", folder, 7);
    HalvaneFileUploadTask task(uploadOf(path, folder, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("0:12"));
    EXPECT_EQ(task.targetId(), 12);
    EXPECT_EQ(task.targetType(), ItemType::File);
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{12, 2}));
    EXPECT_EQ(server.service().files()[12].versions.last().content, "twelve bytes");
    EXPECT_EQ(server.service().files()[7].versions.size(), 1);
}

TEST_F(FileUploadStart, TheOrderOfTheListingDoesNotMatter) {
    server.script(QStringLiteral("GET /folders/1/files"),
                  ScriptedFault::raw(200, R"({"status": "success", "data": {"files": [
        {"id": 12, "folder_id": 1, "name": "run.mzML", "last_version": 1, "size": 1, "sha256": "", "alias": ""},
        {"id": 7, "folder_id": 1, "name": "run.mzML", "last_version": 1, "size": 1, "sha256": "", "alias": ""}]}})"));
    server.service().addFile(QStringLiteral("run.mzML"), "x", 1, 12);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("0:12"));
}

TEST_F(FileUploadStart, NamesThatDifferInLetterCaseAreDifferentFiles) {
    server.service().addFile(QStringLiteral("Run.mzML"), "old", 1, 7);
    server.service().addFile(QStringLiteral("run.mzml"), "old", 1, 12);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("1:1"));
}

TEST_F(FileUploadStart, NamesThatOnlyBeginAlikeAreDifferentFiles) {
    server.service().addFile(QStringLiteral("run.mzML.gz"), "old", 1, 7);
    server.service().addFile(QStringLiteral("run"), "old", 1, 12);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("1:1"));
}

TEST_F(FileUploadStart, ANameThatTheFolderDoesNotHoldMakesANewFile) {
    server.service().addFile(QStringLiteral("other.mzML"), "old", 1, 7);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("1:1"));
    EXPECT_EQ(task.targetType(), ItemType::Folder);
    EXPECT_EQ(task.uploadedFile()->reference().version, 1);
}

TEST_F(FileUploadStart, TheNameOfTheLocalFileIsSearchedForNotThatOnTheServer) {
    server.service().addFile(QStringLiteral("wanted.mzML"), "old", 1, 7);
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 12);
    HalvaneFileUploadParameters parameters = uploadOf(path, 1, ItemType::Folder, ByName | Replace);
    parameters.targetFileName = QStringLiteral("wanted.mzML");
    HalvaneFileUploadTask task(parameters, nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(openedTarget(), QStringLiteral("0:12"));
}

TEST_F(FileUploadStart, AFoundFileRefreshesTheSizeAndAMissingOneDoesNot) {
    HalvaneFileUploadParameters parameters = uploadOf(path, 1, ItemType::Folder, ByName | Replace);
    parameters.fileSize = 99;
    server.script(QStringLiteral("POST /uploads"), ScriptedFault::hang(), ScriptedHalvaneServer::Always);
    HalvaneFileUploadTask unfound(parameters, nullptr);
    EXPECT_TRUE(run(unfound).hasError()); // the file is not the 99 bytes long that were told
    EXPECT_EQ(unfound.parameters().fileSize, 99);
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    HalvaneFileUploadTask found(parameters, nullptr);
    found.exec();
    EXPECT_TRUE(
        waitUntil([&] { return server.count(QStringLiteral("POST /uploads")) == 1 || found.isFinished(); }));
    EXPECT_EQ(found.parameters().fileSize, 12);
}

TEST_F(FileUploadStart, AFolderThatCannotBeListedEndsTheTask) {
    server.script(
        QStringLiteral("GET /folders/*"),
        ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, QStringLiteral("no such folder")));
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("no such folder"));
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /folders/1/files")});
    EXPECT_FALSE(isOpenHere(path));
}

// The version check

TEST_F(FileUploadStart, WithReplaceNeitherHistoryNorServerAreAsked) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.service().addVersion(7, "newer");
    recordVersion(path, 7, 1); // would be a conflict
    breakHistory();            // would be an error
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, Replace), nullptr);
    task.exec();
    EXPECT_TRUE(
        waitUntil([&] { return server.count(QStringLiteral("POST /uploads")) == 1 || task.isFinished(); }));
    EXPECT_EQ(openedTarget(), QStringLiteral("0:7"));
    EXPECT_EQ(server.count(QStringLiteral("GET /files/7")), 0);
}

TEST_F(FileUploadStart, ANewFileNeedsNoVersionCheck) {
    breakHistory();
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, CheckVersion), nullptr);
    task.exec();
    EXPECT_TRUE(
        waitUntil([&] { return server.count(QStringLiteral("POST /uploads")) == 1 || task.isFinished(); }));
    EXPECT_EQ(openedTarget(), QStringLiteral("1:1"));
}

TEST_F(FileUploadStart, WithNothingRecordedTheServerIsNotAsked) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("GET /files/7")), 0);
    EXPECT_EQ(openedTarget(), QStringLiteral("0:7"));
}

TEST_F(FileUploadStart, AVersionRecordedForAnotherPathOrFileDoesNotCount) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    recordVersion(makeFile(QStringLiteral("elsewhere.mzML")), 7, 1);
    recordVersion(path, 8, 1);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("GET /files/7")), 0);
}

TEST_F(FileUploadStart, ARecordedVersionEqualToTheServersGoesOn) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.service().addVersion(7, "newer");
    recordVersion(path, 7, 2);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.log().value(0), QStringLiteral("GET /files/7"));
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{7, 3}));
}

TEST_F(FileUploadStart, ARecordedVersionBeyondTheServersGoesOn) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    recordVersion(path, 7, 5);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{7, 2}));
}

TEST_F(FileUploadStart, AServerVersionOneHigherStopsTheUploadAndNothingIsSent) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.service().addVersion(7, "somebody else's");
    recordVersion(path, 7, 1);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    const EventLog events(&task);
    const Error error = run(task);
    EXPECT_EQ(error.domain(), ErrorDomain::Server);
    EXPECT_EQ(error.code(), 4);
    EXPECT_EQ(error.errorMessage(), QString());
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /files/7")});
    EXPECT_EQ(server.service().files()[7].versions.size(), 2);
    EXPECT_FALSE(task.uploadedFile().has_value());
    EXPECT_EQ(cache.lookups, 0);
    EXPECT_FALSE(isOpenHere(path));
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
    EXPECT_TRUE(waitUntil([&] { return task.isIdle(); }));
    EXPECT_EQ(server.log().size(), 1);
}

TEST_F(FileUploadStart, AFileFoundByItsNameIsCheckedToo) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.service().addVersion(7, "somebody else's");
    recordVersion(path, 7, 1);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName), nullptr);
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::VersionConflict));
    EXPECT_EQ(server.log(),
              (QStringList{QStringLiteral("GET /folders/1/files"), QStringLiteral("GET /files/7")}));
}

TEST_F(FileUploadStart, AFileFoundByItsNameIsReplacedWithoutACheckWhenSaidSo) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    server.service().addVersion(7, "somebody else's");
    recordVersion(path, 7, 1);
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName | Replace), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.count(QStringLiteral("GET /files/7")), 0);
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{7, 3}));
}

TEST_F(FileUploadStart, AFileThatTheServerDoesNotShowEndsTheTask) {
    recordVersion(path, 7, 1);
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    EXPECT_TRUE(isHalvaneError(run(task), HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /files/7")});
}

TEST_F(FileUploadStart, AHistoryThatCannotBeReadEndsTheTaskOnceWithItsError) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    breakHistory();
    HalvaneFileUploadTask task(uploadOf(path, 7, ItemType::File, CheckVersion), nullptr);
    const EventLog events(&task);
    const Error error = run(task);
    EXPECT_TRUE(error.errorMessage().contains(client.configDir())) << qPrintable(error.errorMessage());
    const auto places = error.trace();
    EXPECT_TRUE(std::any_of(places.begin(), places.end(), [](const Error::TraceEntry& place) {
        return place.function.contains(QStringLiteral("Private::initializeUpload"));
    }));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
    EXPECT_FALSE(isOpenHere(path));
}

TEST_F(FileUploadStart, AHistoryThatCannotBeReadAfterTheSearchEndsTheTaskOnceWithItsError) {
    server.service().addFile(QStringLiteral("run.mzML"), "old", 1, 7);
    breakHistory();
    HalvaneFileUploadTask task(uploadOf(path, 1, ItemType::Folder, ByName), nullptr);
    const EventLog events(&task);
    EXPECT_TRUE(run(task).errorMessage().contains(client.configDir()));
    EXPECT_EQ(server.log(), QStringList{QStringLiteral("GET /folders/1/files")});
    EXPECT_EQ(events.count(QStringLiteral("finished")), 1);
}

} // namespace
} // namespace orx::testing
