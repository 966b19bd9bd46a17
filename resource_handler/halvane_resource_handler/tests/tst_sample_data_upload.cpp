// Raw sample data goes up as a packed acquisition, made in a temporary directory.
#include "SmallDisk.h"
#include "UploadFixture.h"

#include <AsyncVonkTask.h>
#include <DiskRoom.h>
#include <GroupTask.h>
#include <HalvaneConnection.h>
#include <Vonk.h>
#include <VonkPacker.h>
#include <WorkerPool.h>
#include <tasks/HalvaneSampleDataUploadTask.h>

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>

#include <latch>

namespace orx::testing {
namespace {

class SampleDataUpload : public UploadTest {
protected:
    SampleDataUpload() {
        EXPECT_TRUE(QFile::copy(QStringLiteral(MS_TEST_DATA "/small.mgf"), raw));
        setTempDirs(filePath(QStringLiteral("temporary")));
        EXPECT_TRUE(QDir().mkpath(filePath(QStringLiteral("temporary"))));
        server.service().setChunkSize(1 << 20);
    }

    static void setTempDirs(const QString& directory) {
        const HalvaneSettings settings(*HalvaneConnection::instance().settings().machineSettingsPtr(),
                                       HalvaneUserSettings(directory + QStringLiteral("/XXXXXX")));
        HalvaneConnection::instance().setSettings(settings);
    }
    //! Of all temporary directories there are.
    QStringList temporaryFiles() const {
        QStringList files;
        const QDir all(filePath(QStringLiteral("temporary")));
        for (const QString& name : all.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            files += QDir(all.filePath(name)).entryList(QDir::Files | QDir::Hidden);
        return files;
    }
    int temporaryDirCount() const {
        return int(
            QDir(filePath(QStringLiteral("temporary"))).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
    }

    const QString raw = filePath(QStringLiteral("small.mgf"));
    CacheProbe cache;
    ErrorLog errors;
};

TEST_F(SampleDataUpload, HasItsNameItsKindAndItsDirectoryFromTheStart) {
    const HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
    EXPECT_STREQ(task.metaObject()->className(), "orx::HalvaneSampleDataUploadTask");
    EXPECT_EQ(task.metaObject()->superClass(), &HalvaneFileUploadTaskBase::staticMetaObject);
    EXPECT_EQ(task.name(), QStringLiteral("Upload:SampleData(%1)").arg(raw));
    EXPECT_EQ(int(task.uploadDataType()), 2);
    EXPECT_EQ(task.currentProgress(), 0);
    EXPECT_EQ(task.maxProgress(), 102);
    EXPECT_EQ(temporaryDirCount(), 1);
}

TEST_F(SampleDataUpload, ProgressInitiatedComesOnTheNextTurnOfTheEventLoop) {
    HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
    EventLog events(&task);
    EXPECT_TRUE(events.lines().isEmpty());
    QCoreApplication::processEvents();
    EXPECT_EQ(events.lines(), QStringList{QStringLiteral("progressInitiated 102")});
}

TEST_F(SampleDataUpload, GoesUpPackedUnderTheTargetsName) {
    HalvaneFileUploadParameters upload = uploadOf(raw);
    upload.targetFileName = QStringLiteral("run 7");
    upload.alias = QStringLiteral("first");
    HalvaneSampleDataUploadTask task(upload, nullptr);
    EXPECT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
    EXPECT_EQ(temporaryFiles(), QStringList{QStringLiteral("run 7.vonk")});
    ASSERT_EQ(server.service().files().size(), 1);
    const auto& file = server.service().files().first();
    EXPECT_EQ(file.name, QStringLiteral("run 7.vonk"));
    EXPECT_EQ(file.versions.last().alias, QStringLiteral("first"));
    EXPECT_EQ(task.uploadedFile()->reference(), (HalvaneApiReference{file.id, 1}));

    const QString back = filePath(QStringLiteral("back.vonk"));
    QFile packed(back);
    ASSERT_TRUE(packed.open(QIODevice::WriteOnly));
    packed.write(file.versions.last().content);
    packed.close();
    vonk::Vonk vonk(back);
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_EQ(vonk.metadata().entries.first().path, QStringLiteral("content/small.mgf"));
    const auto requests = server.requests(QStringLiteral("POST /uploads/finalize"));
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(requests[0].json().value(u"force_data_type"), QStringLiteral("Regular"));
    EXPECT_EQ(requests[0].json().value(u"vonk_trace"), vonk.metadata().toJson());
}

TEST_F(SampleDataUpload, ItsProgressIsThatOfTheInnerUpload) {
    const QList<HalvaneCompactExtendedMetaDataValue> metadata{
        {QStringLiteral("operator"), QStringLiteral("anna")}};
    HalvaneSampleDataUploadTask task(uploadOf(raw, 1, ItemType::Folder, Replace, metadata), nullptr);
    EventLog events(&task);
    EXPECT_FALSE(run(task).hasError());
    const QStringList progress = events.linesWith(QStringLiteral("progress "));
    EXPECT_EQ(progress.value(0), QStringLiteral("progress 1/103")) << "packing reports none";
    EXPECT_EQ(progress.last(), QStringLiteral("progress 103/103"));
    EXPECT_EQ(events.linesWith(QStringLiteral("progressInitiated")),
              QStringList{QStringLiteral("progressInitiated 103")});
    EXPECT_EQ(task.currentProgress(), 103);
    EXPECT_EQ(task.maxProgress(), 103);
    EXPECT_EQ(server.service().files().first().extendedMetadata.size(), 1);
}

TEST_F(SampleDataUpload, ANewVersionGoesToTheFile) {
    const int file = server.service().addFile(QStringLiteral("small.mgf.vonk"), "old");
    HalvaneSampleDataUploadTask task(uploadOf(raw, file, ItemType::File), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(server.service().files().value(file).versions.size(), 2);
}

TEST_F(SampleDataUpload, ItsResultIsNotCachedByItButByTheInnerUpload) {
    HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(cache.lookups, 1);
    ASSERT_TRUE(cache.path().has_value());
    EXPECT_EQ(QDir(*cache.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{QStringLiteral("content")});
}

TEST_F(SampleDataUpload, TheTemporaryDirectoryGoesWithTheTask) {
    {
        HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
        EXPECT_FALSE(run(task).hasError());
        EXPECT_EQ(temporaryDirCount(), 1);
    }
    EXPECT_EQ(temporaryDirCount(), 0);
}

TEST_F(SampleDataUpload, AnEmptyPathFailsWithoutASubtask) {
    HalvaneSampleDataUploadTask task(uploadOf(QString()), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::General));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("The local path is missing."));
    EXPECT_TRUE(temporaryFiles().isEmpty());
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneSampleDataUploadTask::initialize")));
}

TEST_F(SampleDataUpload, WithoutATemporaryDirectoryItFailsBeforeAnythingElse) {
    setTempDirs(filePath(QStringLiteral("missing")));
    HalvaneSampleDataUploadTask task(uploadOf(QString()), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::General));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("Cannot create a temporary dir."));
    const ContextTranslator translator;
    HalvaneSampleDataUploadTask translated(uploadOf(raw), nullptr);
    EXPECT_EQ(run(translated).errorMessage(),
              QStringLiteral("orx::HalvaneSampleDataUploadTask|Cannot create a temporary dir."));
}

TEST_F(SampleDataUpload, APackingThatFailsEndsTheTaskWithItsError) {
    HalvaneSampleDataUploadTask task(uploadOf(filePath(QStringLiteral("missing.mgf"))), nullptr);
    EXPECT_TRUE(run(task).hasError());
    EXPECT_TRUE(task.error().errorMessage().contains(QStringLiteral("missing.mgf")))
        << qPrintable(task.error().errorMessage());
    EXPECT_TRUE(temporaryFiles().isEmpty());
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_FALSE(task.uploadedFile().has_value());
}

TEST_F(SampleDataUpload, ParametersThatCannotBeMadeEndTheTask) {
    HalvaneFileUploadParameters upload = uploadOf(raw);
    upload.targetId = 0;
    HalvaneSampleDataUploadTask task(upload, nullptr);
    EXPECT_TRUE(run(task).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(SampleDataUpload, AnInnerUploadThatFailsEndsTheTaskWithItsError) {
    server.script(
        QStringLiteral("POST /uploads/finalize"),
        ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, QStringLiteral("not yours")));
    HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
    EXPECT_EQ(run(task).errorMessage(), QStringLiteral("not yours"));
    EXPECT_FALSE(task.uploadedFile().has_value());
    EXPECT_TRUE(cache.isEmpty());
}

TEST_F(SampleDataUpload, CancelledWhilePackingItLeavesNothing) {
    HalvaneSampleDataUploadTask task(uploadOf(raw), nullptr);
    task.exec();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_TRUE(temporaryFiles().isEmpty());
}

TEST_F(SampleDataUpload, TheInnerUploadHasThePolicyOptions) {
    server.service().addFile(QStringLiteral("small.mgf.vonk"), "old", ScriptedHalvaneService::RootFolder, 7);
    HalvaneSampleDataUploadTask task(
        uploadOf(raw, ScriptedHalvaneService::RootFolder, ItemType::Folder, ByName), nullptr);
    EXPECT_FALSE(run(task).hasError());
    ASSERT_TRUE(task.uploadedFile().has_value());
    EXPECT_EQ(task.uploadedFile()->reference().fileId, 7);
    EXPECT_EQ(task.uploadedFile()->reference().version, 2);
}

TEST_F(SampleDataUpload, TheInnerUploadChecksTheVersionUnlessItIsToReplace) {
    const int file = server.service().addFile(QStringLiteral("small.mgf.vonk"), "old");
    breakHistory(); // which only who checks asks
    HalvaneSampleDataUploadTask checking(uploadOf(raw, file, ItemType::File, CheckVersion), nullptr);
    EXPECT_TRUE(run(checking).errorMessage().contains(client.configDir()))
        << qPrintable(checking.error().errorMessage());
    EXPECT_EQ(server.service().files().value(file).versions.size(), 1);
    HalvaneSampleDataUploadTask replacing(uploadOf(raw, file, ItemType::File, Replace), nullptr);
    EXPECT_FALSE(run(replacing).hasError()) << qPrintable(replacing.error().traceText());
    EXPECT_EQ(server.service().files().value(file).versions.size(), 2);
}

//! Several that go up side by side from a temporary directory that has room for one.
class SampleDataUploads : public SampleDataUpload {
protected:
    SampleDataUploads() {
        mostBytes = *vonk::VonkPacker::mostBytes(vonk::PackInput::fromMs(raw), raw + QStringLiteral(".vonk"));
    }
    std::unique_ptr<HalvaneSampleDataUploadTask> upload(const QString& name) const {
        HalvaneFileUploadParameters parameters = uploadOf(raw);
        parameters.targetFileName = name;
        return std::make_unique<HalvaneSampleDataUploadTask>(parameters, nullptr);
    }
    //! In an event loop, in which what has ended is deleted.
    static Error runInLoop(BaseTask& task) {
        QEventLoop loop;
        QObject::connect(&task, &BaseTask::finished, &loop, &QEventLoop::quit);
        QMetaObject::invokeMethod(
            &task, [&task] { task.exec(); }, Qt::QueuedConnection);
        loop.exec();
        return task.error();
    }
    SmallDisk diskOf(qint64 bytes) const {
        return SmallDisk(filePath(QStringLiteral("temporary")).toStdString(), bytes);
    }

    qint64 mostBytes = 0;
};

TEST_F(SampleDataUploads, ThatDoNotFitTogetherArriveOneAfterTheOther) {
    const SmallDisk disk = diskOf(mostBytes + 100);
    GroupTask group;
    for (const char* const name : {"run1", "run2", "run3"})
        group.addTask(upload(QString::fromLatin1(name)));
    EXPECT_FALSE(runInLoop(group).hasError()) << qPrintable(group.error().traceText());
    EXPECT_EQ(server.service().files().size(), 3);
}

TEST_F(SampleDataUploads, ThatWaitForRoomKeepNoWorkerAndEndAtOnce) {
    const SmallDisk disk = diskOf(mostBytes + 100);
    const auto held = vonk::DiskRoom::take(filePath(QStringLiteral("temporary")), 200, raw);
    ASSERT_FALSE(held.hasError());
    std::vector<std::unique_ptr<HalvaneSampleDataUploadTask>> waiting;
    for (int i = 0; i < 2 * WorkerPool::instance().threadCount(); ++i) {
        waiting.push_back(upload(QStringLiteral("run%1").arg(i)));
        waiting.back()->exec();
    }
    HalvaneFileUploadTask plain(uploadOf(makeFile(QStringLiteral("a.txt"))), nullptr);
    EXPECT_FALSE(run(plain).hasError());
    EXPECT_EQ(server.service().files().size(), 1);
    waiting.front()->cancel();
    EXPECT_TRUE(waiting.front()->isFinished());
    EXPECT_TRUE(waiting.front()->error().isCanceled());
    waiting.clear();
    EXPECT_EQ(temporaryDirCount(), 0);
    (*held)->release();
    const auto last = upload(QStringLiteral("last"));
    EXPECT_FALSE(run(*last).hasError()) << "nothing is left of those that waited";
}

TEST_F(SampleDataUploads, ThatWaitForRoomLendTheirSlots) {
    const SmallDisk disk = diskOf(mostBytes + 100);
    const auto held = vonk::DiskRoom::take(filePath(QStringLiteral("temporary")), 200, raw);
    ASSERT_FALSE(held.hasError());
    GroupTask group;
    group.setBreadth(2);
    for (int i = 0; i < 8; ++i)
        group.addTask(upload(QStringLiteral("run%1").arg(i)));
    qsizetype arrived = 0;
    group.addTask(
        std::make_unique<HalvaneFileUploadTask>(uploadOf(makeFile(QStringLiteral("a.txt"))), nullptr),
        [&](BaseTask*) {
            arrived = server.service().files().size();
            (*held)->release();
        });
    EXPECT_FALSE(runInLoop(group).hasError()) << qPrintable(group.error().traceText());
    EXPECT_EQ(arrived, 1) << "the plain file, before all that waited";
    EXPECT_EQ(server.service().files().size(), 9);
}

TEST_F(SampleDataUploads, ThatLentTheirSlotsEndWithTheirGroup) {
    const SmallDisk disk = diskOf(mostBytes + 100);
    const auto held = vonk::DiskRoom::take(filePath(QStringLiteral("temporary")), 200, raw);
    ASSERT_FALSE(held.hasError());
    int ended = 0;
    {
        GroupTask group;
        group.setBreadth(2);
        for (int i = 0; i < 8; ++i)
            group.addTask(upload(QStringLiteral("run%1").arg(i)), {}, [&](BaseTask* task) {
                EXPECT_TRUE(task->isCanceled());
                ++ended;
            });
        group.addTask(
            std::make_unique<HalvaneFileUploadTask>(uploadOf(makeFile(QStringLiteral("a.txt"))), nullptr),
            [&](BaseTask*) { group.cancel(); });
        EXPECT_TRUE(runInLoop(group).isCanceled());
    }
    EXPECT_EQ(ended, 8);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(temporaryDirCount(), 0);
    (*held)->release();
    const auto last = upload(QStringLiteral("last"));
    EXPECT_FALSE(run(*last).hasError()) << "turns and room are free again";
}

//! Packings that are at work until the summary may be made.
TEST_F(SampleDataUploads, OfWhichAllPackLeaveHalfOfTheWorkers) {
    std::latch end(1);
    vonk::PackInput input = vonk::PackInput::fromMs(raw);
    input.summarise = [&](std::stop_token) {
        end.wait();
        return vonk::PackInput::Summary{QJsonObject(), {}};
    };
    std::vector<std::unique_ptr<AsyncVonkTask>> packings;
    QList<BaseTask*> all;
    for (int i = 0; i < 2 * WorkerPool::instance().threadCount(); ++i) {
        packings.push_back(
            std::make_unique<AsyncVonkTask>(input, FilePath(filePath(QStringLiteral("run%1.vonk").arg(i)))));
        packings.back()->exec();
        all.append(packings.back().get());
    }
    HalvaneFileUploadTask plain(uploadOf(makeFile(QStringLiteral("a.txt"))), nullptr);
    EXPECT_FALSE(run(plain).hasError());
    EXPECT_EQ(server.service().files().size(), 1);
    packings.back()->cancel();
    EXPECT_TRUE(packings.back()->isFinished()) << "it waited for its turn";
    EXPECT_TRUE(packings.back()->isCanceled());
    end.count_down();
    all.removeLast();
    EXPECT_FALSE(BaseTask::waitForAllFinished(all).hasError());
    for (const auto& packing : packings)
        EXPECT_EQ(packing->isSuccessful(), packing != packings.back());
}

TEST_F(SampleDataUploads, ThatWouldNotFitAloneFailAtOnce) {
    const SmallDisk disk = diskOf(mostBytes - 1);
    const auto task = upload(QStringLiteral("run1"));
    EXPECT_TRUE(run(*task).is(ErrorCode::StorageFull));
}

// Outside of an event loop nothing that has ended is deleted before the wait is over.
TEST_F(SampleDataUploads, ThatAreKeptAreNotWaitedFor) {
    const SmallDisk disk = diskOf(mostBytes + 100);
    const auto first = upload(QStringLiteral("run1"));
    EXPECT_FALSE(run(*first).hasError());
    const auto second = upload(QStringLiteral("run2"));
    EXPECT_TRUE(run(*second).is(ErrorCode::StorageFull));
}

// The worker is anywhere: before its file is there, while it writes it, or when it is through.
TEST_F(SampleDataUpload, DestroyedWhilePackingItLeavesNothing) {
    for (int turns = 0; turns < 12; ++turns) {
        auto task = std::make_unique<HalvaneSampleDataUploadTask>(uploadOf(raw), nullptr);
        task->exec();
        for (int turn = 0; turn < turns && temporaryFiles().isEmpty(); ++turn)
            QCoreApplication::processEvents();
        task.reset();
        EXPECT_EQ(temporaryDirCount(), 0) << turns;
    }
    EXPECT_TRUE(cache.isEmpty());
}

} // namespace
} // namespace orx::testing
