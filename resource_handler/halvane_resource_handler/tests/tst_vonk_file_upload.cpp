// The upload of a packed acquisition: its checks, the upgrade of older formats, its trace, its cache entry.
#include "FailingDisk.h"
#include "LogProbe.h"
#include "SmallWriter.h"
#include "UploadFixture.h"

#include <FileUtils.h>
#include <FullPool.h>
#include <HalvaneConnection.h>
#include <Vonk.h>
#include <VonkUpgradeRule.h>
#include <tasks/HalvaneVonkFileUploadTask.h>

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QJsonArray>
#include <QTimer>

#include <cerrno>

namespace orx::testing {
namespace {

using Silent = HalvaneVonkFileUploadTask;

// The rule

struct Versions {
    const char* name;
    QVersionNumber file;
    QVersionNumber current;
    bool upgraded;
};

class VonkUpgradeRule : public ::testing::TestWithParam<Versions> {};

TEST_P(VonkUpgradeRule, LooksAtTheFirstSegmentsOnly) {
    EXPECT_EQ(isVonkUpgradeNeeded(GetParam().file, GetParam().current), GetParam().upgraded);
}

INSTANTIATE_TEST_SUITE_P(Versions, VonkUpgradeRule,
                         ::testing::Values(Versions{"OlderMajor", {3, 9}, {4, 0}, true},
                                           Versions{"OlderMinor", {4, 0}, {4, 7}, false},
                                           Versions{"OlderPatch", {4, 7, 1}, {4, 7, 2}, false},
                                           Versions{"Same", {4, 7}, {4, 7}, false},
                                           Versions{"NewerMajor", {5}, {4, 7}, false},
                                           Versions{"NoSegments", {}, {1, 0}, true},
                                           Versions{"NoSegmentsAgainstZero", {}, {0, 3}, false},
                                           Versions{"NoSegmentsOfBoth", {}, {}, false}),
                         [](const auto& row) { return std::string(row.param.name); });

// The task

class VonkFileUpload : public UploadTest {
protected:
    ~VonkFileUpload() override { Silent::setPerformSilentUpgradeDefault(true); }

    //! A copy of a kept file of that major version.
    QString packedFile(int major, const QString& name = QStringLiteral("run1.vonk")) const {
        const QString path = filePath(name);
        EXPECT_TRUE(QFile::copy(QStringLiteral(VONK_TEST_DATA "/version%1.vonk").arg(major), path));
        return path;
    }
    QJsonObject finalizeRequest() const {
        const auto requests = server.requests(QStringLiteral("POST /uploads/finalize"));
        return requests.size() == 1 ? requests[0].json() : QJsonObject();
    }
    static QJsonObject metadataOf(const QString& path) {
        vonk::Vonk file(path);
        EXPECT_FALSE(file.open().hasError());
        return file.metadata().toJson();
    }
    //! Temporary directories are made below this from now on.
    static void setTempDir(const QString& directory) {
        const HalvaneSettings settings(*HalvaneConnection::instance().settings().machineSettingsPtr(),
                                       HalvaneUserSettings(directory + QStringLiteral("/XXXXXX")));
        HalvaneConnection::instance().setSettings(settings);
    }
    static QByteArray contentOf(const QString& path) {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }

    //! The files of all temporary directories below \a directory.
    static QStringList entriesBelow(const QString& directory) {
        QStringList names;
        QDirIterator files(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext())
            names += files.next();
        return names;
    }

    CacheProbe cache;
    ErrorLog errors;
};

TEST_F(VonkFileUpload, HasAMetaObjectAndTheNameOfAFileUpload) {
    EXPECT_STREQ(Silent::staticMetaObject.className(), "orx::HalvaneVonkFileUploadTask");
    EXPECT_EQ(Silent::staticMetaObject.superClass(), &HalvaneFileUploadTask::staticMetaObject);
    const HalvaneVonkFileUploadTask task(uploadOf(QStringLiteral("/data/run1.vonk")), nullptr);
    EXPECT_EQ(task.name(), QStringLiteral("Upload:File(/data/run1.vonk)"));
    EXPECT_EQ(task.uploadDataType(), HalvaneUploadTask::UploadDataType::RegularFile);
    EXPECT_EQ(task.maxProgress(), 102);
}

TEST_F(VonkFileUpload, IsMadeForEveryPathWithTheExtension) {
    const auto made = [](const QString& path) {
        const auto task = HalvaneFileUploadTask::create(uploadOf(path));
        EXPECT_EQ(task->parent(), nullptr);
        return qobject_cast<HalvaneVonkFileUploadTask*>(task.get()) != nullptr;
    };
    EXPECT_TRUE(made(QStringLiteral("/data/run1.vonk")));
    EXPECT_TRUE(made(QStringLiteral("/data/run1.VONK")));
    EXPECT_FALSE(made(QStringLiteral("/data/run1.mzML")));
    EXPECT_FALSE(made(QStringLiteral("/data/.vonk")));
}

TEST_F(VonkFileUpload, TheFlagIsCopiedFromTheDefaultWhenTheTaskIsMade) {
    EXPECT_TRUE(Silent::performSilentUpgradeDefault());
    HalvaneVonkFileUploadTask before(uploadOf(QStringLiteral("a.vonk")), nullptr);
    Silent::setPerformSilentUpgradeDefault(false);
    HalvaneVonkFileUploadTask after(uploadOf(QStringLiteral("a.vonk")), nullptr);
    EXPECT_FALSE(Silent::performSilentUpgradeDefault());
    EXPECT_TRUE(before.performSilentUpgrade());
    EXPECT_FALSE(after.performSilentUpgrade());
    after.setPerformSilentUpgrade(true);
    EXPECT_TRUE(after.performSilentUpgrade());
    EXPECT_FALSE(Silent::performSilentUpgradeDefault());
}

TEST_F(VonkFileUpload, AnotherExtensionIsRefusedBeforeTheFileIsRead) {
    HalvaneVonkFileUploadTask task(uploadOf(makeFile(QStringLiteral("run1.tar"))), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("File name is not a vonk file"));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneVonkFileUploadTask::initialize")));
}

TEST_F(VonkFileUpload, AFileThatCannotBeReadFailsWithTheReadersError) {
    HalvaneVonkFileUploadTask missing(uploadOf(filePath(QStringLiteral("no.vonk"))), nullptr);
    EXPECT_TRUE(run(missing).is(ErrorCode::NotFound));
    HalvaneVonkFileUploadTask other(uploadOf(makeFile(QStringLiteral("other.vonk"))), nullptr);
    EXPECT_TRUE(run(other).is(ErrorCode::ParseError));
    const QString cut = packedFile(2);
    ASSERT_TRUE(QFile::resize(cut, QFileInfo(cut).size() - 1));
    HalvaneVonkFileUploadTask damaged(uploadOf(cut), nullptr);
    const Error error = run(damaged);
    EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
    EXPECT_EQ(error.errorMessage(),
              QStringLiteral("\"%1\" cannot be used as a packed acquisition: it is damaged: "
                             "its end is missing or not what it was.")
                  .arg(cut));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneVonkFileUploadTask::initialize")));
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(VonkFileUpload, AFileThatReadsWellButIsNotValidFailsWithTheReadersError) {
    vonk::SmallWriter writer(2);
    writer.addFile(QStringLiteral("content/../run1.raw"), "m/z");
    writer.finish();
    const QString path = makeFile(QStringLiteral("outside.vonk"), writer.bytes());
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(error.errorMessage().contains(path)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(VonkFileUpload, OneOfTheCurrentFormatGoesUpAsItIsWithItsTrace) {
    server.service().setChunkSize(1 << 20);
    const QString path = packedFile(2);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(task.parameters().localPath, path);
    const QJsonObject request = finalizeRequest();
    EXPECT_EQ(request.value(u"vonk_trace"), metadataOf(path));
    EXPECT_EQ(request.value(u"force_data_type"), QStringLiteral("Regular"));
    EXPECT_EQ(request.keys(), (QStringList{QStringLiteral("file_alias"), QStringLiteral("force_data_type"),
                                           QStringLiteral("upload_id"), QStringLiteral("vonk_trace")}));
    ASSERT_EQ(server.service().files().size(), 1);
    EXPECT_EQ(server.service().files().first().versions.last().content, contentOf(path));
    EXPECT_EQ(server.service().files().first().versions.last().vonkTrace, metadataOf(path));
}

TEST_F(VonkFileUpload, OneOfAnOlderFormatIsUpgradedInATemporaryDirectoryFirst) {
    server.service().setChunkSize(1 << 20);
    const QString path = packedFile(1);
    const QByteArray before = contentOf(path);
    QString upgraded;
    {
        HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
        EXPECT_FALSE(run(task).hasError());
        upgraded = task.parameters().localPath;
        EXPECT_NE(upgraded, path);
        EXPECT_EQ(task.path(), upgraded);
        EXPECT_EQ(task.parameters().fileSize, QFileInfo(upgraded).size());
        EXPECT_EQ(QFileInfo(upgraded).fileName(), QStringLiteral("run1.vonk"));
        EXPECT_EQ(finalizeRequest().value(u"vonk_trace"), metadataOf(upgraded));
        EXPECT_EQ(metadataOf(upgraded).value(u"format_version"), QStringLiteral("2.0"));
        ASSERT_EQ(server.service().files().size(), 1);
        const auto& file = server.service().files().first();
        EXPECT_EQ(file.name, QStringLiteral("run1.vonk"));
        EXPECT_EQ(file.versions.last().content, contentOf(upgraded));
        EXPECT_TRUE(cache.path().has_value());
    }
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(upgraded).path())) << "it lives as long as the task";
    EXPECT_EQ(contentOf(path), before) << "the user's file stays as it is";
}

TEST_F(VonkFileUpload, TheFlagDoesNotPreventAnUpgrade) {
    server.service().setChunkSize(1 << 20);
    const QString path = packedFile(1);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    task.setPerformSilentUpgrade(false);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_NE(task.parameters().localPath, path);
    EXPECT_FALSE(task.performSilentUpgrade());
}

TEST_F(VonkFileUpload, AnUpgradeIsLoggedWithBothPaths) {
    server.service().setChunkSize(1 << 20);
    const LogProbe log;
    const QString path = packedFile(1);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(
        log.lines(),
        QStringList{
            QStringLiteral("info|Upgrading  \"%1\" into \"%2\"").arg(path, task.parameters().localPath)});
}

TEST_F(VonkFileUpload, AnUpgradeThatFailsEndsTheTaskBeforeAnyRequest) {
    const QString path = packedFile(1);
    setTempDir(filePath(QStringLiteral("missing directory")));
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    const Error error = run(task);
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable));
    EXPECT_EQ(error.errorMessage(),
              QStringLiteral(
                  "There is no place for a packed acquisition: its path is empty. Is there a directory for "
                  "temporary files, and may you write to it?"));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneVonkFileUploadTask::initialize")));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_EQ(task.parameters().localPath, path);
}

TEST_F(VonkFileUpload, ADamagedFileOfAnOlderFormatEndsTheTaskBeforeAnyRequest) {
    const QString path = packedFile(1);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.seek(200)); // in the payload, which only the upgrade reads
    ASSERT_EQ(file.write("xxxxxxxx"), 8);
    file.close();
    const QString temporary = filePath(QStringLiteral("temporary"));
    ASSERT_TRUE(QDir().mkpath(temporary));
    setTempDir(temporary);
    {
        HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
        const Error error = run(task);
        EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
        EXPECT_TRUE(error.errorMessage().contains(path)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(server.log().isEmpty());
        EXPECT_EQ(entriesBelow(temporary), QStringList()) << "nothing of it is left";
    }
    EXPECT_TRUE(QDir(temporary).isEmpty());
}

TEST_F(VonkFileUpload, AnUpgradedCopyThatCannotBeReadEndsTheTaskWithTheReadersError) {
    const QString temporary = filePath(QStringLiteral("temporary"));
    ASSERT_TRUE(QDir().mkpath(temporary));
    setTempDir(temporary);
    const QString path = packedFile(1);
    const FailingDisk disk(temporary.toStdString(), 0, EIO, FailingDisk::Lasts::Once,
                           FailingDisk::Calls::ThatOpenToRead);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    const Error error = run(task);
    EXPECT_FALSE(disk.failed().empty());
    EXPECT_TRUE(error.is(ErrorCode::FileNotReadable));
    EXPECT_TRUE(error.errorMessage().startsWith(QStringLiteral("Could not read \"%1/").arg(temporary)))
        << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("/run1.vonk\"")))
        << qPrintable(error.errorMessage());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneVonkFileUploadTask::initialize")));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_EQ(task.parameters().localPath, path) << "it was not taken for the file to upload";
}

TEST_F(VonkFileUpload, AnUpgradedCopyThatCannotBeOpenedForTheUploadEndsTheTask) {
    const QString temporary = filePath(QStringLiteral("temporary"));
    ASSERT_TRUE(QDir().mkpath(temporary));
    setTempDir(temporary);
    // The first one to open it reads its metadata.
    const FailingDisk disk(temporary.toStdString(), 1, EIO, FailingDisk::Lasts::Once,
                           FailingDisk::Calls::ThatOpenToRead);
    HalvaneVonkFileUploadTask task(uploadOf(packedFile(1)), nullptr);
    const Error error = run(task);
    EXPECT_FALSE(disk.failed().empty());
    EXPECT_EQ(error.code(), 4);
    EXPECT_TRUE(task.parameters().localPath.startsWith(temporary));
    EXPECT_EQ(error.errorMessage(),
              QStringLiteral("Could not read file \"%1\".").arg(task.parameters().localPath));
    EXPECT_TRUE(server.log().isEmpty());
    EXPECT_FALSE(task.uploadedFile().has_value());
}

TEST_F(VonkFileUpload, AnotherMinorVersionGoesUpAsItIs) {
    server.service().setChunkSize(1 << 20);
    vonk::SmallWriter writer(2, 1);
    writer.addFile(QStringLiteral("content/run1.raw"), "m/z");
    writer.finish();
    const QString path = makeFile(QStringLiteral("newer.vonk"), writer.bytes());
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
    EXPECT_EQ(task.parameters().localPath, path);
    EXPECT_EQ(finalizeRequest().value(u"vonk_trace").toObject().value(u"format_version"),
              QStringLiteral("2.1"));
    EXPECT_EQ(server.service().files().first().versions.last().content, writer.bytes());
}

TEST_F(VonkFileUpload, CancelledWhileItUpgradesItEndsWithoutTheUpgrade) {
    const QString temporary = filePath(QStringLiteral("temporary"));
    ASSERT_TRUE(QDir().mkpath(temporary));
    setTempDir(temporary);
    HalvaneVonkFileUploadTask task(uploadOf(packedFile(1)), nullptr);
    orx::probes::FullPool pool; // the upgrade cannot begin
    QTimer::singleShot(0, &task, [&] {
        task.cancel();
        pool.release();
    });
    EXPECT_TRUE(run(task).isCanceled());
    EXPECT_EQ(entriesBelow(temporary), QStringList());
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(VonkFileUpload, DestroyedWhileItUpgradesItLeavesNothing) {
    const QString temporary = filePath(QStringLiteral("temporary"));
    ASSERT_TRUE(QDir().mkpath(temporary));
    setTempDir(temporary);
    auto task = std::make_unique<HalvaneVonkFileUploadTask>(uploadOf(packedFile(1)), nullptr);
    orx::probes::FullPool pool;
    QTimer::singleShot(0, qApp, [&] {
        task.reset();
        pool.release();
    });
    task->exec();
    EXPECT_FALSE(task);
    EXPECT_TRUE(QDir(temporary).isEmpty());
    EXPECT_TRUE(server.log().isEmpty());
}

TEST_F(VonkFileUpload, TheCacheEntryIsTheUnpackedAcquisition) {
    server.service().setChunkSize(1 << 20);
    cache.subPath = QStringLiteral("server/file/1/1/run1.vonk");
    const QString path = packedFile(2);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    const auto entry = cache.path();
    ASSERT_TRUE(entry.has_value());
    EXPECT_TRUE(QFileInfo(*entry).isDir());
    EXPECT_EQ(QDir(*entry).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{QStringLiteral("content")});
    const QString expected = filePath(QStringLiteral("unpacked"));
    vonk::Vonk file(path);
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.unpack(expected).hasError());
    for (const vonk::VonkEntry& item : file.metadata().entries) {
        if (item.isFile()) {
            EXPECT_EQ(contentOf(*entry + u'/' + item.path), contentOf(expected + u'/' + item.path));
        }
    }
}

TEST_F(VonkFileUpload, AFileThatIsNotWhatTheServerAcknowledgedIsNotCached) {
    server.service().setChunkSize(1 << 20);
    cache.cache().setChecksumSource([](const ResourceReference&) { return QString(64, u'a'); });
    const QString path = packedFile(2);
    HalvaneVonkFileUploadTask task(uploadOf(path), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(cache.isEmpty());
}

TEST_F(VonkFileUpload, APlaceThatCannotBeFormedIsNoFailureOfTheUpload) {
    server.service().setChunkSize(1 << 20);
    cache.subPath = QStringLiteral("../outside");
    HalvaneVonkFileUploadTask task(uploadOf(packedFile(2)), nullptr);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(cache.isEmpty());
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("../outside")));
    EXPECT_TRUE(ErrorLog::mentions(QStringLiteral("HalvaneVonkFileUploadTask::addToCache")));
}

TEST_F(VonkFileUpload, ItsTextsAreTranslatedInItsContext) {
    const ContextTranslator translator;
    HalvaneVonkFileUploadTask task(uploadOf(makeFile(QStringLiteral("run1.tar"))), nullptr);
    EXPECT_EQ(run(task).errorMessage(),
              QStringLiteral("orx::HalvaneVonkFileUploadTask|File name is not a vonk file"));
}

} // namespace
} // namespace orx::testing
